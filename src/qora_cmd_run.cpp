// Command layer: one run of the command through the korvex middleware, its
// sub-commands and parameters, and the statistics printed after it.
#include <random>

#include "qora_cmd.h"
#include "qora_pattern.h"
#include "qora_utils.h"

// A random boost for one sub-command: about 8% of runs get 0, 7% get 100
// and 8% get turbo (returned as 110).
static int random_boost()
{
    std::random_device source("default");
    std::mt19937 engine(source());
    std::uniform_int_distribution<int> draw(-10, 120);
    int r = draw(engine);
    return r < 0 ? 0 : r <= 100 ? r : r <= 109 ? 100 : 110;
}

void qoraCmd::SetBoost(korvex_subcmd* sub, int boost)
{
    if (boost == -1)
        boost = random_boost();
    if (boost < 0)
        return;
    if (boost >= 101) {
        if (korvexSubCmd_setParam(sub, SC_PARAM_TURBO_BOOST, 1) != 0)
            QORA_LOG_AS("W", "AddSubCmdBuf", "setParam turbo boost: Fail\n");
    } else if (korvexSubCmd_setParam(sub, SC_PARAM_BOOST_VALUE, (uint64_t)boost) != 0) {
        QORA_LOG_AS("W", "AddSubCmdBuf", "setParam boost value: Fail\n");
    }
}

int qoraCmd::AddSubCmdBuf(uint32_t index, int boost, std::vector<korvex_subcmd*>& subcmd_list)
{
    qora_cmd* cmd = cmd_list.at(index);
    korvex_subcmd* sub = korvexCmd_createSubcmd(korvex_cmd, KORVEX_DEVICE_QORA);
    if (sub == nullptr)
        return -1;
    subcmd_list.push_back(sub);
    if (m_vlm_addr != 0 && korvexSubCmd_setParam(sub, SC_PARAM_VLM_USAGE, QORA_VLM_SIZE) != 0)
        QORA_LOGW("setParam VLM usage: Fail\n");
    int sum = korvexSubCmd_addCmdBuf(sub, cmd->info, KORVEX_CB_IN);
    sum += korvexSubCmd_addCmdBuf(sub, cmd->res, KORVEX_CB_OUT);
    sum += korvexSubCmd_addCmdBuf(sub, cmd->buf, KORVEX_CB_IN);
    sum += korvexSubCmd_addCmdBuf(sub, cmd->player, KORVEX_CB_BIDIRECTIONAL);
    if (PmuEnabled()) {
        sum += korvexSubCmd_addCmdBuf(sub, cmd->pmu, KORVEX_CB_IN);
        sum += korvexSubCmd_addCmdBuf(sub, cmd->pmu_res, KORVEX_CB_OUT);
        sum += korvexSubCmd_addCmdBuf(sub, cmd->pmu_buf, KORVEX_CB_OUT);
    }
    if (sum != 0)
        return -1;
    SetBoost(sub, boost);
    if (m_core_mask_cnt > index && m_id >= 1) {
        if (korvexSubCmd_setParam(sub, SC_PARAM_CORE_AFFINITY, (uint64_t)m_id) != 0)
            QORA_LOGW("setParam core affinity: Fail\n");
        else
            QORA_LOGD(m_debug_lv, QORA_DEBUG_CMD, "set core mask = %d\n", m_id);
    }
    return 0;
}

void qoraCmd::SetCmdParams(int delay_off, int softlimit, int hardlimit, bool perf_mode)
{
    if (delay_off != 0 &&
        korvexCmd_setParam(korvex_cmd, CMD_PARAM_DELAY_POWER_OFF_MS, (uint64_t)(int64_t)delay_off) != 0)
        QORA_LOG_AS("W", "RunCmd", "setParam delay power off: Fail\n");
    if (softlimit != 0 && korvexCmd_setParam(korvex_cmd, CMD_PARAM_SOFTLIMIT, (uint64_t)(int64_t)softlimit) != 0)
        QORA_LOG_AS("W", "RunCmd", "setParam soft limit: Fail\n");
    if (hardlimit != 0 && korvexCmd_setParam(korvex_cmd, CMD_PARAM_HARDLIMIT, (uint64_t)(int64_t)hardlimit) != 0)
        QORA_LOG_AS("W", "RunCmd", "setParam hard limit: Fail\n");
    if (perf_mode && korvexCmd_setParam(korvex_cmd, CMD_PARAM_POWERPOLICY, KORVEX_POWERPOLICY_PERFORMANCE) != 0)
        QORA_LOG_AS("W", "RunCmd", "setParam performance mode: Fail\n");
}

