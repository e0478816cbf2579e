// Writes the source files of a pattern deterministically: the pattern text
// (code, data buffers, output, bindings) and its golden, computed by a plain
// reference implementation of the workload, independent of the engine model.
//
//   qora_pattern_author <dir>   writes <dir>/conv_demo/pattern.hex and golden.hex
//
// conv_demo: a uint8 3x3 convolution (12x12x8 input, 16 output channels,
// stride 1, padding 1) with int32 bias and requantisation.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const int H = 12, W = 12, CIN = 8, COUT = 16, K = 3, STRIDE = 1, PAD = 1;
const int OH = (H + 2 * PAD - K) / STRIDE + 1, OW = (W + 2 * PAD - K) / STRIDE + 1;
const int32_t MULT = 77;
const int SHIFT = 10, IN_ZP = 128, OUT_ZP = 10;

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

// Sixteen bytes a line, most significant first ("xxxxxxxx_xxxxxxxx_...").
std::string hex_lines(const std::vector<uint8_t>& data)
{
    std::string text;
    char item[4];
    for (size_t at = 0; at < data.size(); at += 16) {
        for (int i = 15; i >= 0; i--) {
            size_t k = at + (size_t)i;
            snprintf(item, sizeof(item), "%02x", k < data.size() ? data[k] : 0);
            text += item;
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
std::vector<uint8_t> reference_conv(const std::vector<uint8_t>& in, const std::vector<uint8_t>& wt,
                                    const std::vector<int32_t>& bias)
{
    std::vector<uint8_t> out((size_t)OH * OW * COUT);
    for (int oy = 0; oy < OH; oy++)
        for (int ox = 0; ox < OW; ox++)
            for (int co = 0; co < COUT; co++) {
                int64_t acc = bias[co];
                for (int ky = 0; ky < K; ky++)
                    for (int kx = 0; kx < K; kx++)
                        for (int ci = 0; ci < CIN; ci++) {
                            int y = oy * STRIDE + ky - PAD, x = ox * STRIDE + kx - PAD;
                            int v = (y < 0 || x < 0 || y >= H || x >= W) ? IN_ZP : in[(y * W + x) * CIN + ci];
                            acc += (int64_t)(v - IN_ZP) * (int8_t)wt[((co * K + ky) * K + kx) * CIN + ci];
                        }
                int64_t q = ((acc * MULT + (1 << (SHIFT - 1))) >> SHIFT) + OUT_ZP;
                out[((size_t)oy * OW + ox) * COUT + co] = (uint8_t)(q < 0 ? 0 : q > 255 ? 255 : q);
            }
    return out;
}

// Code: load the operand registers, convolve, close the flow, end. The
// address operands sit at byte offsets 4 (input), 12 (weights), 20 (bias)
// and 28 (output); the binding table names them.
std::vector<uint32_t> conv_code()
{
    auto setr = [](uint32_t reg) { return 0x0202u | reg << 16; };
    return {setr(0),  0, setr(1), 0, setr(2),  0, setr(3), 0,
            setr(8),  H | W << 16, setr(9), CIN | COUT << 16, setr(10),
            K | K << 8 | STRIDE << 16 | PAD << 24, setr(11), (uint32_t)MULT, setr(12),
            SHIFT | IN_ZP << 8 | OUT_ZP << 16, 0x0107u | 0x3210u << 16, 0x0108u | 1u << 16, 0, 0, 0, 0};
}

bool write(const std::string& path, const std::string& text)
{
    FILE* fp = fopen(path.c_str(), "w");
    if (fp == nullptr) {
        fprintf(stderr, "cannot write %s\n", path.c_str());
        return false;
    }
    fputs(text.c_str(), fp);
    return fclose(fp) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s <output directory>\n", argv[0]);
        return 2;
    }
    std::string dir = std::string(argv[1]) + "/conv_demo";
    std::string mkdir = "mkdir -p '" + dir + "'";
    if (system(mkdir.c_str()) != 0)
        return 1;
    std::vector<uint8_t> in = bytes((size_t)H * W * CIN, 1);
    std::vector<uint8_t> wt = bytes((size_t)COUT * K * K * CIN, 2);
    std::vector<int32_t> bias(COUT);
    std::vector<uint32_t> bias_words;
    for (int i = 0; i < COUT; i++) {
        bias[i] = (i * 977) % 4001 - 2000;
        bias_words.push_back((uint32_t)bias[i]);
    }
    std::string pattern = "// Output\n// @40009000 {" + std::to_string(OH * OW * COUT) + "}\n" +
                          "// Data\n@40000000\n" + hex_lines(words(bias_words)) + "\n@40001000\n" + hex_lines(in) +
                          "\n@40002000\n" + hex_lines(wt) + "\n// Code\n@0\n" + hex_lines(words(conv_code())) +
                          "\n// Binding\n// 4 @40001000\n// 12 @40002000\n// 20 @40000000\n// 28 @40009000\n";
    std::string golden = "@40009000\n" + hex_lines(reference_conv(in, wt, bias));
    return write(dir + "/pattern.hex", pattern) && write(dir + "/golden.hex", golden) ? 0 : 1;
}
