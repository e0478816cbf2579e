// Engine model: the firmware's checks of the command buffers.
#include "kvx_firmware.h"

#include <cstddef>
#include <vector>

#include "kvx_engine.h"
#include "kvx_model.h"

namespace kvx
{

static const uint32_t kFixedBuffers = 3; // information, result, code

static device_memory& memory_of(korvex_subcmd* sub)
{
    return sub->cmd->session->mem;
}

// The buffer at `index`, attached in `direction` with room for `size` bytes.
static uint32_t slot(korvex_subcmd* sub, uint32_t index, int direction, uint32_t size, allocation** found,
                     uint32_t* detail)
{
    *detail = index;
    if (index >= sub->bufs.size())
        return KVX_CAUSE_MISSING_BUFFER;
    const attached& a = sub->bufs[index];
    allocation* al = memory_of(sub).cmdbuf(a.buf);
    if (al == nullptr)
        return KVX_CAUSE_MISSING_BUFFER; // freed since it was attached
    if (a.direction != direction)
        return KVX_CAUSE_DIRECTION;
    if (al->size < size)
        return KVX_CAUSE_BUFFER_SIZE;
    *found = al;
    return KVX_CAUSE_NONE;
}

// A named index: outside the fixed buffers and not named before.
static uint32_t claim(std::vector<bool>& named, uint32_t index, uint32_t* detail)
{
    *detail = index;
    if (index < kFixedBuffers || (index < named.size() && named[index]))
        return KVX_CAUSE_INDEX_CLASH;
    if (index < named.size())
        named[index] = true;
    return KVX_CAUSE_NONE;
}

static uint32_t read_player(korvex_subcmd* sub, fw_view* v, std::vector<bool>& named, uint32_t* detail)
{
    uint32_t index = v->info.rsv_1_index;
    uint32_t cause = claim(named, index, detail);
    if (cause == KVX_CAUSE_NONE)
        cause = slot(sub, index, KORVEX_CB_BIDIRECTIONAL, sizeof(fw_player_info), &v->player, detail);
    if (cause != KVX_CAUSE_NONE)
        return cause;
    uint32_t flag = 0;
    memory_of(sub).read_record(v->player, offsetof(fw_player_info, flag), &flag, 4);
    if (flag != 0 && (flag & ~7u) != kPlayerFlagPriority) {
        *detail = flag;
        return KVX_CAUSE_PLAYER_FLAG;
    }
    v->priority = flag == 0 ? -1 : (int)(flag & 7);
    return KVX_CAUSE_NONE;
}

static uint32_t read_pmu(korvex_subcmd* sub, fw_view* v, std::vector<bool>& named, uint32_t* detail)
{
    const uint32_t index[3] = {v->info.pmu_info_index, v->info.pmu_info_out_index, v->info.pmu_result_index};
    if (index[0] == 0 && index[1] == 0 && index[2] == 0)
        return KVX_CAUSE_NONE; // the PMU is off
    allocation* in = nullptr;
    uint32_t cause = KVX_CAUSE_NONE;
    for (uint32_t i = 0; i < 3 && cause == KVX_CAUSE_NONE; i++)
        cause = claim(named, index[i], detail);
    if (cause == KVX_CAUSE_NONE)
        cause = slot(sub, index[0], KORVEX_CB_IN, sizeof(fw_pmu_info), &in, detail);
    if (cause == KVX_CAUSE_NONE)
        cause = slot(sub, index[1], KORVEX_CB_OUT, sizeof(fw_pmu_info_out), &v->pmu_out, detail);
    if (cause != KVX_CAUSE_NONE)
        return cause;
    memory_of(sub).read_record(in, 0, &v->pmu, sizeof(v->pmu));
    *detail = index[0];
    if (v->pmu.pmu_mode > 1 || v->pmu.number_of_event > kMaxPmuEvents)
        return KVX_CAUSE_PMU_INFO;
    // Normal mode writes one burst-4 record; flusher mode at least one burst-2 record.
    uint32_t least = v->pmu.pmu_mode == 1 ? sizeof(fw_pmu_data_burst2) : sizeof(fw_pmu_data_burst4);
    cause = slot(sub, index[2], KORVEX_CB_OUT, least, &v->pmu_result, detail);
    if (cause == KVX_CAUSE_NONE && (v->pmu.result_buf_size < least || v->pmu.result_buf_size > v->pmu_result->size))
        cause = KVX_CAUSE_PMU_INFO;
    if (cause != KVX_CAUSE_NONE)
        v->pmu_out = v->pmu_result = nullptr;
    return cause;
}

uint32_t read_command_buffers(korvex_subcmd* sub, fw_view* v, uint32_t* detail)
{
    *v = fw_view {};
    v->priority = -1;
    allocation* info = nullptr;
    uint32_t cause = slot(sub, 1, KORVEX_CB_OUT, sizeof(fw_cmd_result), &v->res, detail);
    if (cause == KVX_CAUSE_NONE)
        cause = slot(sub, 0, KORVEX_CB_IN, sizeof(fw_cmd_info), &info, detail);
    if (cause == KVX_CAUSE_NONE)
        cause = slot(sub, 2, KORVEX_CB_IN, 0, &v->code, detail);
    if (cause != KVX_CAUSE_NONE)
        return cause;
    memory_of(sub).read_record(info, 0, &v->info, sizeof(v->info));
    if (v->info.reserved != kPlayMarker) {
        *detail = v->info.reserved;
        return KVX_CAUSE_NO_MARKER;
    }
    if (v->info.code_offset % 4 != 0 || v->info.code_offset >= v->code->size) {
        *detail = v->info.code_offset;
        return KVX_CAUSE_CODE_OFFSET;
    }
    std::vector<bool> named(sub->bufs.size(), false);
    cause = read_player(sub, v, named, detail);
    if (cause == KVX_CAUSE_NONE)
        cause = read_pmu(sub, v, named, detail);
    for (uint32_t i = kFixedBuffers; i < named.size() && cause == KVX_CAUSE_NONE; i++)
        if (!named[i]) {
            *detail = i;
            cause = KVX_CAUSE_UNNAMED_BUFFER;
        }
    return cause;
}

} // namespace kvx
