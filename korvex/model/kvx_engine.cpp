// Engine model: scheduling on cores, running a sub-command, timing, the
// records written back and the PMU.
#include "kvx_engine.h"

#include <algorithm>
#include <cstddef>
#include <exception>

#include "kvx_firmware.h"
#include "kvx_hooks.h"
#include "kvx_isa.h"
#include "kvx_model.h"

namespace kvx
{

static const uint32_t kPrepareUs = 12;
static const uint32_t kPostProcUs = 3;
static const uint32_t kDriverUs = 20;            // the driver's own share of a run
static const uint32_t kCyclesBetweenRuns = 1000; // the counter runs between commands too
static const uint32_t kMaxFlowRecords = 15360;
static const uint32_t kPmuLog = 0x51000000;

static uint64_t param(const std::map<int, uint64_t>& params, int type)
{
    auto it = params.find(type);
    return it == params.end() ? 0 : it->second;
}

// Engine clock in MHz: boost 0..100 from 400 to 1200 MHz, turbo 1500,
// 1000 when nothing is asked.
static uint32_t clock_mhz(const korvex_subcmd* sub)
{
    if (param(sub->params, SC_PARAM_TURBO_BOOST) != 0)
        return 1500;
    if (sub->params.count(SC_PARAM_BOOST_VALUE) != 0)
        return 400 + 8 * (uint32_t)param(sub->params, SC_PARAM_BOOST_VALUE);
    return 1000;
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
static void write_pmu_record(device_memory& mem, allocation* out, uint32_t offset, uint32_t counters, uint32_t log,
                             uint32_t tstamp, const fw_pmu_info& pmu, const work_counters& w)
{
    uint32_t words[2 + kMaxPmuEvents] = {log, tstamp};
    uint32_t n = std::min<uint32_t>(pmu.number_of_event, counters);
    for (uint32_t k = 0; k < n; k++)
        words[2 + k] = event_count(pmu.event[k], w);
    mem.write_record(out, offset, words, 8 + 4 * counters);
}

static void write_pmu(const fw_view& v, const isa_context& ctx, uint32_t core, uint32_t mhz)
{
    const fw_pmu_info& pmu = v.pmu;
    uint8_t burst = pmu.number_of_event <= 6 ? 2 : 4;
    fw_pmu_info_out res {mhz * 1000, pmu.pmu_mode == 1 ? burst : (uint8_t)0, 0};
    ctx.mem->write_record(v.pmu_out, 0, &res, sizeof(res));
    if (pmu.pmu_mode != 1) {
        uint32_t log = kPmuLog | (core << 16) | (uint32_t)(ctx.work.flows & 0xFFFF);
        uint32_t end = (uint32_t)(ctx.cycle_counter_base + work_cycles(ctx.work)) | 1;
        write_pmu_record(*ctx.mem, v.pmu_result, 0, kMaxPmuEvents, log, end, pmu, ctx.work);
        return;
    }
    uint32_t record = burst == 2 ? sizeof(fw_pmu_data_burst2) : sizeof(fw_pmu_data_burst4);
    uint32_t limit = std::min<uint32_t>(kMaxFlowRecords, pmu.result_buf_size / record);
    for (uint32_t i = 0; i < ctx.flows.size() && i < limit; i++) {
        const flow_mark& f = ctx.flows[i];
        uint32_t end = (uint32_t)(ctx.cycle_counter_base + work_cycles(f.work)) | 1;
        write_pmu_record(*ctx.mem, v.pmu_result, i * record, burst == 2 ? 6 : kMaxPmuEvents,
                         kPmuLog | (core << 16) | f.id, end, pmu, f.work);
    }
}

static bool is_fault(uint32_t cause)
{
    return cause != KVX_CAUSE_NONE && cause != KVX_CAUSE_SOFT_LIMIT;
}

// One line per sub-command in the call trace: what the engine read, what
// it ran with and how it ended.
static void trace_run(const korvex_subcmd* sub, uint32_t core, const fw_view& v)
{
    if (!tracing())
        return;
    const korvex_cmd* cmd = sub->cmd;
    std::string args = handle_name("subcmd", sub->id, sub) + ", core " + std::to_string(core) + ", priority " +
        (v.priority < 0 ? std::string("none") : std::to_string(v.priority)) + ", " + std::to_string(clock_mhz(sub)) +
        " MHz";
    const std::pair<const char*, uint64_t> settings[] = {
        {"vlm_usage", param(sub->params, SC_PARAM_VLM_USAGE)},
        {"vlm_ctx", param(sub->params, SC_PARAM_VLM_CTX)},
        {"soft_limit", param(cmd->params, CMD_PARAM_SOFTLIMIT)},
        {"hard_limit", param(cmd->params, CMD_PARAM_HARDLIMIT)},
        {"power_policy", param(cmd->params, CMD_PARAM_POWERPOLICY)},
        {"delay_off", param(cmd->params, CMD_PARAM_DELAY_POWER_OFF_MS)},
    };
    for (const auto& s : settings)
        if (s.second != 0)
            args += std::string(", ") + s.first + " " + std::to_string(s.second);
    char result[48];
    snprintf(result, sizeof(result), "cause 0x%02x, detail 0x%x", sub->cause, sub->detail);
    trace_call("engine_run", args, result);
}

// Leaves the cause in the run information and the result record.
static void finish(korvex_subcmd* sub, const fw_view& v, uint32_t core, uint32_t flow, uint32_t cause, uint32_t detail)
{
    sub->cause = cause;
    sub->detail = detail;
    fw_cmd_result res {is_fault(cause) ? flow : 0, core, is_fault(cause) ? KVX_IRQ_BASE | cause : 0, detail};
    sub->cmd->session->mem.write_record(v.res, 0, &res, sizeof(res));
    trace_run(sub, core, v);
}

// A sub-command that is not run: its result record (when it can be found)
// carries the cause.
static void refuse(korvex_subcmd* sub, uint32_t core, uint32_t cause, uint32_t detail)
{
    fw_view v;
    uint32_t ignored;
    read_command_buffers(sub, &v, &ignored);
    sub->ip_us = sub->driver_us = sub->bandwidth = 0;
    finish(sub, v, core, 0, cause, detail);
}

// The timing of a run and the limits it passed; the limit's cause or the
// fault's.
static uint32_t account(korvex_subcmd* sub, const isa_context& ctx, run_status status, uint32_t* detail)
{
    uint32_t mhz = clock_mhz(sub);
    uint64_t cycles = work_cycles(ctx.work);
    sub->cmd->session->cycle_counter += cycles + kCyclesBetweenRuns;
    sub->ip_us = std::max<uint64_t>(1, (cycles + mhz - 1) / mhz);
    sub->driver_us = sub->ip_us + kDriverUs + sub->ip_us / 50;
    sub->bandwidth = (ctx.work.bytes_read + ctx.work.bytes_written) / sub->ip_us;
    *detail = ctx.detail;
    if (status != RUN_DONE)
        return ctx.cause;
    *detail = (uint32_t)sub->ip_us;
    uint64_t hard = param(sub->cmd->params, CMD_PARAM_HARDLIMIT);
    uint64_t soft = param(sub->cmd->params, CMD_PARAM_SOFTLIMIT);
    if (hard != 0 && sub->ip_us > hard * 1000)
        return KVX_CAUSE_HARD_LIMIT;
    if (soft != 0 && sub->ip_us > soft * 1000)
        return KVX_CAUSE_SOFT_LIMIT;
    *detail = 0;
    return KVX_CAUSE_NONE;
}

// Runs the code with the instruction log open, and closes the log even when
// memory runs out on the way (the exception goes on to the caller).
static run_status run_logged(isa_context& ctx)
{
    run_status status;
    try {
        status = run_code(ctx);
    } catch (const std::exception&) {
        if (ctx.log != nullptr)
            fclose(ctx.log);
        throw;
    }
    if (ctx.log != nullptr)
        fclose(ctx.log);
    return status;
}

// Runs one sub-command on `core`; false when it did not finish.
static bool run_subcmd(korvex_subcmd* sub, uint32_t core, uint32_t waited_us)
{
    korvex_session* s = sub->cmd->session;
    fw_view v;
    uint32_t detail;
    uint32_t cause = read_command_buffers(sub, &v, &detail);
    if (cause != KVX_CAUSE_NONE) {
        refuse(sub, core, cause, detail);
        return false;
    }
    isa_context ctx {};
    ctx.mem = &s->mem;
    ctx.code.resize(v.code->size / 4);
    s->mem.read_record(v.code, 0, ctx.code.data(), (uint32_t)ctx.code.size() * 4);
    ctx.pc = v.info.code_offset;
    ctx.vlm_bytes = (uint32_t)param(sub->params, SC_PARAM_VLM_USAGE);
    ctx.work_limit = s->work_left;
    ctx.cycle_counter_base = s->cycle_counter;
    ctx.who = handle_name("subcmd", sub->id, sub);
    ctx.log = open_instruction_log();
    run_status status = run_logged(ctx);
    s->work_left -= work_steps(ctx.work);
    cause = account(sub, ctx, status, &detail);
    uint32_t times[5] = {kPrepareUs, waited_us, 0, (uint32_t)sub->ip_us, kPostProcUs};
    s->mem.write_record(v.player, offsetof(fw_player_info, out_prepare_us), times, sizeof(times));
    if (v.pmu_out != nullptr)
        write_pmu(v, ctx, core, clock_mhz(sub));
    finish(sub, v, core, ctx.flows.empty() ? 0 : ctx.flows.back().id, cause, detail);
    return !is_fault(cause);
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

// The sub-commands of one round, running together on cores of their own.
struct round_state {
    uint32_t busy, start_us, length_us;
    uint32_t vlm_users;
    uint64_t vlm_ctx;
};

// Packed users of the VLM in one round must share one VLM context.
static bool vlm_context_clash(round_state& round, const korvex_subcmd* sub)
{
    if (param(sub->params, SC_PARAM_VLM_USAGE) == 0)
        return false;
    uint64_t ctx = param(sub->params, SC_PARAM_VLM_CTX);
    if (round.vlm_users > 0 && (ctx == 0 || ctx != round.vlm_ctx))
        return true;
    round.vlm_users++;
    round.vlm_ctx = ctx;
    return false;
}

// Runs a packed sub-command in the current round, or in a new one when the
// cores it may use are all taken.
static bool run_packed(round_state& round, korvex_subcmd* sub, uint32_t allowed)
{
    if ((allowed & ~round.busy) == 0)
        round = {0, round.start_us + round.length_us, 0, 0, 0};
    uint32_t core = (uint32_t)__builtin_ctz(allowed & ~round.busy);
    if (vlm_context_clash(round, sub)) {
        refuse(sub, core, KVX_CAUSE_VLM_CONTEXT, (uint32_t)param(sub->params, SC_PARAM_VLM_CTX));
        return false;
    }
    bool ok = run_subcmd(sub, core, round.start_us);
    round.busy |= 1u << core;
    round.length_us = std::max(round.length_us, (uint32_t)sub->ip_us);
    return ok;
}

// Packed sub-commands run together, each on a core of its own; the others
// run one after another on the lowest core they may use.
int run_command(korvex_cmd* cmd, uint32_t cores)
{
    uint32_t stale;
    if (cmd->session->mem.first_unflushed(&stale)) {
        for (korvex_subcmd* sub : cmd->subs)
            refuse(sub, 0, KVX_CAUSE_UNFLUSHED, stale);
        return -1;
    }
    cmd->session->work_left = hook_work_limit();
    round_state round {};
    uint32_t elapsed_us = 0;
    bool all_ok = cores > 0;
    for (korvex_subcmd* sub : cmd->subs) {
        uint32_t allowed = allowed_cores(sub, cores);
        if (allowed == 0) {
            refuse(sub, 0, KVX_CAUSE_NO_CORE, (uint32_t)param(sub->params, SC_PARAM_CORE_AFFINITY));
            all_ok = false;
        } else if (is_packed(cmd, sub)) {
            all_ok = run_packed(round, sub, allowed) && all_ok;
        } else {
            all_ok = run_subcmd(sub, (uint32_t)__builtin_ctz(allowed), elapsed_us) && all_ok;
            elapsed_us += (uint32_t)sub->ip_us;
        }
    }
    return all_ok ? 0 : -1;
}

} // namespace kvx
