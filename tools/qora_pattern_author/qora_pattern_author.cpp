// Writes the source files of a pattern deterministically: the pattern text
// (code, data buffers, output, bindings) and its golden, computed by a plain
// reference implementation of the workload, independent of the engine model.
//
//   qora_pattern_author <dir>   writes, below <dir>:
//     conv_demo/        pattern.hex, golden.hex: a small convolution sample
//     conv2d_uint8/     pattern.hex, golden.bin: the built-in "Test" pattern
//     max_pwr4_pi_test/ pattern.hex, cmodel_output.hex: the built-in "MaxPower"
//
// Code layouts are fixed: address operands sit at the byte offsets the
// built-in binding tables name, with NOPs between.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kvx_asm.h"

namespace
{

// A uint8 convolution with int32 bias and requantisation (the engine's CONV).
struct conv_params {
    int h, w, cin, cout, k, stride, pad;
    int32_t mult;
    int shift, in_zp, out_zp;
    int oh() const { return (h + 2 * pad - k) / stride + 1; }
    int ow() const { return (w + 2 * pad - k) / stride + 1; }
};

const conv_params kDemo = {12, 12, 8, 16, 3, 2, 1, 77, 10, 128, 10};
const conv_params kConv2d = {42, 42, 32, 32, 3, 1, 0, 45, 12, 100, 20};
const conv_params kMaxPower = {50, 50, 16, 128, 3, 1, 0, 91, 17, 128, 128};

// Deterministic bytes (a linear congruential sequence).
std::vector<uint8_t> bytes(size_t n, uint32_t seed)
{
    std::vector<uint8_t> v(n);
    for (uint8_t& b : v) {
        seed = seed * 1664525u + 1013904223u;
        b = (uint8_t)(seed >> 24);
    }
    return v;
}

// Sixteen bytes a line, most significant first ("xxxxxxxx_xxxxxxxx_...");
// nibbles of the bytes `masked` marks are written as "x".
std::string hex_lines(const std::vector<uint8_t>& data, const std::vector<bool>& masked = {})
{
    std::string text;
    char item[4];
    for (size_t at = 0; at < data.size(); at += 16) {
        for (int i = 15; i >= 0; i--) {
            size_t k = at + (size_t)i;
            bool hidden = k < masked.size() && masked[k];
            snprintf(item, sizeof(item), "%02x", k < data.size() ? data[k] : 0);
            text += hidden ? "xx" : item;
            if (i % 4 == 0)
                text += i == 0 ? "\n" : "_";
        }
    }
    return text;
}

std::vector<uint8_t> words(const std::vector<uint32_t>& w)
{
    std::vector<uint8_t> b;
    for (uint32_t x : w)
        for (int i = 0; i < 4; i++)
            b.push_back((uint8_t)(x >> (8 * i)));
    return b;
}

// The convolution from its definition: padding reads as the input zero point.
std::vector<uint8_t> reference_conv(const conv_params& p, const std::vector<uint8_t>& in,
                                    const std::vector<uint8_t>& wt, const std::vector<int32_t>& bias)
{
    std::vector<uint8_t> out((size_t)p.oh() * p.ow() * p.cout);
    for (int oy = 0; oy < p.oh(); oy++)
        for (int ox = 0; ox < p.ow(); ox++)
            for (int co = 0; co < p.cout; co++) {
                int64_t acc = bias[co];
                for (int ky = 0; ky < p.k; ky++)
                    for (int kx = 0; kx < p.k; kx++)
                        for (int ci = 0; ci < p.cin; ci++) {
                            int y = oy * p.stride + ky - p.pad, x = ox * p.stride + kx - p.pad;
                            int v = (y < 0 || x < 0 || y >= p.h || x >= p.w) ? p.in_zp
                                                                             : in[((size_t)y * p.w + x) * p.cin + ci];
                            acc +=
                                (int64_t)(v - p.in_zp) * (int8_t)wt[((size_t)(co * p.k + ky) * p.k + kx) * p.cin + ci];
                        }
                int64_t q = ((acc * p.mult + (1 << (p.shift - 1))) >> p.shift) + p.out_zp;
                out[((size_t)oy * p.ow() + ox) * p.cout + co] = (uint8_t)(q < 0 ? 0 : q > 255 ? 255 : q);
            }
    return out;
}

// Code laid out at fixed word positions; gaps become NOPs.
struct code_layout {
    std::vector<uint32_t> w;
    size_t at = 0;
    explicit code_layout(size_t words) : w(words, 0) { }
    // Continues at word `pos`, padding the gap with one NOP.
    code_layout& to(size_t pos)
    {
        if (pos > at)
            w[at] = kvx_asm_nop((uint32_t)(pos - at));
        at = pos;
        return *this;
    }
    code_layout& put(std::initializer_list<uint32_t> words)
    {
        for (uint32_t x : words)
            w[at++] = x;
        return *this;
    }
};

std::vector<uint32_t> shape_words(const conv_params& p)
{
    return {kvx_asm_setr(8, 5),
            (uint32_t)(p.h | p.w << 16),
            (uint32_t)(p.cin | p.cout << 16),
            (uint32_t)(p.k | p.k << 8 | p.stride << 16 | p.pad << 24),
            (uint32_t)p.mult,
            (uint32_t)(p.shift | p.in_zp << 8 | p.out_zp << 16)};
}

struct workload {
    std::vector<uint8_t> in, wt;
    std::vector<int32_t> bias;
    std::vector<uint8_t> bias_bytes() const
    {
        std::vector<uint32_t> b(bias.begin(), bias.end());
        return words(b);
    }
};

workload make_workload(const conv_params& p, uint32_t seed)
{
    workload w {bytes((size_t)p.h * p.w * p.cin, seed), bytes((size_t)p.cout * p.k * p.k * p.cin, seed + 1), {}};
    for (int i = 0; i < p.cout; i++)
        w.bias.push_back((i * 977 + (int)seed) % 4001 - 2000);
    return w;
}

std::vector<uint8_t> padded(std::vector<uint8_t> data, size_t size)
{
    data.resize(size, 0);
    return data;
}

std::string block(const std::string& addr, const std::vector<uint8_t>& data)
{
    return "@" + addr + "\n" + hex_lines(data) + "\n";
}

bool write(const std::string& path, const std::string& text)
{
    FILE* fp = fopen(path.c_str(), "w");
    if (fp == nullptr) {
        fprintf(stderr, "cannot write %s\n", path.c_str());
        return false;
    }
    fwrite(text.data(), 1, text.size(), fp);
    return fclose(fp) == 0;
}

} // namespace

