// Engine model: decode and execute, one short definition per instruction.
#include "kvx_isa.h"

#include <algorithm>
#include <cstring>

namespace kvx {

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

// Register fields of the immediate: a in bits 0-3, b in 4-7, c in 8-11, d in 12-15.
static inline uint32_t field(uint32_t imm, int n)
{
    return (imm >> (4 * n)) & 15;
}

// The device memory a register names, checked for `len` bytes.
static uint8_t* memory_at(isa_context& c, uint32_t reg, uint64_t len)
{
    if (len > 0xFFFFFFFFull)
        return nullptr;
    return c.mem->device_range(c.r[reg] << 4, (uint32_t)len);
}

static void wrote(isa_context& c, uint32_t reg, uint32_t len)
{
    c.mem->engine_wrote(c.r[reg] << 4, len);
    c.work.bytes_written += len;
}

static bool exec_nop(isa_context&, const decoded&)
{
    return true;
}

// SETR: r[a], r[a+1], ... = the operand words, one register each.
static bool exec_setr(isa_context& c, const decoded& d)
{
    uint32_t first = field(d.imm, 0);
    if (d.operand_count == 0 || first + d.operand_count > 16)
        return false;
    for (uint32_t i = 0; i < d.operand_count; i++)
        c.r[first + i] = d.operands[i];
    return true;
}

// MOVE: r[a] <- r[c] bytes from r[b].
static bool exec_move(isa_context& c, const decoded& d)
{
    uint32_t n = c.r[field(d.imm, 2)];
    uint8_t* dst = memory_at(c, field(d.imm, 0), n);
    uint8_t* src = memory_at(c, field(d.imm, 1), n);
    if (dst == nullptr || src == nullptr)
        return false;
    memmove(dst, src, n);
    wrote(c, field(d.imm, 0), n);
    c.work.bytes_read += n;
    c.work.dma_commands++;
    return true;
}

// FILL: r[c] bytes at r[a] <- low byte of r[b].
static bool exec_fill(isa_context& c, const decoded& d)
{
    uint32_t n = c.r[field(d.imm, 2)];
    uint8_t* dst = memory_at(c, field(d.imm, 0), n);
    if (dst == nullptr)
        return false;
    memset(dst, (int)(c.r[field(d.imm, 1)] & 0xFF), n);
    wrote(c, field(d.imm, 0), n);
    c.work.dma_commands++;
    return true;
}

// Elementwise on r[d] bytes: r[a][i] <- op(r[b][i], r[c][i]).
template <typename Op>
static bool exec_elementwise(isa_context& c, const decoded& d, Op op)
{
    uint32_t n = c.r[field(d.imm, 3)];
    uint8_t* dst = memory_at(c, field(d.imm, 0), n);
    const uint8_t* x = memory_at(c, field(d.imm, 1), n);
    const uint8_t* y = memory_at(c, field(d.imm, 2), n);
    if (dst == nullptr || x == nullptr || y == nullptr)
        return false;
    for (uint32_t i = 0; i < n; i++)
        dst[i] = op(x[i], y[i]);
    wrote(c, field(d.imm, 0), n);
    c.work.bytes_read += 2ull * n;
    c.work.vector_elements += n;
    c.work.vector_commands++;
    return true;
}

static bool exec_add8(isa_context& c, const decoded& d)
{
    return exec_elementwise(c, d, [](uint8_t x, uint8_t y) { return (uint8_t)std::min(255, x + y); });
}

static bool exec_max8(isa_context& c, const decoded& d)
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
static bool exec_conv(isa_context& c, const decoded& d)
{
    conv_shape s;
    if (!conv_shape_of(c, &s))
        return false;
    uint64_t in_len = (uint64_t)s.h * s.w * s.cin;
    uint64_t wt_len = (uint64_t)s.cout * s.kh * s.kw * s.cin;
    uint64_t out_len = (uint64_t)s.oh * s.ow * s.cout;
    const uint8_t* in = memory_at(c, field(d.imm, 0), in_len);
    const int8_t* wt = (const int8_t*)memory_at(c, field(d.imm, 1), wt_len);
    const uint8_t* bias = memory_at(c, field(d.imm, 2), 4ull * s.cout);
    uint8_t* out = memory_at(c, field(d.imm, 3), out_len);
    if (in == nullptr || wt == nullptr || bias == nullptr || out == nullptr)
        return false;
    for (uint32_t oy = 0; oy < s.oh; oy++)
        for (uint32_t ox = 0; ox < s.ow; ox++)
            conv_pixel(s, in, wt, bias, out, oy, ox);
    wrote(c, field(d.imm, 3), (uint32_t)out_len);
    c.work.bytes_read += in_len + wt_len + 4ull * s.cout;
    c.work.macs += out_len * s.kh * s.kw * s.cin;
    c.work.conv_commands++;
    return true;
}

static bool exec_flow(isa_context& c, const decoded& d)
{
    c.work.flows++;
    c.flows.push_back({d.imm, c.work});
    return true;
}

// CYCLES: the engine's 64-bit cycle counter, little-endian, at r[a].
static bool exec_cycles(isa_context& c, const decoded& d)
{
    uint8_t* dst = memory_at(c, field(d.imm, 0), 8);
    if (dst == nullptr)
        return false;
    uint64_t now = c.cycle_counter_base + work_cycles(c.work);
    memcpy(dst, &now, 8);
    wrote(c, field(d.imm, 0), 8);
    return true;
}

struct instruction {
    opcode op;
    bool (*exec)(isa_context&, const decoded&);
};

static const instruction kInstructions[] = {
    {OP_NOP, exec_nop},     {OP_SETR, exec_setr}, {OP_MOVE, exec_move}, {OP_FILL, exec_fill},
    {OP_ADD8, exec_add8},   {OP_MAX8, exec_max8}, {OP_CONV, exec_conv}, {OP_FLOW, exec_flow},
    {OP_CYCLES, exec_cycles},
};

static const instruction* lookup(uint8_t op)
{
    for (const instruction& i : kInstructions)
        if (i.op == op)
            return &i;
    return nullptr;
}

run_status run_code(isa_context& ctx)
{
    std::vector<uint32_t> words(ctx.code_size / 4);
    memcpy(words.data(), ctx.code, words.size() * 4);
    for (;;) {
        uint32_t at = ctx.pc / 4;
        if (at >= words.size())
            return RUN_FAULT; // ran off the end without END
        uint32_t header = words[at];
        uint8_t op = header & 0xFF;
        uint32_t len = (header >> 8) & 0xFF;
        ctx.work.instructions++;
        if (op == OP_END)
            return RUN_DONE;
        const instruction* ins = lookup(op);
        if (ins == nullptr || len == 0 || at + len > words.size())
            return RUN_FAULT;
        decoded d{header >> 16, words.data() + at + 1, len - 1};
        if (!ins->exec(ctx, d))
            return RUN_FAULT;
        ctx.pc += 4 * len;
    }
}

} // namespace kvx
