// Engine model: scheduling on cores, the firmware's reading of the command
// buffers, timing and the PMU.
#include "kvx_engine.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "kvx_isa.h"

namespace kvx {

static const uint32_t kPrepareUs = 12;
static const uint32_t kPostProcUs = 3;
static const uint32_t kMaxFlowRecords = 15360;

// Engine clock in MHz: boost 0..100 from 400 to 1200 MHz, turbo 1500,
// 1000 when nothing is asked.
static uint32_t clock_mhz(const korvex_subcmd* sub)
{
    auto turbo = sub->params.find(SC_PARAM_TURBO_BOOST);
    if (turbo != sub->params.end() && turbo->second != 0)
        return 1500;
    auto boost = sub->params.find(SC_PARAM_BOOST_VALUE);
    if (boost != sub->params.end())
        return 400 + 8 * (uint32_t)std::min<uint64_t>(boost->second, 100);
    return 1000;
}

// Engine writes to a command buffer reach both views at once.
static void write_record(allocation* buf, uint32_t offset, const void* data, uint32_t len)
{
    if (buf == nullptr || (uint64_t)offset + len > buf->size)
        return;
    memcpy(buf->device.data() + offset, data, len);
    memcpy(buf->host + offset, data, len);
}

static allocation* buffer_at(korvex_subcmd* sub, uint32_t index)
{
    if (index >= sub->bufs.size())
        return nullptr;
    return sub->cmd->session->mem.cmdbuf(sub->bufs[index]);
}

static uint32_t event_count(uint16_t event, const work_counters& w)
{
    switch (event) {
    case 0x0101: return (uint32_t)w.instructions;
    case 0x0102: return (uint32_t)work_cycles(w);
    case 0x0103: return (uint32_t)w.flows;
    case 0x1001: return (uint32_t)w.bytes_read;
    case 0x1002: return (uint32_t)w.bytes_written;
    case 0x1003: return (uint32_t)w.dma_commands;
    case 0x1701: return (uint32_t)w.conv_commands;
    case 0x1708: return (uint32_t)w.macs;
    case 0x2001: return (uint32_t)w.vector_elements;
    case 0x2002: return (uint32_t)w.vector_commands;
    default: return 0;
    }
}

// One PMU record: log word, end timestamp, then `counters` counts.
static void write_pmu_record(allocation* out, uint32_t offset, uint32_t counters, uint32_t log, uint32_t tstamp,
                             const fw_pmu_info& pmu, const work_counters& w)
{
    uint32_t words[16] = {log, tstamp};
    uint32_t n = std::min<uint32_t>(pmu.number_of_event, counters);
    for (uint32_t k = 0; k < n; k++)
        words[2 + k] = event_count(pmu.event[k], w);
    write_record(out, offset, words, 8 + 4 * counters);
}

static void write_pmu(korvex_subcmd* sub, const fw_cmd_info& info, const isa_context& ctx, uint32_t core,
                      uint32_t mhz)
{
    if (info.pmu_info_index == 0 || info.pmu_info_out_index == 0 || info.pmu_result_index == 0)
        return;
    allocation* in = buffer_at(sub, info.pmu_info_index);
    allocation* out_info = buffer_at(sub, info.pmu_info_out_index);
    allocation* out = buffer_at(sub, info.pmu_result_index);
    if (in == nullptr || in->size < sizeof(fw_pmu_info) || out_info == nullptr || out == nullptr)
        return;
    fw_pmu_info pmu;
    memcpy(&pmu, in->device.data(), sizeof(pmu));
    pmu.number_of_event = std::min<uint8_t>(pmu.number_of_event, 14);
    uint32_t log = 0x51000000 | (core << 16) | (uint32_t)(ctx.work.flows & 0xFFFF);
    uint8_t burst = pmu.number_of_event <= 6 ? 2 : 4;
    fw_pmu_info_out res{mhz * 1000, pmu.pmu_mode == 1 ? burst : (uint8_t)0, 0};
    write_record(out_info, 0, &res, sizeof(res));
    if (pmu.pmu_mode != 1) {
        uint32_t end = (uint32_t)(ctx.cycle_counter_base + work_cycles(ctx.work)) | 1;
        write_pmu_record(out, 0, 14, log, end, pmu, ctx.work);
        return;
    }
    uint32_t record = burst == 2 ? 32 : 64;
    uint32_t limit = std::min<uint32_t>(kMaxFlowRecords, std::min(pmu.result_buf_size, out->size) / record);
    for (uint32_t i = 0; i < ctx.flows.size() && i < limit; i++) {
        const flow_mark& f = ctx.flows[i];
        uint32_t end = (uint32_t)(ctx.cycle_counter_base + work_cycles(f.work)) | 1;
        write_pmu_record(out, i * record, burst == 2 ? 6 : 14, 0x51000000 | (core << 16) | f.id, end, pmu, f.work);
    }
}

// Runs one sub-command on `core`; false when it faulted or passed its limit.
static bool run_subcmd(korvex_subcmd* sub, uint32_t core, uint32_t waited_us)
{
    korvex_session* s = sub->cmd->session;
    allocation* info_buf = buffer_at(sub, 0);
    allocation* res_buf = buffer_at(sub, 1);
    allocation* code_buf = buffer_at(sub, 2);
    fw_cmd_info info{};
    if (info_buf != nullptr && info_buf->size >= sizeof(info))
        memcpy(&info, info_buf->device.data(), sizeof(info));
    if (info.reserved != kPlayMarker || code_buf == nullptr) {
        fw_cmd_result bad{0, core, kIrqBadCommand, 0};
        write_record(res_buf, 0, &bad, sizeof(bad));
        return false;
    }
    isa_context ctx{};
    ctx.mem = &s->mem;
    ctx.code = code_buf->device.data();
    ctx.code_size = code_buf->size;
    ctx.pc = info.code_offset;
    ctx.cycle_counter_base = s->cycle_counter;
    run_status status = run_code(ctx);

    uint32_t mhz = clock_mhz(sub);
    uint64_t cycles = work_cycles(ctx.work);
    s->cycle_counter += cycles + 1000; // the counter runs between commands too
    sub->ip_us = std::max<uint64_t>(1, (cycles + mhz - 1) / mhz);
    sub->driver_us = sub->ip_us + 20 + sub->ip_us / 50;
    sub->bandwidth = (ctx.work.bytes_read + ctx.work.bytes_written) / sub->ip_us;
    auto hard = sub->cmd->params.find(CMD_PARAM_HARDLIMIT);
    bool over_limit = hard != sub->cmd->params.end() && hard->second != 0 && sub->ip_us > hard->second * 1000;

    uint32_t last_flow = ctx.flows.empty() ? 0 : ctx.flows.back().id;
    fw_cmd_result res{0, core, 0, 0};
    if (status != RUN_DONE || over_limit)
        res = {last_flow, core, status != RUN_DONE ? kIrqFault : kIrqHardLimit, ctx.pc};
    write_record(res_buf, 0, &res, sizeof(res));
    allocation* player = buffer_at(sub, info.rsv_1_index);
    if (player != nullptr && player->size >= sizeof(fw_player_info)) {
        uint32_t times[5] = {kPrepareUs, waited_us, 0, (uint32_t)sub->ip_us, kPostProcUs};
        write_record(player, offsetof(fw_player_info, out_prepare_us), times, sizeof(times));
    }
    write_pmu(sub, info, ctx, core, mhz);
    return status == RUN_DONE && !over_limit;
}

// Cores a sub-command may run on: its affinity mask within the engine.
static uint32_t allowed_cores(const korvex_subcmd* sub, uint32_t cores)
{
    uint32_t all = cores >= 32 ? 0xFFFFFFFFu : (1u << cores) - 1;
    auto affinity = sub->params.find(SC_PARAM_CORE_AFFINITY);
    return affinity == sub->params.end() ? all : (uint32_t)affinity->second & all;
}

static bool is_packed(const korvex_cmd* cmd, const korvex_subcmd* sub)
{
    for (const auto& pack : cmd->packs)
        if (pack.first == sub || pack.second == sub)
            return true;
    return false;
}

// Packed sub-commands run together, each on a core of its own; when the
// cores they may use are all taken, the rest of the pack waits for the next
// round. The others run one after another on the lowest core they may use.
int run_command(korvex_cmd* cmd, uint32_t cores)
{
    uint32_t busy_in_round = 0;
    uint32_t round_start_us = 0, round_us = 0, elapsed_us = 0;
    bool all_ok = cores > 0;
    for (korvex_subcmd* sub : cmd->subs) {
        bool packed = is_packed(cmd, sub);
        uint32_t allowed = allowed_cores(sub, cores);
        if (allowed == 0) {
            all_ok = false;
            continue;
        }
        if (packed && (allowed & ~busy_in_round) == 0) {
            busy_in_round = 0; // a new round starts when the last one ends
            round_start_us += round_us;
            round_us = 0;
        }
        uint32_t core = (uint32_t)__builtin_ctz(packed ? allowed & ~busy_in_round : allowed);
        all_ok = run_subcmd(sub, core, packed ? round_start_us : elapsed_us) && all_ok;
        if (packed) {
            busy_in_round |= 1u << core;
            round_us = std::max(round_us, (uint32_t)sub->ip_us);
        } else {
            elapsed_us += (uint32_t)sub->ip_us;
        }
    }
    return all_ok ? 0 : -1;
}

} // namespace kvx
