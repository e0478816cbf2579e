// Command layer: device memory and binding, command buffers, and one run of
// the command through the korvex middleware.
#include "qora_cmd.h"

#include <cstring>
#include <random>

#include "qora_pattern.h"
#include "qora_utils.h"

// One record of command-buffer pointers per code buffer. Never emptied:
// only one qoraCmd is made per process.
std::vector<qora_cmd*> cmd_list;
korvex_cmd_t* korvex_cmd;
uint32_t g_vlm_id;

static const uint32_t kDramFlags = 2; // the allocation flags every DRAM buffer gets
static const uint32_t kPageAlign = 4096;
static const uint32_t kVlmSize = 0x100000;

static uint32_t device_va(korvex_session* session, void* p)
{
    return (uint32_t)korvexSession_memGetInfoFromHostPtr(session, p, KORVEX_MEM_INFO_GET_DEVICE_VA);
}

static uint32_t count_bits(uint32_t v)
{
    return (uint32_t)__builtin_popcount(v);
}

qoraCmd::qoraCmd(int id, int debug_lv, int prio_lv, qoraPattern* ptn, std::vector<uint16_t>& pmu_evt,
                 int pmu_flusher_mode, bool vlm_disable)
    : m_id(id), m_debug_lv(debug_lv), m_prio_lv(prio_lv), m_flusher_en(pmu_flusher_mode), m_core_mask_cnt(0),
      m_vlm_handle(nullptr), m_vlm_addr(0), m_vlm_disable(vlm_disable), m_session(nullptr), m_ptn(ptn)
{
    m_session = korvexSession_createInstance();
    if (m_session != nullptr) {
        uint64_t cores = korvexSession_queryDeviceNum(m_session, KORVEX_DEVICE_QORA);
        // Keep the low n bits of the mask; n = 0 (and n = 32) leaves none.
        m_id = (int)((uint32_t)m_id & ~(0xFFFFFFFFu << (cores % 32)));
    }
    m_core_mask_cnt = m_id >= 1 ? count_bits((uint32_t)m_id) : 0;
    m_pmu_evt = pmu_evt;
}

qoraCmd::~qoraCmd()
{
    if (m_session != nullptr) {
        for (uint32_t* p : m_mem_list)
            korvexSession_memFree(m_session, p);
        for (uint32_t* p : m_result_list)
            korvexSession_memFree(m_session, p);
        if (m_vlm_handle != nullptr)
            korvexSession_memFree(m_session, m_vlm_handle);
        for (qora_cmd* cmd : cmd_list) {
            void* bufs[] = {cmd->info, cmd->res, cmd->buf, cmd->player, cmd->pmu, cmd->pmu_res, cmd->pmu_buf};
            for (void* b : bufs)
                if (b != nullptr)
                    korvexSession_cmdBufFree(m_session, b);
            delete cmd;
        }
        korvexSession_deleteInstance(m_session);
        m_session = nullptr;
    }
}

// Every binding of every code buffer whose target is `key`.
static std::vector<binding*> bindings_to(qoraPattern* ptn, const uint8_t* key)
{
    std::vector<binding*> found;
    for (uint32_t c = 0; c < ptn->get_pattern_code_num(); c++) {
        binding* table = ptn->get_pattern_binding(c);
        uint32_t count = ptn->get_pattern_binding_num(c);
        for (uint32_t i = 0; table != nullptr && i < count && i < MAX_NUM; i++)
            if (table[i].data == key)
                found.push_back(&table[i]);
    }
    return found;
}

void qoraCmd::BindDataBuffer(const uint8_t* key, uint32_t dev_va)
{
    for (binding* b : bindings_to(m_ptn, key))
        b->dev_va = dev_va;
}

// The output's device buffer is the one allocated last.
void qoraCmd::BindOutput(const uint8_t* key, uint32_t size)
{
    for (binding* b : bindings_to(m_ptn, key)) {
        b->dev_va = device_va(m_session, m_result_list.back());
        if (m_debug_lv & QORA_DEBUG_MEM)
            QORA_LOG_AS("D", "AllocDataMem", "output_buf: dev va = 0x%08x size = %d\n", b->dev_va, size);
    }
}

