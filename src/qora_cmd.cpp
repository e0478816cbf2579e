// Command layer: the session and the teardown of everything it owns. Device
// memory and binding are in qora_cmd_mem.cpp, command buffers in
// qora_cmd_buf.cpp, one run in qora_cmd_run.cpp.
#include "qora_cmd.h"

#include "qora_pattern.h"

std::vector<qora_cmd*> cmd_list;
korvex_cmd_t* korvex_cmd;
uint32_t g_vlm_id;

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
