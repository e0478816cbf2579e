// The engine's instructions: each one's result against its definition, and
// each fault with its cause, the offset or address it names, and the last
// finished flow.
#include <gtest/gtest.h>

#include <functional>

#include "kvx_rig.h"

namespace
{

// Buffers an instruction works on: two inputs and an output of 16 bytes.
struct operands {
    uint8_t *x, *y, *out;
};
using program = std::function<std::vector<uint32_t>(kvx_rig&, const operands&)>;

// Code that does not depend on the buffers.
program fixed(std::vector<uint32_t> words)
{
    return [words](kvx_rig&, const operands&) { return words; };
}

std::vector<uint32_t> concat(std::initializer_list<std::vector<uint32_t>> parts)
{
    std::vector<uint32_t> all;
    for (const auto& p : parts)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}

// r0 = out, r1 = x, r2 = y, r3 = n.
std::vector<uint32_t> regs(kvx_rig& r, const operands& o, uint32_t n)
{
    return {kvx_asm_setr(0, 4), r.unit(o.out), r.unit(o.x), r.unit(o.y), n};
}

// Code that sets r0-r3 with r3 = n, then runs `body`.
program with_regs(uint32_t n, std::vector<uint32_t> body)
{
    return [n, body](kvx_rig& r, const operands& o) { return concat({regs(r, o, n), body}); };
}

operands make_operands(kvx_rig& r)
{
    operands o {r.dram(16), r.dram(16), r.dram(16, 0xEE)};
    const uint8_t x[4] = {200, 10, 255, 0}, y[4] = {100, 20, 1, 0};
    memcpy(o.x, x, 4);
    memcpy(o.y, y, 4);
    korvexSession_memFlush(r.s, o.x);
    korvexSession_memFlush(r.s, o.y);
    return o;
}

TEST(EngineIsa, ResultsMatchTheirDefinitions)
{
    const struct {
        const char* what;
        program code;
        std::vector<uint8_t> out;
    } cases[] = {
        {"MOVE copies r[c] bytes",
         with_regs(3, {kvx_asm_regs(KVX_OP_MOVE, 0, 1, 3, 0), kvx_asm_end()}),
         {200, 10, 255, 0xEE}},
        {"FILL writes the low byte",
         with_regs(2, concat({kvx_set(1, 0x1235A), {kvx_asm_regs(KVX_OP_FILL, 0, 1, 3, 0), kvx_asm_end()}})),
         {0x5A, 0x5A, 0xEE}},
        {"ADD8 saturates at 255",
         with_regs(4, {kvx_asm_regs(KVX_OP_ADD8, 0, 1, 2, 3), kvx_asm_end()}),
         {255, 30, 255, 0, 0xEE}},
        {"MAX8 takes the larger byte",
         with_regs(4, {kvx_asm_regs(KVX_OP_MAX8, 0, 1, 2, 3), kvx_asm_end()}),
         {200, 20, 255, 0, 0xEE}},
        {"NOP skips its words",
         with_regs(1,
                   concat({kvx_set(1, 0x42),
                           {kvx_asm_nop(3), 0x1F7, 0x1F7, kvx_asm_regs(KVX_OP_FILL, 0, 1, 3, 0), kvx_asm_end()}})),
         {0x42, 0xEE}},
        {"SETR loads consecutive registers",
         [](kvx_rig& r, const operands& o) {
             return std::vector<uint32_t> {
                 kvx_asm_setr(4, 3), r.unit(o.out), 0x77, 2, kvx_asm_regs(KVX_OP_FILL, 4, 5, 6, 0), kvx_asm_end()};
         },
         {0x77, 0x77, 0xEE}},
    };
    for (const auto& c : cases) {
        kvx_rig r;
        operands o = make_operands(r);
        kvx_bundle b = r.bundle(c.code(r, o));
        ASSERT_EQ(r.run(b).run, 0) << c.what;
        EXPECT_EQ(std::vector<uint8_t>(o.out, o.out + c.out.size()), c.out) << c.what;
    }
}

// CYCLES writes the engine's counter: the cycles of earlier runs (each run
// adds its own and 1000) and those of this run so far.
TEST(EngineIsa, CyclesReadsTheRunningCounter)
{
    kvx_rig r;
    uint64_t* out = (uint64_t*)r.dram(8);
    kvx_bundle b = r.bundle({kvx_asm_setr(0, 1), r.unit(out), kvx_asm_regs(KVX_OP_CYCLES, 0, 0, 0, 0), kvx_asm_end()});
    ASSERT_EQ(r.run(b).run, 0);
    EXPECT_EQ(*out, 2u) << "SETR and CYCLES";
    ASSERT_EQ(r.run(b).run, 0);
    EXPECT_EQ(*out, 3u + 1000u + 2u) << "the first run's three instructions, the gap, then two";
}

struct fault_case {
    const char* what;
    program code;
    uint32_t cause;
    std::function<uint32_t(kvx_rig&, const operands&)> detail;
    uint32_t flow;
};

TEST(EngineIsa, FaultsNameTheirCause)
{
    auto offset = [](uint32_t o) { return [o](kvx_rig&, const operands&) { return o; }; };
    void* cb = nullptr; // command buffers are never engine memory
    auto cb_va = [&cb](kvx_rig& r, const operands&) { return r.va(cb); };
    const fault_case cases[] = {
        {"unknown opcode after flow 5", fixed({kvx_asm_flow(5), 0x1F7}), KVX_CAUSE_UNKNOWN_OPCODE, offset(4), 5},
        {"zero length", fixed({kvx_asm_nop(2), 0, KVX_OP_MOVE, kvx_asm_end()}), KVX_CAUSE_ZERO_LENGTH, offset(8), 0},
        {"operands past the end", fixed({kvx_asm_setr(0, 3), 1}), KVX_CAUSE_PAST_END, offset(0), 0},
        {"no END", fixed({kvx_asm_nop(1)}), KVX_CAUSE_PAST_END, offset(4), 0},
        {"SETR past r15", fixed({kvx_asm_setr(15, 2), 1, 2, kvx_asm_end()}), KVX_CAUSE_BAD_OPERAND, offset(0), 0},
        {"convolution with stride 0",
         fixed({kvx_asm_setr(8, 3), 1 | 1 << 16, 1 | 1 << 16, 1 | 1 << 8, kvx_asm_regs(KVX_OP_CONV, 0, 1, 2, 3),
                kvx_asm_end()}),
         KVX_CAUSE_BAD_OPERAND, offset(16), 0},
        {"convolution without input channels",
         fixed({kvx_asm_setr(8, 3), 1 | 1 << 16, 0 | 1 << 16, 1 | 1 << 8 | 1 << 16,
                kvx_asm_regs(KVX_OP_CONV, 0, 1, 2, 3), kvx_asm_end()}),
         KVX_CAUSE_BAD_OPERAND, offset(16), 0},
        {"convolution without output channels",
         fixed({kvx_asm_setr(8, 3), 1 | 1 << 16, 1, 1 | 1 << 8 | 1 << 16, kvx_asm_regs(KVX_OP_CONV, 0, 1, 2, 3),
                kvx_asm_end()}),
         KVX_CAUSE_BAD_OPERAND, offset(16), 0},
        {"no memory there", fixed(kvx_fill(0x1000, 16)), KVX_CAUSE_NO_MEMORY, offset(0x1000), 0},
        {"the on-chip window outside the VLM", fixed(kvx_fill(0x1D800000, 16)), KVX_CAUSE_NO_MEMORY, offset(0x1D800000),
         0},
        {"the VLM without a handle", fixed(kvx_fill(0x1D900000, 16)), KVX_CAUSE_VLM_NOT_HELD, offset(0x1D900000), 0},
        {"past the end of a buffer", with_regs(17, {kvx_asm_regs(KVX_OP_FILL, 0, 1, 3, 0), kvx_asm_end()}),
         KVX_CAUSE_NO_MEMORY, [](kvx_rig& r, const operands& o) { return r.va(o.out); }, 0},
        {"a source outside memory",
         with_regs(4, concat({kvx_set(1, 0x100), {kvx_asm_regs(KVX_OP_ADD8, 0, 1, 2, 3), kvx_asm_end()}})),
         KVX_CAUSE_NO_MEMORY, offset(0x1000), 0},
        {"a command buffer",
         [&cb](kvx_rig& r, const operands&) {
             cb = r.cmdbuf(64);
             return kvx_fill(r.va(cb), 16);
         },
         KVX_CAUSE_CMDBUF_ACCESS, cb_va, 0},
    };
    for (const fault_case& c : cases) {
        kvx_rig r;
        operands o = make_operands(r);
        kvx_bundle b = r.bundle(c.code(r, o));
        kvx_outcome run = r.run(b);
        EXPECT_EQ(run.run, -1) << c.what;
        EXPECT_EQ(run.cause[0], c.cause) << c.what;
        EXPECT_EQ(run.detail[0], c.detail(r, o)) << c.what;
        EXPECT_EQ(b.res->hw_error_msg, KVX_IRQ_BASE | c.cause) << c.what;
        EXPECT_EQ(b.res->out_debug_info_msg, c.detail(r, o)) << c.what;
        EXPECT_EQ(b.res->code_out_flow_id, c.flow) << c.what;
        EXPECT_EQ(o.out[0], 0xEE) << c.what << ": a faulting instruction wrote";
    }
}

} // namespace