int qoraCmd::AllocDataMem()
{
    buffer* data = m_ptn->get_pattern_data();
    uint32_t data_num = m_ptn->get_pattern_data_num();
    uint32_t out_num = m_ptn->get_pattern_output_num();
    if (data == nullptr) {
        QORA_LOGE("get data buf fail\n");
        return -1;
    }
    if (out_num == 0) {
        QORA_LOGE("Pattern has no output information\n");
        return -1;
    }
    if (m_session == nullptr) {
        QORA_LOGE("No korvex session!\n");
        return -1;
    }
    if (korvexSession_queryDeviceNum(m_session, KORVEX_DEVICE_QORA) == 0) {
        QORA_LOGE("no qora device registered!\n");
        korvexSession_deleteInstance(m_session); // the destructor deletes it again, as it always has
        return -1;
    }
    for (uint32_t i = 0; i < data_num && i < MAX_DATA_NUM; i++) {
        buffer* b = &data[i];
        void* p = korvexSession_memAlloc(m_session, b->size, kPageAlign, KORVEX_MEM_TYPE_DRAM, kDramFlags);
        if (p == nullptr) {
            QORA_LOGE("alloc %s FAIL\n", b->data_addr_str);
            return -1;
        }
        if (b->is_tmp != 0)
            memset(p, 0, b->size);
        else if (b->size != 0)
            memcpy(p, b->data, b->size);
        b->dev_va = device_va(m_session, p);
        BindDataBuffer(b->data, b->dev_va);
        QORA_LOGD(m_debug_lv, QORA_DEBUG_MEM, "%s: dev va = 0x%08x sz = %u\n", b->data_addr_str, b->dev_va,
                  (uint32_t)korvexSession_memGetInfoFromHostPtr(m_session, p, KORVEX_MEM_INFO_GET_SIZE));
        m_mem_list.push_back((uint32_t*)p);
    }
    for (uint32_t o = 0; o < out_num; o++) {
        uint8_t* key = m_ptn->get_pattern_output(o);
        uint32_t size = m_ptn->get_pattern_output_size(o);
        void* p = korvexSession_memAlloc(m_session, size, kPageAlign, KORVEX_MEM_TYPE_DRAM, kDramFlags);
        if (p == nullptr) {
            QORA_LOGE("alloc output_buf %d FAIL\n", o);
            return -1;
        }
        memset(p, 0xA5, size);
        m_result_list.push_back((uint32_t*)p);
        BindOutput(key, size); // outputs win over data buffers
    }
    return 0;
}

// Whether any code buffer relocates into the on-chip local memory.
bool qoraCmd::UsesVLM()
{
    for (uint32_t c = 0; c < m_ptn->get_pattern_code_num(); c++) {
        binding* table = m_ptn->get_pattern_binding(c);
        if (table == nullptr)
            return false;
        uint32_t count = m_ptn->get_pattern_binding_num(c);
        for (uint32_t i = 0; i < count && i < MAX_NUM; i++)
            if (table[i].data != nullptr && is_vlm_address(table[i].dev_va))
                return true;
    }
    return false;
}

void qoraCmd::AllocVLM()
{
    if (m_ptn->get_pattern_code_num() == 0 || !UsesVLM() || m_vlm_disable)
        return;
    m_vlm_handle = korvexSession_memAlloc(m_session, 0, 0, KORVEX_MEM_TYPE_VLM, 0);
    if (m_vlm_handle != nullptr)
        m_vlm_addr = device_va(m_session, m_vlm_handle);
    if (m_vlm_addr != 0)
        return;
    QORA_LOGW("get vlm fail!!\n");
    void* p = korvexSession_memAlloc(m_session, kVlmSize, kPageAlign, KORVEX_MEM_TYPE_DRAM, kDramFlags);
    if (p == nullptr) {
        QORA_LOGE("alloc share mem FAIL\n");
        return;
    }
    m_vlm_addr = device_va(m_session, p);
    m_mem_list.push_back((uint32_t*)p);
}

int qoraCmd::PrepareCmdBuf()
{
    for (uint32_t c = 0; c < m_ptn->get_pattern_code_num(); c++)
        if (PrepareSubCmdBuf(c) != 0)
            return -1;
    return 0;
}

// Allocates one command buffer; reports `what` and returns false on failure.
bool qoraCmd::AllocCmdBuf(void** slot, uint32_t size, const char* what)
{
    *slot = korvexSession_cmdBufAlloc(m_session, size, QORA_CMD_BUF_ALIGN);
    if (*slot == nullptr)
        QORA_LOG_AS("E", "PrepareSubCmdBuf", "alloc command buffer (%s) fail\n", what);
    return *slot != nullptr;
}