// conv_demo: a 12x12x8 input, 16 channels, stride 2, padding 1.
bool write_conv_demo(const std::string& dir)
{
    const conv_params& p = kDemo;
    workload w = make_workload(p, 1);
    code_layout code(24);
    code.put({kvx_asm_setr(0, 1), 0, kvx_asm_setr(1, 1), 0, kvx_asm_setr(2, 1), 0, kvx_asm_setr(3, 1), 0});
    for (uint32_t x : shape_words(p))
        code.put({x});
    code.put({kvx_asm_regs(KVX_OP_CONV, 0, 1, 2, 3), kvx_asm_flow(1), kvx_asm_end()});
    std::string pattern = "// Output\n// @40009000 {" + std::to_string(p.oh() * p.ow() * p.cout) + "}\n// Data\n" +
        block("40000000", w.bias_bytes()) + block("40001000", w.in) + block("40002000", w.wt) + "// Code\n" +
        block("0", words(code.w)) + "// Binding\n// 4 @40001000\n// 12 @40002000\n// 20 @40000000\n// 28 @40009000\n";
    std::string golden = "@40009000\n" + hex_lines(reference_conv(p, w.in, w.wt, w.bias));
    return write(dir + "/pattern.hex", pattern) && write(dir + "/golden.hex", golden);
}

// conv2d_uint8 ("Test"): a 42x42x32 image (at the start of its 230400-byte
// buffer), 32 output channels, valid 3x3 convolution: 40x40x32 = 51200 bytes.
// Address operands at bytes 68 (bias), 112 (weights), 148 (input), 272 (output).
bool write_conv2d_uint8(const std::string& dir)
{
    const conv_params& p = kConv2d;
    workload w = make_workload(p, 7);
    code_layout code(80);
    code.to(16).put({kvx_asm_setr(2, 1), 0});
    for (uint32_t x : shape_words(p))
        code.put({x});
    code.to(27).put({kvx_asm_setr(1, 1), 0}).to(36).put({kvx_asm_setr(0, 1), 0});
    code.to(67).put({kvx_asm_setr(3, 1), 0});
    code.put({kvx_asm_regs(KVX_OP_CONV, 0, 1, 2, 3), kvx_asm_flow(1), kvx_asm_end()});
    std::string pattern = "// Output\n// @40041000 {51200}\n// acx0_qora0_cmda_length_00000020\n// Code\n" +
        block("0", words(code.w)) + "// Data\n" + block("40000000", w.bias_bytes()) +
        block("40005000", padded(w.in, 230400)) + block("40001000", w.wt) +
        "// Binding\n// 68 @40000000\n// 112 @40001000\n// 148 @40005000\n// 272 @40041000\n";
    std::vector<uint8_t> golden = reference_conv(p, w.in, w.wt, w.bias);
    std::string raw(golden.begin(), golden.end());
    return write(dir + "/pattern.hex", pattern) && write(dir + "/golden.bin", raw);
}