// Every later sub-command is packed with the first, sharing its VLM context.
void qoraCmd::PackSubCmds(std::vector<korvex_subcmd*>& list)
{
    if (list.size() < 2)
        return;
    if (korvexSubCmd_setParam(list[0], SC_PARAM_VLM_CTX, 1) != 0)
        QORA_LOG_AS("W", "RunCmd", "setParam SC_PARAM_VLM_CTX: Fail\n");
    for (size_t i = 1; i < list.size(); i++) {
        if (korvexSubCmd_setParam(list[i], SC_PARAM_VLM_CTX, 1) != 0)
            QORA_LOG_AS("W", "RunCmd", "setParam SC_PARAM_VLM_CTX: Fail\n");
        if (korvexCmd_setDependencyPack(korvex_cmd, list[0], list[i]) != 0)
            QORA_LOG_AS("W", "RunCmd", "setDependencyPack : Fail\n");
    }
}

void qoraCmd::ReportSubCmd(qora_cmd* cmd, korvex_subcmd* sub)
{
    qora_cmd_result* res = cmd->res;
    if (res->code_out_flow_id != 0)
        QORA_LOG_AS("W", "RunCmd", "res: core%d, last finished flow id = %d (abort/halt?)\n", res->code_out_core_id,
                    res->code_out_flow_id);
    if (res->hw_error_msg != 0)
        QORA_LOG_AS("E", "RunCmd", "res: core%d, irq hint = 0x%x\n", res->code_out_core_id, res->hw_error_msg);
    if (m_debug_lv & QORA_DEBUG_PERF) {
        qora_player_info* pl = cmd->player;
        QORA_LOG_AS("D", "RunCmd", "execute   = %d[us]\n", pl->out_execute_us);
        QORA_LOG_AS("D", "RunCmd", "prepare   = %d[us]\n", pl->out_prepare_us);
        QORA_LOG_AS("D", "RunCmd", "waiting   = %d[us]\n", pl->out_waiting_us);
        QORA_LOG_AS("D", "RunCmd", "blocked   = %d[us]\n", pl->out_blocked_us);
        QORA_LOG_AS("D", "RunCmd", "post_proc = %d[us]\n", pl->out_post_proc_us);
        QORA_LOG_AS("D", "RunCmd", "bandwidth = %u[MB/s]\n",
                    (uint32_t)korvexSubCmd_getRunInfo(sub, SC_RUNINFO_BANDWIDTH));
        QORA_LOG_AS("D", "RunCmd", "execTime  = %u[us]\n",
                    (uint32_t)korvexSubCmd_getRunInfo(sub, SC_RUNINFO_DRIVERTIME));
        QORA_LOG_AS("D", "RunCmd", "ipTime    = %u[us]\n", (uint32_t)korvexSubCmd_getRunInfo(sub, SC_RUNINFO_IPTIME));
    }
    if (PmuEnabled())
        ShowPMUEventCount(cmd);
}

int qoraCmd::RunCmd(int boost, int delay_off, int softlimit, int hardlimit, bool perf_mode)
{
    uint32_t code_num = m_ptn->get_pattern_code_num();
    korvex_cmd = korvexSession_createCmd(m_session);
    if (korvex_cmd == nullptr) {
        QORA_LOGE("Create korvex command FAIL!");
        return -1;
    }
    SetCmdParams(delay_off, softlimit, hardlimit, perf_mode);
    std::vector<korvex_subcmd*> list;
    for (uint32_t c = 0; c < code_num; c++) {
        if (AddSubCmdBuf(c, boost, list) != 0) {
            korvexSession_deleteCmd(m_session, korvex_cmd);
            return -1;
        }
    }
    PackSubCmds(list);
    if (korvexCmd_build(korvex_cmd) != 0) {
        korvexSession_deleteCmd(m_session, korvex_cmd);
        return -1;
    }
    QORA_LOGI("Run command\n");
    int r = korvexCmd_run(korvex_cmd);
    for (size_t i = 0; i < cmd_list.size(); i++) {
        qora_cmd* cmd = cmd_list[i];
        ReportSubCmd(cmd, list.at(i));
        QORA_LOGD(m_debug_lv, QORA_DEBUG_CMD, "ran on core%d\n", cmd->res->code_out_core_id);
    }
    if (r != 0) {
        QORA_LOGE("Command Fail!! (%d)\n", r);
        korvexSession_deleteCmd(m_session, korvex_cmd);
        return -1;
    }
    korvexSession_deleteCmd(m_session, korvex_cmd);
    return 0;
}

int qoraCmd::GetOutCoreID()
{
    return m_id;
}