// Writes the device addresses of the bindings into the copied code. A
// binding whose word lies outside the code buffer is not written: the
// pattern file chose the offset, and the command buffer ends there.
void qoraCmd::RelocateCode(uint32_t index, uint32_t* code, uint32_t code_size, binding* table, uint32_t count)
{
    for (uint32_t i = 0; i < count && i < MAX_NUM; i++) {
        binding* b = &table[i];
        if (b->data == nullptr)
            continue;
        if (is_vlm_address(b->dev_va) && m_vlm_addr != 0)
            b->dev_va = m_vlm_addr;
        uint32_t word = b->ofs & 0xFFFFFFFCu;
        if ((uint64_t)word + 4 > code_size) {
            QORA_LOG_AS("W", "PrepareSubCmdBuf", "codebuf %u: binding ofs 0x%x outside code size 0x%x\n",
                        index, b->ofs, code_size);
            continue;
        }
        uint32_t target = b->dev_va + b->shift;
        code[word / 4] = target >> 4;
        if (m_debug_lv & QORA_DEBUG_MEM)
            QORA_LOG_AS("D", "PrepareSubCmdBuf", "codebuf ofs 0x%x = 0x%x\n", b->ofs, target);
    }
}

int qoraCmd::PrepareSubCmdBuf(uint32_t index)
{
    buffer* code = m_ptn->get_pattern_codebuf(index);
    binding* table = m_ptn->get_pattern_binding(index);
    uint32_t count = m_ptn->get_pattern_binding_num(index);
    qora_cmd* cmd = new qora_cmd();
    cmd_list.push_back(cmd); // the destructor frees whatever gets allocated into it
    if (code == nullptr || table == nullptr) {
        QORA_LOGE("get codebuf/bind fail\n");
        return -1;
    }
    if (!AllocCmdBuf((void**)&cmd->info, sizeof(qora_cmd_info), "command information") ||
        !AllocCmdBuf((void**)&cmd->res, sizeof(qora_cmd_result), "command result") ||
        !AllocCmdBuf((void**)&cmd->player, sizeof(qora_player_info), "player information") ||
        !AllocCmdBuf((void**)&cmd->buf, code->size, "codebuf"))
        return -1;
    if (code->size != 0) // a code buffer whose block was never allocated holds nothing
        memcpy(cmd->buf, code->data, code->size);
    RelocateCode(index, cmd->buf, code->size, table, count);
    if (PmuEnabled()) {
        if (m_pmu_evt.size() <= QORA_PMU_MAX_EVENT - 1)
            PreparePMUEvents(cmd);
        else
            QORA_LOGW("Warning: The number of PMU events > %d\n", QORA_PMU_MAX_EVENT);
    }
    cmd->info->code_offset = 0;
    cmd->info->reserved = QORA_PLAY_MARKER;
    cmd->info->rsv_1_index = 3;
    cmd->player->flag = 0;
    if (m_prio_lv >= 0) {
        cmd->player->flag = 8 | (uint32_t)(m_prio_lv & 7);
        QORA_LOGD(m_debug_lv, QORA_DEBUG_CMD, "set priority = %d\n", m_prio_lv & 7);
    }
    for (uint32_t* p : m_mem_list)
        korvexSession_memFlush(m_session, p);
    for (uint32_t* p : m_result_list)
        korvexSession_memFlush(m_session, p);
    void* bufs[] = {cmd->info, cmd->res, cmd->buf, cmd->player, cmd->pmu, cmd->pmu_res, cmd->pmu_buf};
    for (void* b : bufs)
        korvexSession_memFlush(m_session, b);
    return 0;
}

// A random boost for one sub-command: about 8% of runs get 0, 7% get 100
// and 8% get turbo (returned as 101).
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
    if (m_vlm_addr != 0 && korvexSubCmd_setParam(sub, SC_PARAM_VLM_USAGE, kVlmSize) != 0)
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
    if (delay_off != 0 && korvexCmd_setParam(korvex_cmd, CMD_PARAM_DELAY_POWER_OFF_MS, (uint64_t)(int64_t)delay_off) != 0)
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
        QORA_LOG_AS("W", "RunCmd", "res: core%d, last finished flow id = %d (abort/halt?)\n",
                    res->code_out_core_id, res->code_out_flow_id);
    if (res->hw_error_msg != 0)
        QORA_LOG_AS("E", "RunCmd", "res: core%d, irq hint = 0x%x\n", res->code_out_core_id,
                    res->hw_error_msg);
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
        QORA_LOG_AS("D", "RunCmd", "ipTime    = %u[us]\n",
                    (uint32_t)korvexSubCmd_getRunInfo(sub, SC_RUNINFO_IPTIME));
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
