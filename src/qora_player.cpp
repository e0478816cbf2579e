// Player loop: builds the command once, then runs and verifies it the
// requested number of times.
#include "qora_player.h"

#include <unistd.h>

#include <string>

#include "qora_cmd.h"
#include "qora_pattern.h"
#include "qora_utils.h"

QORAPlayer::QORAPlayer(int id, int loop, int debug_lv, int sleep_us, int delay_off, int boost_value, int soft_limit,
                       int hard_limit, bool dump, bool perf_mode)
    : m_id(id), m_loop(loop), m_debug_lv(debug_lv), m_sleep_us(sleep_us), m_boost_value(boost_value),
      m_delay_off(delay_off), m_soft_limit(soft_limit), m_hard_limit(hard_limit), m_dump(dump), m_perf_mode(perf_mode),
      m_cmd(nullptr)
{
}

QORAPlayer::~QORAPlayer()
{
    delete m_cmd;
}

bool QORAPlayer::BuildCmd(qoraPattern* ptn, int prio_lv, std::vector<uint16_t>& pmu_evt, int flusher_mode,
                          bool vlm_disable)
{
    if (ptn == nullptr || ptn->get_pattern_data_num() == 0)
        return false;
    QORA_LOGI("Get pattern : %s\n", ptn->get_pattern_name());
    m_cmd = new qoraCmd(m_id, m_debug_lv, prio_lv, ptn, pmu_evt, flusher_mode, vlm_disable);
    if (m_cmd->AllocDataMem() < 0)
        return false;
    m_cmd->AllocVLM();
    return m_cmd->PrepareCmdBuf() >= 0;
}

bool QORAPlayer::Execute()
{
    if (m_cmd == nullptr)
        return false;
    bool all_compared = true;
    for (int count = 0;;) {
        if (m_loop != -1 && count >= m_loop)
            return false; // a loop count of 0 (or below -1) runs nothing
        if (m_cmd->RunCmd(m_boost_value, m_delay_off, m_soft_limit, m_hard_limit, m_perf_mode) != 0)
            return false;
        QORA_LOGD(m_debug_lv, QORA_DEBUG_CMD, "QORA Success run command, times = %d\n", count);
        int r = m_cmd->CompareResult();
        if (r >= 1) {
            QORA_LOGW("QORA loop %d !! Compare golden Fail !!\n", count);
            if (m_dump)
                m_cmd->DumpResult("output" + std::to_string(count));
            return false;
        }
        if (m_sleep_us >= 1)
            usleep((useconds_t)m_sleep_us);
        if (r != 0)
            all_compared = false; // nothing to compare this time
        count++;
        if (m_loop >= 1 && count == m_loop) {
            if (all_compared)
                QORA_LOGI("Verify pattern %d times : success\n", count);
            else
                QORA_LOGI("Run pattern %d times : done (doesn't compare golden)\n", count);
            return true;
        }
    }
}
