// Engine model: decode and execute, one short definition per instruction,
// dispatched through the instruction table.
#include "kvx_isa.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "kvx_model.h"

namespace kvx
{

uint64_t work_cycles(const work_counters& w)
{
    return w.instructions + (w.bytes_read + w.bytes_written) / 32 + w.macs / 256 + w.vector_elements / 16;
}

// One decoded instruction: its immediate and operand words.
struct decoded {
    uint32_t imm;
    const uint32_t* operands;
    uint32_t operand_count;
};

uint64_t work_steps(const work_counters& w)
{
    return w.instructions + w.macs + w.vector_elements + (w.bytes_read + w.bytes_written) / 16;
}

static void add_work(work_counters& to, const work_counters& w)
{
    to.instructions += w.instructions;
    to.bytes_read += w.bytes_read;
    to.bytes_written += w.bytes_written;
    to.dma_commands += w.dma_commands;
    to.conv_commands += w.conv_commands;
    to.macs += w.macs;
    to.vector_elements += w.vector_elements;
    to.vector_commands += w.vector_commands;
    to.flows += w.flows;
}

enum step { STEP_NEXT, STEP_DONE, STEP_FAULT };

static step fault(isa_context& c, uint32_t cause, uint32_t detail)
{
    c.cause = cause;
    c.detail = detail;
    return STEP_FAULT;
}

// Register fields of the immediate: a in bits 0-3, b in 4-7, c in 8-11, d in 12-15.
static inline uint32_t field(uint32_t imm, int n)
{
    return (imm >> (4 * n)) & 15;
}

// The device memory a register names, checked for `len` bytes; null after
// recording the fault.
static uint8_t* memory_at(isa_context& c, uint32_t reg, uint64_t len, bool write)
{
    uint32_t va = c.r[reg] << 4;
    if (len > 0xFFFFFFFFull) {
        fault(c, KVX_CAUSE_NO_MEMORY, va);
        return nullptr;
    }
    uint32_t cause = 0;
    uint8_t* p = c.mem->device_range(va, (uint32_t)len, c.vlm_bytes, &cause);
    if (p == nullptr)
        fault(c, cause, va);
    else if (c.log != nullptr)
        c.touched.push_back({va, (uint32_t)len, write});
    return p;
}

// Counts the work an instruction is about to do, before it does it: past
// the work limit the run faults here instead and nothing is counted.
static bool count_work(isa_context& c, const work_counters& w)
{
    work_counters total = c.work;
    add_work(total, w);
    if (work_steps(total) > c.work_limit) {
        fault(c, KVX_CAUSE_WORK_LIMIT, c.pc);
        return false;
    }
    c.work = total;
    return true;
}

static void wrote(isa_context& c, uint32_t reg, uint32_t len)
{
    c.mem->engine_wrote(c.r[reg] << 4, len);
}

static step exec_END(isa_context&, const decoded&)
{
    return STEP_DONE;
}

static step exec_NOP(isa_context&, const decoded&)
{
    return STEP_NEXT;
}

// SETR: r[a], r[a+1], ... = the operand words, one register each.
static step exec_SETR(isa_context& c, const decoded& d)
{
    uint32_t first = field(d.imm, 0);
    if (d.operand_count == 0 || first + d.operand_count > 16)
        return fault(c, KVX_CAUSE_BAD_OPERAND, c.pc);
    for (uint32_t i = 0; i < d.operand_count; i++)
        c.r[first + i] = d.operands[i];
    return STEP_NEXT;
}

// MOVE: r[a] <- r[c] bytes from r[b].
static step exec_MOVE(isa_context& c, const decoded& d)
{
    uint32_t n = c.r[field(d.imm, 2)];
    uint8_t* src = memory_at(c, field(d.imm, 1), n, false);
    uint8_t* dst = src == nullptr ? nullptr : memory_at(c, field(d.imm, 0), n, true);
    work_counters w {};
    w.bytes_read = w.bytes_written = n;
    w.dma_commands = 1;
    if (dst == nullptr || !count_work(c, w))
        return STEP_FAULT;
    memmove(dst, src, n);
    wrote(c, field(d.imm, 0), n);
    return STEP_NEXT;
}

// FILL: r[c] bytes at r[a] <- low byte of r[b].
static step exec_FILL(isa_context& c, const decoded& d)
{
    uint32_t n = c.r[field(d.imm, 2)];
    uint8_t* dst = memory_at(c, field(d.imm, 0), n, true);
    work_counters w {};
    w.bytes_written = n;
    w.dma_commands = 1;
    if (dst == nullptr || !count_work(c, w))
        return STEP_FAULT;
    memset(dst, (int)(c.r[field(d.imm, 1)] & 0xFF), n);
    wrote(c, field(d.imm, 0), n);
    return STEP_NEXT;
}

// Elementwise on r[d] bytes: r[a][i] <- op(r[b][i], r[c][i]).
template <typename Op> static step exec_elementwise(isa_context& c, const decoded& d, Op op)
{
    uint32_t n = c.r[field(d.imm, 3)];
    const uint8_t* x = memory_at(c, field(d.imm, 1), n, false);
    const uint8_t* y = x == nullptr ? nullptr : memory_at(c, field(d.imm, 2), n, false);
    uint8_t* dst = y == nullptr ? nullptr : memory_at(c, field(d.imm, 0), n, true);
    work_counters w {};
    w.bytes_read = 2ull * n;
    w.bytes_written = w.vector_elements = n;
    w.vector_commands = 1;
    if (dst == nullptr || !count_work(c, w))
        return STEP_FAULT;
    for (uint32_t i = 0; i < n; i++)
        dst[i] = op(x[i], y[i]);
    wrote(c, field(d.imm, 0), n);
    return STEP_NEXT;
}

static step exec_ADD8(isa_context& c, const decoded& d)
{
    return exec_elementwise(c, d, [](uint8_t x, uint8_t y) { return (uint8_t)std::min(255, x + y); });
}

static step exec_MAX8(isa_context& c, const decoded& d)
{
    return exec_elementwise(c, d, [](uint8_t x, uint8_t y) { return std::max(x, y); });
}

// Shape of a convolution, from r8-r12.
struct conv_shape {
    uint32_t h, w, cin, cout, kh, kw, stride, pad, oh, ow;
    int32_t multiplier;
    uint32_t shift, in_zp, out_zp;
};

static bool conv_shape_of(const isa_context& c, conv_shape* s)
{
    s->h = c.r[8] & 0xFFFF;
    s->w = c.r[8] >> 16;
    s->cin = c.r[9] & 0xFFFF;
    s->cout = c.r[9] >> 16;
    s->kh = c.r[10] & 0xFF;
    s->kw = (c.r[10] >> 8) & 0xFF;
    s->stride = (c.r[10] >> 16) & 0xFF;
    s->pad = c.r[10] >> 24;
    s->multiplier = (int32_t)c.r[11];
    s->shift = c.r[12] & 0xFF;
    s->in_zp = (c.r[12] >> 8) & 0xFF;
    s->out_zp = (c.r[12] >> 16) & 0xFF;
    if (s->stride == 0 || s->kh == 0 || s->kw == 0 || s->cin == 0 || s->cout == 0 || s->shift > 62 ||
        s->h + 2 * s->pad < s->kh || s->w + 2 * s->pad < s->kw)
        return false;
    s->oh = (s->h + 2 * s->pad - s->kh) / s->stride + 1;
    s->ow = (s->w + 2 * s->pad - s->kw) / s->stride + 1;
    return true;
}

static uint8_t requantize(int64_t acc, const conv_shape& s)
{
    int64_t v = acc * s.multiplier;
    if (s.shift > 0)
        v = (v + (1ll << (s.shift - 1))) >> s.shift;
    v += s.out_zp;
    return (uint8_t)std::min<int64_t>(255, std::max<int64_t>(0, v));
}

// One output pixel of every output channel.
static void conv_pixel(const conv_shape& s, const uint8_t* in, const int8_t* wt, const uint8_t* bias_bytes,
                       uint8_t* out, uint32_t oy, uint32_t ox)
{
    for (uint32_t co = 0; co < s.cout; co++) {
        int32_t bias;
        memcpy(&bias, bias_bytes + 4 * co, 4);
        int64_t acc = bias;
        for (uint32_t ky = 0; ky < s.kh; ky++) {
            int64_t iy = (int64_t)oy * s.stride + ky - s.pad;
            for (uint32_t kx = 0; kx < s.kw; kx++) {
                int64_t ix = (int64_t)ox * s.stride + kx - s.pad;
                if (iy < 0 || ix < 0 || iy >= s.h || ix >= s.w)
                    continue; // padding reads as the input zero point
                const uint8_t* px = in + ((uint64_t)iy * s.w + ix) * s.cin;
                const int8_t* wk = wt + (((uint64_t)co * s.kh + ky) * s.kw + kx) * s.cin;
                for (uint32_t ci = 0; ci < s.cin; ci++)
                    acc += (int32_t)(px[ci] - s.in_zp) * wk[ci];
            }
        }
        out[((uint64_t)oy * s.ow + ox) * s.cout + co] = requantize(acc, s);
    }
}

// CONV: uint8 NHWC input r[a], int8 weights r[b] [cout][kh][kw][cin], int32
// bias r[c], uint8 NHWC output r[d]; shape in r8-r12.
static step exec_CONV(isa_context& c, const decoded& d)
{
    conv_shape s;
    if (!conv_shape_of(c, &s))
        return fault(c, KVX_CAUSE_BAD_OPERAND, c.pc);
    uint64_t in_len = (uint64_t)s.h * s.w * s.cin;
    uint64_t wt_len = (uint64_t)s.cout * s.kh * s.kw * s.cin;
    uint64_t out_len = (uint64_t)s.oh * s.ow * s.cout;
    const uint8_t* in = memory_at(c, field(d.imm, 0), in_len, false);
    const int8_t* wt = in == nullptr ? nullptr : (const int8_t*)memory_at(c, field(d.imm, 1), wt_len, false);
    const uint8_t* bias = wt == nullptr ? nullptr : memory_at(c, field(d.imm, 2), 4ull * s.cout, false);
    uint8_t* out = bias == nullptr ? nullptr : memory_at(c, field(d.imm, 3), out_len, true);
    work_counters w {};
    w.bytes_read = in_len + wt_len + 4ull * s.cout;
    w.bytes_written = out_len;
    w.macs = out_len * s.kh * s.kw * s.cin;
    w.conv_commands = 1;
    if (out == nullptr || !count_work(c, w))
        return STEP_FAULT;
    for (uint32_t oy = 0; oy < s.oh; oy++)
        for (uint32_t ox = 0; ox < s.ow; ox++)
            conv_pixel(s, in, wt, bias, out, oy, ox);
    wrote(c, field(d.imm, 3), (uint32_t)out_len);
    return STEP_NEXT;
}

static step exec_FLOW(isa_context& c, const decoded& d)
{
    work_counters w {};
    w.flows = 1;
    if (!count_work(c, w))
        return STEP_FAULT;
    c.flows.push_back({d.imm, c.work});
    return STEP_NEXT;
}

// CYCLES: the engine's 64-bit cycle counter, little-endian, at r[a].
static step exec_CYCLES(isa_context& c, const decoded& d)
{
    uint8_t* dst = memory_at(c, field(d.imm, 0), 8, true);
    uint64_t now = c.cycle_counter_base + work_cycles(c.work);
    work_counters w {};
    w.bytes_written = 8;
    if (dst == nullptr || !count_work(c, w))
        return STEP_FAULT;
    memcpy(dst, &now, 8);
    wrote(c, field(d.imm, 0), 8);
    return STEP_NEXT;
}

struct instruction {
    const char* name;
    step (*exec)(isa_context&, const decoded&);
};

// Opcode -> instruction; unknown opcodes have no entry.
static const std::array<instruction, 256> kInstructions = [] {
    std::array<instruction, 256> table {};
#define KVX_DISPATCH(code, NAME, ...) table[code] = {#NAME, exec_##NAME};
    KVX_INSTRUCTIONS(KVX_DISPATCH)
#undef KVX_DISPATCH
    return table;
}();

// One line of the instruction log: registers written and memory touched.
static void log_instruction(isa_context& c, uint32_t pc, const char* name, const uint32_t* before)
{
    fprintf(c.log, "%s pc=0x%04x %s", c.who.c_str(), pc, name);
    for (int i = 0; i < 16; i++)
        if (c.r[i] != before[i])
            fprintf(c.log, " r%d=0x%08x", i, c.r[i]);
    for (const touched_range& t : c.touched)
        fprintf(c.log, " %s=0x%08x+%u", t.write ? "write" : "read", t.dev_va, t.len);
    if (c.cause != KVX_CAUSE_NONE)
        fprintf(c.log, " fault=0x%02x detail=0x%x", c.cause, c.detail);
    fputc('\n', c.log);
    c.touched.clear();
}

// Decodes the instruction at pc; STEP_FAULT when it cannot be run.
static step decode(isa_context& c, const std::vector<uint32_t>& words, const instruction** ins, decoded* d)
{
    uint32_t at = c.pc / 4;
    if (at >= words.size())
        return fault(c, KVX_CAUSE_PAST_END, c.pc); // ran off the end without END
    uint32_t header = words[at];
    uint32_t len = (header >> 8) & 0xFF;
    *ins = &kInstructions[header & 0xFF];
    *d = {header >> 16, words.data() + at + 1, len == 0 ? 0 : len - 1};
    if ((*ins)->exec == nullptr)
        return fault(c, KVX_CAUSE_UNKNOWN_OPCODE, c.pc);
    if ((header & 0xFF) == KVX_OP_END)
        return STEP_NEXT; // END's length field is not read
    if (len == 0)
        return fault(c, KVX_CAUSE_ZERO_LENGTH, c.pc);
    return at + len > words.size() ? fault(c, KVX_CAUSE_PAST_END, c.pc) : STEP_NEXT;
}

// The work of decoding one instruction: its count, nothing else.
static const work_counters kOneInstruction = {1, 0, 0, 0, 0, 0, 0, 0, 0};

run_status run_code(isa_context& ctx)
{
    const std::vector<uint32_t>& words = ctx.code;
    for (;;) {
        uint32_t pc = ctx.pc;
        uint32_t before[16];
        memcpy(before, ctx.r, sizeof(before));
        const instruction* ins = nullptr;
        decoded d {};
        step s = decode(ctx, words, &ins, &d);
        if (s == STEP_NEXT)
            s = count_work(ctx, kOneInstruction) ? ins->exec(ctx, d) : STEP_FAULT;
        if (ctx.log != nullptr)
            log_instruction(ctx, pc, ins != nullptr && ins->exec != nullptr ? ins->name : "?", before);
        if (s != STEP_NEXT)
            return s == STEP_DONE ? RUN_DONE : RUN_FAULT;
        ctx.pc += 4 * (d.operand_count + 1);
    }
}

} // namespace kvx
