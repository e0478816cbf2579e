// The engine model through its C interface: coherency, strict calls and
// parameters, memory placement, timing, cores, limits, the VLM and the
// hooks. The convolution is checked against its definition by the patterns
// qora_pattern_author writes (conv_demo_play), whose goldens come from its
// own reference code.
#include <gtest/gtest.h>

#include <functional>

#include "kvx_rig.h"
#include "test_util.h"

namespace
{

// Code that copies 64 bytes from src to dst.
std::vector<uint32_t> copy_code(kvx_rig& r, const void* dst, const void* src)
{
    return {kvx_asm_setr(0, 3), r.unit(dst), r.unit(src), 64, kvx_asm_regs(KVX_OP_MOVE, 0, 1, 2, 0), kvx_asm_end()};
}

// Any host byte written and not flushed refuses the run and names its
// address; the engine's writes reach the host without an invalidate.
TEST(EngineModel, UnflushedHostWritesRefuseTheRun)
{
    const struct {
        const char* what;
        std::function<uint32_t(kvx_rig&, uint8_t* src)> host_write; // the address left unflushed, or 0
    } cases[] = {
        {"everything flushed", [](kvx_rig&, uint8_t*) { return 0u; }},
        {"a byte written after the flush",
         [](kvx_rig& r, uint8_t* src) {
             src[5] = 1;
             return r.va(src) + 5;
         }},
        {"a write dropped by an invalidate",
         [](kvx_rig& r, uint8_t* src) {
             src[5] = 1;
             korvexSession_memInvalidate(r.s, src);
             return 0u;
         }},
        {"a buffer never flushed",
         [](kvx_rig& r, uint8_t*) {
             void* p = korvexSession_memAlloc(r.s, 16, 0, KORVEX_MEM_TYPE_DRAM, 0);
             return r.va(p);
         }},
        {"a command buffer never flushed",
         [](kvx_rig& r, uint8_t*) {
             void* p = korvexSession_cmdBufAlloc(r.s, 16, 0);
             return r.va(p);
         }},
    };
    for (const auto& c : cases) {
        kvx_rig r;
        uint8_t* src = r.dram(64, 0x5A);
        uint8_t* dst = r.dram(64);
        kvx_bundle b = r.bundle(copy_code(r, dst, src));
        uint32_t stale = c.host_write(r, src);
        kvx_outcome o = r.run(b);
        EXPECT_EQ(o.run, stale == 0 ? 0 : -1) << c.what;
        EXPECT_EQ(o.cause[0], stale == 0 ? 0u : (uint64_t)KVX_CAUSE_UNFLUSHED) << c.what;
        EXPECT_EQ(o.detail[0], stale) << c.what;
        EXPECT_EQ(b.res->hw_error_msg, stale == 0 ? 0u : KVX_IRQ_BASE | KVX_CAUSE_UNFLUSHED) << c.what;
        EXPECT_EQ(dst[63], stale == 0 ? 0x5A : 0) << c.what << ": the host sees the engine's writes, and only them";
    }
}

// A command buffer belongs to one sub-command; parameters are checked
// against their ranges; the on-chip memory has one holder; handles and
// order are checked.
TEST(EngineModel, StrictAboutCallsAndParameters)
{
    kvx_rig m;
    kvx_rig other;
    void* mem = m.dram(16);
    void* cb = m.cmdbuf(16);
    korvex_cmd_t* cmd = korvexSession_createCmd(m.s);
    korvex_cmd_t* foreign = korvexSession_createCmd(other.s);
    korvex_subcmd_t* sub = korvexCmd_createSubcmd(cmd, KORVEX_DEVICE_QORA);
    korvex_subcmd_t* sub2 = korvexCmd_createSubcmd(cmd, KORVEX_DEVICE_QORA);
    korvex_subcmd_t* foreign_sub = korvexCmd_createSubcmd(foreign, KORVEX_DEVICE_QORA);
    void* vlm = korvexSession_memAlloc(m.s, 0, 0, KORVEX_MEM_TYPE_VLM, 0);
    EXPECT_EQ(m.va(vlm), 0x1D900000u);
    auto sc = [&](korvex_subcmd_param_type t, uint64_t v) { return korvexSubCmd_setParam(sub, t, v) == 0; };
    auto cp = [&](korvex_cmd_param_type t, uint64_t v) { return korvexCmd_setParam(cmd, t, v) == 0; };
    const struct {
        const char* what;
        bool accepted, expected;
    } cases[] = {
        {"second VLM holder", korvexSession_memAlloc(m.s, 0, 0, KORVEX_MEM_TYPE_VLM, 0) != nullptr, false},
        {"VLM with a size", korvexSession_memAlloc(other.s, 16, 0, KORVEX_MEM_TYPE_VLM, 0) != nullptr, false},
        {"VLM with flags", korvexSession_memAlloc(other.s, 0, 0, KORVEX_MEM_TYPE_VLM, 2) != nullptr, false},
        {"DRAM flags past KORVEX_MEM_HIGHADDR", korvexSession_memAlloc(m.s, 16, 0, KORVEX_MEM_TYPE_DRAM, 3) != nullptr,
         false},
        {"alignment not a power of two", korvexSession_memAlloc(m.s, 16, 24, KORVEX_MEM_TYPE_DRAM, 0) != nullptr,
         false},
        {"command buffer of 0 bytes", korvexSession_cmdBufAlloc(m.s, 0, 256) != nullptr, false},
        {"command buffer of 1 byte", korvexSession_cmdBufAlloc(m.s, 1, 256) != nullptr, true},
        {"unknown session", korvexSession_deleteInstance((korvex_session_t*)&mem) == 0, false},
        {"memory freed as a command buffer", korvexSession_cmdBufFree(m.s, mem) == 0, false},
        {"unknown device type", korvexCmd_createSubcmd(cmd, (korvex_device_type)1) != nullptr, false},
        {"null command buffer", korvexSubCmd_addCmdBuf(sub, nullptr, KORVEX_CB_IN) == 0, false},
        {"memory as a command buffer", korvexSubCmd_addCmdBuf(sub, mem, KORVEX_CB_IN) == 0, false},
        {"unknown direction", korvexSubCmd_addCmdBuf(sub, cb, (korvex_cb_direction)3) == 0, false},
        {"a command buffer attached", korvexSubCmd_addCmdBuf(sub, cb, KORVEX_CB_IN) == 0, true},
        {"attached twice", korvexSubCmd_addCmdBuf(sub, cb, KORVEX_CB_IN) == 0, false},
        {"attached to a second sub-command", korvexSubCmd_addCmdBuf(sub2, cb, KORVEX_CB_IN) == 0, false},
        {"a buffer of another session", korvexSubCmd_addCmdBuf(foreign_sub, m.cmdbuf(16), KORVEX_CB_IN) == 0, false},
        {"unknown parameter", sc((korvex_subcmd_param_type)99, 1), false},
        {"boost 100", sc(SC_PARAM_BOOST_VALUE, 100), true},
        {"boost 101", sc(SC_PARAM_BOOST_VALUE, 101), false},
        {"turbo on", sc(SC_PARAM_TURBO_BOOST, 1), true},
        {"turbo 2", sc(SC_PARAM_TURBO_BOOST, 2), false},
        {"all of the VLM", sc(SC_PARAM_VLM_USAGE, 0x100000), true},
        {"more than the VLM", sc(SC_PARAM_VLM_USAGE, 0x100001), false},
        {"VLM context 15", sc(SC_PARAM_VLM_CTX, 15), true},
        {"VLM context 16", sc(SC_PARAM_VLM_CTX, 16), false},
        {"both cores", sc(SC_PARAM_CORE_AFFINITY, 3), true},
        {"no core", sc(SC_PARAM_CORE_AFFINITY, 0), false},
        {"a core the engine lacks", sc(SC_PARAM_CORE_AFFINITY, 4), false},
        {"unknown command parameter", cp((korvex_cmd_param_type)3, 1), false},
        {"hard limit of 32 bits", cp(CMD_PARAM_HARDLIMIT, 0xFFFFFFFF), true},
        {"hard limit past 32 bits", cp(CMD_PARAM_HARDLIMIT, 0x100000000), false},
        {"soft limit past 32 bits", cp(CMD_PARAM_SOFTLIMIT, (uint64_t)-5), false},
        {"power-off delay past 32 bits", cp(CMD_PARAM_DELAY_POWER_OFF_MS, 0x100000000), false},
        {"performance policy", cp(CMD_PARAM_POWERPOLICY, KORVEX_POWERPOLICY_PERFORMANCE), true},
        {"unknown policy", cp(CMD_PARAM_POWERPOLICY, 3), false},
        {"pack across commands", korvexCmd_setDependencyPack(cmd, sub, foreign_sub) == 0, false},
        {"pack with itself", korvexCmd_setDependencyPack(cmd, sub, sub) == 0, false},
        {"pack with an unknown sub-command", korvexCmd_setDependencyPack(cmd, sub, (korvex_subcmd_t*)&mem) == 0, false},
        {"run before build", korvexCmd_run(cmd) == 0, false},
        {"first build", korvexCmd_build(cmd) == 0, true},
        {"second build", korvexCmd_build(cmd) == 0, false},
        {"sub-command after build", korvexCmd_createSubcmd(cmd, KORVEX_DEVICE_QORA) != nullptr, false},
        {"parameter after build", sc(SC_PARAM_BOOST_VALUE, 1), false},
        {"first free", korvexSession_memFree(m.s, mem) == 0, true},
        {"double free", korvexSession_memFree(m.s, mem) == 0, false},
        {"delete with the wrong session", korvexSession_deleteCmd(other.s, cmd) == 0, false},
        {"run information of a deleted sub-command",
         korvexSession_deleteCmd(m.s, cmd) == 0 && korvexSubCmd_getRunInfo(sub, SC_RUNINFO_IPTIME) != 0, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.accepted, c.expected) << c.what;
}

// Host pointers and device addresses honour the alignment asked; high
// addresses come from the upper half of DRAM; nothing touches the on-chip
// window.
TEST(EngineModel, AllocationsAreAlignedAndPlaced)
{
    kvx_rig m;
    const struct {
        uint32_t size, align;
        bool cmdbuf;
        uint64_t flags;
    } cases[] = {
        {100, 4096, false, 2}, {0x100000, 0x100000, false, 2}, {1, 0, false, 0},   {4096, 4096, false, 1},
        {32, 256, true, 0},    {0xF0000, 0x100000, true, 0},   {34, 256, true, 0},
    };
    for (const auto& c : cases) {
        void* p = c.cmdbuf ? korvexSession_cmdBufAlloc(m.s, c.size, c.align)
                           : korvexSession_memAlloc(m.s, c.size, c.align, KORVEX_MEM_TYPE_DRAM, c.flags);
        ASSERT_NE(p, nullptr) << c.size;
        uint32_t align = c.align == 0 ? 16 : c.align;
        uint32_t va = m.va(p);
        EXPECT_EQ((uintptr_t)p % align, 0u) << "host pointer of " << c.size;
        EXPECT_EQ(va % align, 0u) << "device address of " << c.size;
        EXPECT_EQ(va >= 0x80000000u, c.flags == KORVEX_MEM_HIGHADDR) << std::hex << va;
        EXPECT_TRUE(va + c.size <= 0x1D800000u || va >= 0x1E000000u) << std::hex << va;
        EXPECT_EQ(korvexSession_memGetInfoFromHostPtr(m.s, p, KORVEX_MEM_INFO_GET_SIZE), c.size);
    }
}

// ip = ceil(cycles / MHz), at least 1; driver time = ip + 20 + ip / 50;
// bandwidth = bytes moved / ip. FILL of n bytes costs 3 + n / 32 cycles.
TEST(EngineModel, TimingFollowsItsFormulas)
{
    const struct {
        const char* what;
        uint32_t bytes;
        korvex_subcmd_param_type param;
        uint64_t value;
        uint64_t ip, driver;
    } cases[] = {
        {"1000 MHz", 3200000, SC_PARAM_VLM_CTX, 0, 101, 123},
        {"boost 50: 800 MHz", 3200000, SC_PARAM_BOOST_VALUE, 50, 126, 148},
        {"boost 0: 400 MHz", 3200000, SC_PARAM_BOOST_VALUE, 0, 251, 276},
        {"turbo: 1500 MHz", 3200000, SC_PARAM_TURBO_BOOST, 1, 67, 88},
        {"turbo off", 3200000, SC_PARAM_TURBO_BOOST, 0, 101, 123},
        {"a short run takes 1 us", 32, SC_PARAM_VLM_CTX, 0, 1, 21},
    };
    for (const auto& c : cases) {
        kvx_rig r;
        uint8_t* buf = r.dram(c.bytes);
        kvx_bundle b = r.bundle(kvx_fill(r.va(buf), c.bytes));
        kvx_outcome o = r.run({&b}, false, [&](korvex_cmd_t*, std::vector<korvex_subcmd_t*>& subs) {
            korvexSubCmd_setParam(subs[0], c.param, c.value);
        });
        EXPECT_EQ(o.ip_us[0], c.ip) << c.what;
        EXPECT_EQ(o.driver_us[0], c.driver) << c.what;
        EXPECT_EQ(o.bandwidth[0], c.bytes / c.ip) << c.what;
        EXPECT_EQ(b.player->out_execute_us, c.ip) << c.what;
        EXPECT_EQ(b.player->out_prepare_us, 12u) << c.what;
        EXPECT_EQ(b.player->out_post_proc_us, 3u) << c.what;
    }
}

// Packed sub-commands run together on cores of their own, later rounds
// waiting for earlier ones; unpacked ones run one after another.
TEST(EngineModel, CoresAndRounds)
{
    const struct {
        const char* what;
        uint32_t cores;
        bool packed;
        uint64_t affinity; // of every sub-command, 0: none
        std::vector<uint32_t> core, waiting;
    } cases[] = {
        {"two cores, packed", 2, true, 0, {0, 1, 0}, {0, 0, 101}},
        {"one core, packed", 1, true, 0, {0, 0, 0}, {0, 101, 202}},
        {"two cores tied to core 1", 2, true, 2, {1, 1, 1}, {0, 101, 202}},
        {"not packed", 2, false, 0, {0, 0, 0}, {0, 101, 202}},
        {"four cores", 4, true, 0, {0, 1, 2}, {0, 0, 0}},
    };
    for (const auto& c : cases) {
        kvx_rig r(c.cores);
        uint8_t* buf = r.dram(3200000);
        std::vector<uint32_t> code = kvx_fill(r.va(buf), 3200000);
        kvx_bundle b[3] = {r.bundle(code), r.bundle(code), r.bundle(code)};
        kvx_outcome o = r.run({&b[0], &b[1], &b[2]}, c.packed, [&](korvex_cmd_t*, std::vector<korvex_subcmd_t*>& subs) {
            for (korvex_subcmd_t* sub : subs)
                if (c.affinity != 0)
                    korvexSubCmd_setParam(sub, SC_PARAM_CORE_AFFINITY, c.affinity);
        });
        EXPECT_EQ(o.run, 0) << c.what;
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(b[i].res->code_out_core_id, c.core[i]) << c.what << " " << i;
            EXPECT_EQ(b[i].player->out_waiting_us, c.waiting[i]) << c.what << " " << i;
        }
    }
}

// A run past its hard limit faults; past its soft limit it finishes and
// says so in its result record. Limits are in milliseconds: a flow and a
// FILL of n bytes take 4 + n/32 cycles at 1000 MHz.
TEST(EngineModel, LimitsAreReported)
{
    const uint32_t k1000us = 31999872, k1001us = 32000000;
    const struct {
        const char* what;
        korvex_cmd_param_type limit;
        uint32_t bytes;
        int run;
        uint32_t cause, irq;
    } cases[] = {
        {"at the hard limit", CMD_PARAM_HARDLIMIT, k1000us, 0, KVX_CAUSE_NONE, 0},
        {"past the hard limit", CMD_PARAM_HARDLIMIT, k1001us, -1, KVX_CAUSE_HARD_LIMIT,
         KVX_IRQ_BASE | KVX_CAUSE_HARD_LIMIT},
        {"at the soft limit", CMD_PARAM_SOFTLIMIT, k1000us, 0, KVX_CAUSE_NONE, 0},
        {"past the soft limit", CMD_PARAM_SOFTLIMIT, k1001us, 0, KVX_CAUSE_SOFT_LIMIT, 0},
    };
    for (const auto& c : cases) {
        kvx_rig r;
        uint8_t* buf = r.dram(k1001us);
        std::vector<uint32_t> code = kvx_fill(r.va(buf), c.bytes);
        code.insert(code.begin(), kvx_asm_flow(4));
        kvx_bundle b = r.bundle(code);
        kvx_outcome o = r.run({&b}, false, [&](korvex_cmd_t* cmd, std::vector<korvex_subcmd_t*>&) {
            korvexCmd_setParam(cmd, c.limit, 1);
        });
        EXPECT_EQ(o.run, c.run) << c.what;
        EXPECT_EQ(o.cause[0], c.cause) << c.what;
        EXPECT_EQ(b.res->hw_error_msg, c.irq) << c.what;
        EXPECT_EQ(b.res->code_out_flow_id, c.run == 0 ? 0u : 4u) << c.what;
        EXPECT_EQ(b.res->out_debug_info_msg, c.cause == KVX_CAUSE_NONE ? 0u : 1001u) << c.what;
    }
}

// KVX_MODEL_WORK_LIMIT bounds one run of a command, its sub-commands
// together, in steps: one per instruction, one per 16 bytes moved. Each
// sub-command here fills 64 bytes with 0x40: SETR (1 step), FILL at byte 12
// (1 + 64/16), END at byte 16 (1), 7 steps. The instruction that would pass
// the limit faults before it writes anything; the next run starts afresh.
TEST(EngineModel, WorkLimitBoundsARun)
{
    const struct {
        const char* limit; // null: unset
        int run;
        std::vector<uint64_t> cause, detail;
        std::vector<bool> filled;
    } cases[] = {
        {nullptr, 0, {KVX_CAUSE_NONE, KVX_CAUSE_NONE}, {0, 0}, {true, true}},
        {"14", 0, {KVX_CAUSE_NONE, KVX_CAUSE_NONE}, {0, 0}, {true, true}},
        {"13", -1, {KVX_CAUSE_NONE, KVX_CAUSE_WORK_LIMIT}, {0, 16}, {true, true}},
        {"12", -1, {KVX_CAUSE_NONE, KVX_CAUSE_WORK_LIMIT}, {0, 12}, {true, false}},
        {"5", -1, {KVX_CAUSE_WORK_LIMIT, KVX_CAUSE_WORK_LIMIT}, {12, 12}, {false, false}},
        {"0", -1, {KVX_CAUSE_WORK_LIMIT, KVX_CAUSE_WORK_LIMIT}, {0, 0}, {false, false}},
    };
    for (const auto& c : cases) {
        kvx_rig r(2, "KVX_MODEL_WORK_LIMIT", c.limit);
        uint8_t* buf[2] = {r.dram(64), r.dram(64)};
        kvx_bundle b[2] = {r.bundle(kvx_fill(r.va(buf[0]), 64)), r.bundle(kvx_fill(r.va(buf[1]), 64))};
        for (int run = 0; run < 2; run++) {
            std::string what = std::string(c.limit == nullptr ? "no limit" : c.limit) + ", run " + std::to_string(run);
            kvx_outcome o = r.run({&b[0], &b[1]}, false, [](korvex_cmd_t*, std::vector<korvex_subcmd_t*>&) {});
            EXPECT_EQ(o.run, c.run) << what;
            EXPECT_EQ(o.cause, c.cause) << what;
            EXPECT_EQ(o.detail, c.detail) << what;
            for (int i = 0; i < 2; i++) {
                EXPECT_EQ(b[i].res->hw_error_msg, c.cause[i] == KVX_CAUSE_NONE ? 0 : KVX_IRQ_BASE | c.cause[i])
                    << what << " " << i;
                EXPECT_EQ(buf[i][0] == 0x40 && buf[i][63] == 0x40, c.filled[i]) << what << " " << i;
                EXPECT_EQ(buf[i][0] == 0 && buf[i][63] == 0, !c.filled[i]) << what << " " << i;
                memset(buf[i], 0, 64);
                korvexSession_memFlush(r.s, buf[i]);
            }
        }
    }
}

// A convolution passing the work limit faults before it computes: 4x4x4
// input, 2 output channels, 3x3 kernel, pad 1, so 4x4x2 outputs and 1152
// MACs. Steps: SETR, SETR, CONV at byte 44 (1 + 1152 + (64 + 72 + 8 + 32)
// / 16 bytes), END at byte 48: 1167 in all.
TEST(EngineModel, WorkLimitStopsAConvolutionBeforeItsWork)
{
    const struct {
        const char* limit;
        uint64_t cause, detail;
        bool computed;
    } cases[] = {
        {"1167", KVX_CAUSE_NONE, 0, true},
        {"1166", KVX_CAUSE_WORK_LIMIT, 48, true},
        {"1165", KVX_CAUSE_WORK_LIMIT, 44, false},
    };
    for (const auto& c : cases) {
        kvx_rig r(2, "KVX_MODEL_WORK_LIMIT", c.limit);
        uint8_t *in = r.dram(64, 1), *wt = r.dram(72, 1), *bias = r.dram(8), *out = r.dram(32, 0xEE);
        kvx_bundle b = r.bundle({kvx_asm_setr(0, 4), r.unit(in), r.unit(wt), r.unit(bias), r.unit(out),
                                 kvx_asm_setr(8, 5), 4 | 4 << 16, 4 | 2 << 16, 3 | 3 << 8 | 1 << 16 | 1 << 24, 1, 0,
                                 kvx_asm_regs(KVX_OP_CONV, 0, 1, 2, 3), kvx_asm_end()});
        kvx_outcome o = r.run(b);
        EXPECT_EQ(o.cause[0], c.cause) << c.limit;
        EXPECT_EQ(o.detail[0], c.detail) << c.limit;
        // Corner outputs sum 4 of the 9 taps over 4 channels: 16.
        EXPECT_EQ(out[0], c.computed ? 16 : 0xEE) << c.limit;
    }
}

// The VLM is reached only while a handle is held, and only as far as the
// sub-command declared; packed users share one context.
TEST(EngineModel, VlmNeedsAHandleAUsageAndOneContext)
{
    const struct {
        const char* what;
        bool held;
        uint64_t usage[2], ctx[2];
        uint32_t cause[2];
    } cases[] = {
        {"held, all declared", true, {0x100000, 0x100000}, {1, 1}, {0, 0}},
        {"not held", false, {0x100000, 0x100000}, {1, 1}, {KVX_CAUSE_VLM_NOT_HELD, KVX_CAUSE_VLM_NOT_HELD}},
        {"no usage declared", true, {0, 0x100000}, {1, 1}, {KVX_CAUSE_VLM_USAGE, 0}},
        {"one byte short", true, {0x20F, 0x210}, {1, 1}, {KVX_CAUSE_VLM_USAGE, 0}},
        {"two contexts", true, {0x100000, 0x100000}, {1, 2}, {0, KVX_CAUSE_VLM_CONTEXT}},
        {"no context", true, {0x100000, 0x100000}, {0, 0}, {0, KVX_CAUSE_VLM_CONTEXT}},
    };
    for (const auto& c : cases) {
        kvx_rig r;
        if (c.held)
            korvexSession_memAlloc(r.s, 0, 0, KORVEX_MEM_TYPE_VLM, 0);
        // 16 bytes at VLM offset 0x200
        std::vector<uint32_t> code = kvx_fill(0x1D900000 + 0x200, 16);
        kvx_bundle b[2] = {r.bundle(code), r.bundle(code)};
        kvx_outcome o = r.run({&b[0], &b[1]}, true, [&](korvex_cmd_t*, std::vector<korvex_subcmd_t*>& subs) {
            for (int i = 0; i < 2; i++) {
                korvexSubCmd_setParam(subs[i], SC_PARAM_VLM_USAGE, c.usage[i]);
                korvexSubCmd_setParam(subs[i], SC_PARAM_VLM_CTX, c.ctx[i]);
            }
        });
        for (int i = 0; i < 2; i++)
            EXPECT_EQ(o.cause[i], c.cause[i]) << c.what << " " << i;
    }
}

// KVX_MODEL_DROP: the picked call answers 0 and does nothing. A dropped
// flush leaves the host's write where the engine cannot see it.
TEST(EngineModel, DroppedCallsDoNothing)
{
    kvx_rig r(2, "KVX_MODEL_DROP", "korvexSession_memFlush:2");
    uint8_t* src = r.dram(64, 0x5A); // the first flush
    src[0] = 1;
    EXPECT_EQ(korvexSession_memFlush(r.s, src), 0) << "a dropped call succeeds";
    uint8_t* dst = r.dram(64);
    kvx_bundle b = r.bundle(copy_code(r, dst, src));
    kvx_outcome o = r.run(b);
    EXPECT_EQ(o.cause[0], (uint64_t)KVX_CAUSE_UNFLUSHED);
    EXPECT_EQ(o.detail[0], r.va(src));
}

// KVX_MODEL_ITRACE: one line per executed instruction with the registers
// it wrote and the memory it touched; a fault ends with its cause.
TEST(EngineModel, InstructionLog)
{
    std::string dir = make_tmp_dir("kvx_itrace");
    std::string log = dir + "/itrace.txt";
    kvx_rig r(2, "KVX_MODEL_ITRACE", log.c_str());
    uint8_t* src = r.dram(64);
    uint8_t* dst = r.dram(64);
    std::vector<uint32_t> code = copy_code(r, dst, src);
    code.back() = 0x1F7;
    kvx_bundle b = r.bundle(code);
    r.run(b);
    std::string text = read_file(log);
    std::string id = text.substr(0, std::min<size_t>(text.find(' '), 32)); // the sub-command, "subcmd#N"
    char expected[512];
    snprintf(expected, sizeof(expected),
             "%s pc=0x0000 SETR r0=0x%08x r1=0x%08x r2=0x00000040\n"
             "%s pc=0x0010 MOVE read=0x%08x+64 write=0x%08x+64\n"
             "%s pc=0x0014 ? fault=0x01 detail=0x14\n",
             id.c_str(), r.unit(dst), r.unit(src), id.c_str(), r.va(src), r.va(dst), id.c_str());
    EXPECT_EQ(text, expected);
}

// The PMU counts the work of every unit, in the order of the events asked;
// flusher mode writes one record per flow, 64-byte records past 6 events.
TEST(EngineModel, PmuCountsEveryUnit)
{
    const uint16_t events[11] = {0x0101, 0x0102, 0x0103, 0x1001, 0x1002, 0x1003,
                                 0x1701, 0x1708, 0x2001, 0x2002, 0x0000};
    // 8 instructions; 54 bytes read, 49 written; 2 DMA commands, 1 CONV
    // with 1 MAC, 16 vector elements in 1 command, 1 flow: 8 + 103/32 + 16/16 = 12 cycles.
    const uint32_t total[11] = {8, 12, 1, 54, 49, 2, 1, 1, 16, 1, 0};
    const uint32_t at_flow[11] = {7, 11, 1, 54, 49, 2, 1, 1, 16, 1, 0};
    for (bool flusher : {false, true}) {
        kvx_rig r;
        uint8_t* out = r.dram(16);
        uint8_t* x = r.dram(16, 1);
        uint8_t* y = r.dram(16, 2);
        kvx_bundle b =
            r.bundle({kvx_asm_setr(0, 4), r.unit(out), r.unit(x), r.unit(y), 16, kvx_asm_regs(KVX_OP_MOVE, 0, 1, 3, 0),
                      kvx_asm_regs(KVX_OP_FILL, 0, 1, 3, 0), kvx_asm_regs(KVX_OP_ADD8, 0, 1, 2, 3), kvx_asm_setr(8, 5),
                      1 | 1 << 16, 1 | 1 << 16, 1 | 1 << 8 | 1 << 16, 1, 0, kvx_asm_regs(KVX_OP_CONV, 1, 2, 1, 0),
                      kvx_asm_flow(1), kvx_asm_end()},
                     11, flusher);
        memcpy(b.pmu->event, events, sizeof(events));
        r.flush(b);
        ASSERT_EQ(r.run(b).run, 0) << flusher;
        EXPECT_EQ(b.pmu_out->qora_freq, 1000000u);
        EXPECT_EQ(b.pmu_out->burst_mode, flusher ? 4 : 0);
        EXPECT_EQ(b.pmu_buf[0], 0x51000001u) << "core 0, one flow / flow id 1";
        EXPECT_EQ(b.pmu_buf[1], flusher ? 11u : 13u) << "the counter, odd";
        for (int k = 0; k < 11; k++)
            EXPECT_EQ(b.pmu_buf[2 + k], flusher ? at_flow[k] : total[k]) << std::hex << events[k];
    }
}

} // namespace
