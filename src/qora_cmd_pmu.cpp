// Command layer: the performance-monitoring unit. Its three command buffers
// (events in, frequency and burst mode out, counts out) are set up with each
// sub-command and shown after each run, in normal mode (one record) or in
// flusher mode (one record per finished flow).
#include "qora_cmd.h"
#include "qora_utils.h"

static const uint32_t kFlusherResultSize = 0xF0000;
static const uint32_t kFlowRecords = 15360;
static const uint32_t kResultAlign = 0x100000;

bool qoraCmd::PmuEnabled() const
{
    return !m_pmu_evt.empty() || m_flusher_en != 0;
}

uint32_t qoraCmd::ResultBufSize() const
{
    return m_flusher_en != 0 ? kFlusherResultSize : sizeof(qora_pmu_data_burst4);
}

void qoraCmd::PreparePMUEvents(qora_cmd* cmd)
{
    cmd->pmu = (qora_pmu_info*)korvexSession_cmdBufAlloc(m_session, sizeof(qora_pmu_info), QORA_CMD_BUF_ALIGN);
    if (cmd->pmu == nullptr) {
        QORA_LOGE("alloc command buffer (pmu) fail\n");
        m_pmu_evt.clear();
        return;
    }
    cmd->pmu_res =
        (qora_pmu_info_out*)korvexSession_cmdBufAlloc(m_session, sizeof(qora_pmu_info_out), QORA_CMD_BUF_ALIGN);
    uint32_t result_size = ResultBufSize();
    cmd->pmu->result_buf_size = result_size;
    cmd->pmu->pmu_mode = m_flusher_en != 0 ? 1 : 0;
    cmd->pmu_buf = (uint32_t*)korvexSession_cmdBufAlloc(m_session, result_size, kResultAlign);
    if (cmd->pmu_res == nullptr || cmd->pmu_buf == nullptr) {
        QORA_LOGE("alloc command buffer (pmu_res/buf) fail\n");
        m_pmu_evt.clear();
        return;
    }
    cmd->pmu->number_of_event = (uint8_t)m_pmu_evt.size();
    for (size_t k = 0; k < m_pmu_evt.size() && k < QORA_PMU_MAX_EVENT; k++)
        cmd->pmu->event[k] = m_pmu_evt[k];
    cmd->info->pmu_info_index = 4;
    cmd->info->pmu_info_out_index = 5;
    cmd->info->pmu_result_index = 6;
}

// One flow record of the flusher's result buffer, either layout.
struct flow_record {
    uint32_t cmd_log;
    uint32_t end_tstamp;
    const uint32_t* counters;
};

static flow_record flow_at(const uint32_t* buf, uint32_t index, bool burst2)
{
    uint32_t words = burst2 ? sizeof(qora_pmu_data_burst2) / 4 : sizeof(qora_pmu_data_burst4) / 4;
    const uint32_t* r = buf + index * words;
    return {r[0], r[1], r + 2};
}

void qoraCmd::ShowFlows(qora_cmd* cmd, uint32_t shown, uint32_t freq)
{
    uint32_t divisor = freq / 1000;
    uint8_t burst = cmd->pmu_res->burst_mode;
    QORA_LOG_AS("I", "ShowPMUEventCount", "burst_mode = 0x%x\n", burst);
    bool burst2 = (burst & 0xF) == 2;
    if (burst2 && shown > 6)
        shown = 6;
    // The records end with the buffer this player allocated, whatever mode
    // the record read back from the engine names.
    uint32_t allocated = ResultBufSize();
    uint32_t record_bytes = burst2 ? sizeof(qora_pmu_data_burst2) : sizeof(qora_pmu_data_burst4);
    uint32_t records = allocated / record_bytes < kFlowRecords ? allocated / record_bytes : kFlowRecords;
    uint32_t previous = 0;
    for (uint32_t i = 0; i < records; i++) {
        flow_record r = flow_at(cmd->pmu_buf, i, burst2);
        if (r.end_tstamp == 0)
            break;
        QORA_LOG_AS("I", "ShowPMUEventCount", "---- flow id = %04d (cmd_log = 0x%08x), time = %d us ----\n", i,
                    r.cmd_log, divisor == 0 ? 0 : (int)((r.end_tstamp - previous) / divisor));
        for (uint32_t k = 0; k < shown; k++)
            QORA_LOG_AS("I", "ShowPMUEventCount", "evt:0x%04x, cnt: %u\n", cmd->pmu->event[k], r.counters[k]);
        previous = r.end_tstamp;
    }
    QORA_LOG_AS("I", "ShowPMUEventCount", "---- ip time = %d us ----\n", divisor == 0 ? 0 : (int)(previous / divisor));
}

void qoraCmd::ShowPMUEventCount(qora_cmd* cmd)
{
    if (cmd->pmu == nullptr || cmd->pmu_res == nullptr || cmd->pmu_buf == nullptr)
        return;
    korvexSession_memInvalidate(m_session, cmd->pmu);
    korvexSession_memInvalidate(m_session, cmd->pmu_res);
    korvexSession_memInvalidate(m_session, cmd->pmu_buf);
    uint32_t shown = cmd->pmu->number_of_event < QORA_PMU_MAX_EVENT ? cmd->pmu->number_of_event : QORA_PMU_MAX_EVENT;
    uint32_t freq = cmd->pmu_res->qora_freq;
    QORA_LOGI("pmu freq = %u\n", freq);
    if (cmd->pmu->pmu_mode == 1) {
        ShowFlows(cmd, shown, freq);
        return;
    }
    QORA_LOGI("-------- normal mode, cmd_log = 0x%08x--------\n", cmd->pmu_buf[0]);
    for (uint32_t k = 0; k < shown; k++)
        QORA_LOGI("evt:0x%04x, cnt: %u\n", cmd->pmu->event[k], cmd->pmu_buf[2 + k]);
}