// max_pwr4_pi_test ("MaxPower"): every unit of the core that runs it busy,
// in DRAM only: a DMA copy, vector add and max, then two 50x50x16 ->
// 48x48x128 convolutions, one flow after each stage, and the cycle counter
// written over the first 8 output bytes (masked in the golden). The DMA and
// vector stages use the start of the output as scratch before the
// convolutions overwrite it, so the inputs never change: every loop, and
// every core of a multi-core run, computes the same output, whatever order
// the cores' writes land in. Address operands at bytes 72 (bias), 168
// (input), 228 (weights), 432 and 436 (vector operands), 604 (output).
bool write_max_pwr4_pi_test(const std::string& dir)
{
    const conv_params& p = kMaxPower;
    workload w = make_workload(p, 11);
    std::vector<uint8_t> vec = bytes(256, 5);
    code_layout code(168);
    code.to(17).put({kvx_asm_setr(2, 1), 0});
    for (uint32_t x : shape_words(p))
        code.put({x});
    code.put({kvx_asm_setr(14, 1), (uint32_t)vec.size()}); // r14: the vector length
    code.to(41).put({kvx_asm_setr(0, 1), 0}).to(56).put({kvx_asm_setr(1, 1), 0});
    code.to(107).put({kvx_asm_setr(4, 2), 0, 0});
    code.to(150).put({kvx_asm_setr(3, 1), 0});
    code.put({kvx_asm_regs(KVX_OP_MOVE, 3, 4, 14, 0), kvx_asm_flow(1), kvx_asm_regs(KVX_OP_ADD8, 3, 3, 5, 14),
              kvx_asm_regs(KVX_OP_MAX8, 3, 3, 4, 14), kvx_asm_flow(2), kvx_asm_regs(KVX_OP_CONV, 0, 1, 2, 3),
              kvx_asm_flow(3), kvx_asm_regs(KVX_OP_CONV, 0, 1, 2, 3), kvx_asm_flow(4),
              kvx_asm_regs(KVX_OP_CYCLES, 3, 0, 0, 0), kvx_asm_flow(5), kvx_asm_end()});
    std::string pattern = "// Output\n// @40100000 {294912}\n// acx0_qora0_cmda_length_00000041\n// Code\n" +
        block("0", words(code.w)) + "// Data\n" + block("40000000", w.bias_bytes()) +
        block("40008000", padded(w.in, 663552)) + block("40001000", w.wt) + block("40006000", vec) +
        "// Binding\n// 72 @40000000\n// 168 @40008000\n// 228 @40001000\n"
        "// 432 @40006000\n// 436 @40006000\n// 604 @40100000\n";
    std::vector<uint8_t> out = reference_conv(p, w.in, w.wt, w.bias);
    std::vector<bool> masked(out.size(), false);
    for (int i = 0; i < 8; i++)
        masked[i] = true; // the cycle counter
    std::string golden = "@40100000\n" + hex_lines(out, masked);
    return write(dir + "/pattern.hex", pattern) && write(dir + "/cmodel_output.hex", golden);
}

int main(int argc, char** argv)
{
    const char usage[] = "usage: qora_pattern_author <output directory>\n"
                         "writes conv_demo/, conv2d_uint8/ and max_pwr4_pi_test/ below it\n";
    std::string root = argc == 2 ? argv[1] : "";
    if (root == "-h" || root == "--help") {
        fputs(usage, stdout);
        return 0;
    }
    // An option is never taken for a directory name.
    if (root.empty() || root[0] == '-') {
        fputs(usage, stderr);
        return 2;
    }
    for (const char* sub : {"conv_demo", "conv2d_uint8", "max_pwr4_pi_test"}) {
        std::string mkdir = "mkdir -p '" + root + "/" + sub + "'";
        if (system(mkdir.c_str()) != 0)
            return 1;
    }
    bool ok = write_conv_demo(root + "/conv_demo") && write_conv2d_uint8(root + "/conv2d_uint8") &&
        write_max_pwr4_pi_test(root + "/max_pwr4_pi_test");
    return ok ? 0 : 1;
}
