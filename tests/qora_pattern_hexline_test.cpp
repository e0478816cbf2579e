// The hex-line tokenizer and the piece counter against the C library they
// stand in for: sscanf with the sixteen-token format, and fgets with a
// 120-byte buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "qora_pattern_internal.h"
#include "qora_utils.h"
#include "test_util.h"

namespace {

int reference_scan(const char* line, char tok[16][3])
{
    return sscanf(line, "%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s", tok[0], tok[1], tok[2],
                  tok[3], tok[4], tok[5], tok[6], tok[7], tok[8], tok[9], tok[10], tok[11], tok[12],
                  tok[13], tok[14], tok[15]);
}

std::string random_line(std::mt19937& rng)
{
    static const char alphabet[] = "0123456789abcdefABCDEFxX_ \t\r\n/@gz";
    std::string line = "00112233_44556677_8899aabb_ccddeeff\n";
    std::uniform_int_distribution<int> edits(0, 3), pos(0, 40), ch(0, sizeof(alphabet) - 2);
    for (int e = edits(rng); e > 0; e--) {
        size_t p = (size_t)pos(rng) % (line.size() + 1);
        switch (pos(rng) % 3) {
        case 0: if (p < line.size()) line[p] = alphabet[ch(rng)]; break;
        case 1: line.insert(p, 1, alphabet[ch(rng)]); break;
        default: if (p < line.size()) line.erase(p, 1); break;
        }
    }
    return line;
}

TEST(HexLine, AgreesWithSscanfOnGeneratedLines)
{
    std::mt19937 rng(7);
    for (int i = 0; i < 200000; i++) {
        std::string line = random_line(rng);
        char fast[16][3], ref[16][3];
        memset(fast, '?', sizeof(fast));
        memset(ref, '?', sizeof(ref));
        ASSERT_EQ(scan_hex_tokens(line.c_str(), fast), reference_scan(line.c_str(), ref)) << line;
        ASSERT_EQ(memcmp(fast, ref, sizeof(fast)), 0) << line;
    }
}

TEST(HexLine, NibbleTable)
{
    for (int c = 0; c < 256; c++)
        EXPECT_EQ(hex_nibble[c], to_i_4bit((char)c)) << c;
}

TEST(HexLine, PieceCountMatchesFgets)
{
    const std::string dir = make_tmp_dir("pieces");
    const std::vector<std::string> texts = {
        "", "\n", "a", "a\n", std::string(118, 'x') + "\n", std::string(119, 'x') + "\n",
        std::string(119, 'x'), std::string(120, 'x'), std::string(238, 'y') + "\nz\n\n",
        "ab\ncd", std::string(500, 'q'),
    };
    for (const std::string& text : texts) {
        std::string path = dir + "/t.txt";
        write_file(path, text);
        FILE* fp = fopen(path.c_str(), "r");
        char buf[QORA_LINE_BUF];
        uint32_t reads = 0;
        while (fgets(buf, sizeof(buf), fp))
            reads++;
        fclose(fp);
        for (size_t split = 0; split <= text.size(); split += 37) {
            size_t tail = 0;
            uint32_t pieces = count_line_pieces(text.data(), split, &tail);
            pieces += count_line_pieces(text.data() + split, text.size() - split, &tail);
            EXPECT_EQ(pieces + (tail > 0 ? 1 : 0), reads) << text.size() << " split " << split;
        }
    }
}

} // namespace
