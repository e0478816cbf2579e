// The hex-line tokenizer and the piece counter against the C library they
// stand in for: sscanf with the sixteen-token format, and fgets with a
// 120-byte buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "qora_pattern_hexline.h"
#include "qora_pattern_reader.h"
#include "qora_utils.h"
#include "test_util.h"

namespace
{

std::string random_line(std::mt19937& rng)
{
    // Hex digits, their neighbours in ASCII, white space and high bytes.
    static const char alphabet[] = "0123456789abcdefABCDEFxX_ \t\r\n/@gz:`GF\x10\x19\x7f\x80\xe6\xff";
    static const char hex[] = "0123456789abcdefABCDEF";
    std::string line = "00112233_44556677_8899aabb_ccddeeff\n";
    std::uniform_int_distribution<int> edits(0, 3), pos(0, 40), ch(0, sizeof(alphabet) - 2), digit(0, 21);
    for (char& c : line)
        if (c != '_' && c != '\n')
            c = hex[digit(rng)];
    for (int e = edits(rng); e > 0; e--) {
        size_t p = (size_t)pos(rng) % (line.size() + 1);
        switch (pos(rng) % 3) {
        case 0:
            if (p < line.size())
                line[p] = alphabet[ch(rng)];
            break;
        case 1: line.insert(p, 1, alphabet[ch(rng)]); break;
        default:
            if (p < line.size())
                line.erase(p, 1);
            break;
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
        ASSERT_EQ(scan_hex_tokens(line.c_str(), fast), sscanf_hex_tokens(line.c_str(), ref)) << line;
        ASSERT_EQ(memcmp(fast, ref, sizeof(fast)), 0) << line;
    }
}

// Four groups of eight hex digits joined by '_' at the start of the line.
bool is_plain_hex(const std::string& line)
{
    if (line.size() < 35)
        return false;
    for (size_t i = 0; i < 35; i++)
        if (i % 9 == 8 ? line[i] != '_' : !isxdigit((unsigned char)line[i]))
            return false;
    return true;
}

TEST(HexLine, DecodersAgreeWithPlainReading)
{
    std::mt19937 rng(11);
    int plain = 0;
    for (int i = 0; i < 100000; i++) {
        std::string line = random_line(rng);
        uint8_t fast[16], ref[16], fast_mask[16], ref_mask[16];
        int ref_fields = sscanf_hex_line(line.c_str(), false, ref, ref_mask);
        ASSERT_EQ(decode_data_line(line.c_str(), line.size(), fast), ref_fields) << line;
        ASSERT_EQ(memcmp(fast, ref, 16), 0) << line;
        // The word-at-a-time decoder runs here whatever decoder the host uses.
        ASSERT_EQ(decode_hex_digits_words(line.c_str(), line.size(), fast), is_plain_hex(line)) << line;
        if (is_plain_hex(line)) {
            ASSERT_EQ(memcmp(fast, ref, 16), 0) << line;
            plain++;
        }
        ref_fields = sscanf_hex_line(line.c_str(), true, ref, ref_mask);
        ASSERT_EQ(decode_golden_line(line.c_str(), line.size(), fast, fast_mask), ref_fields) << line;
        ASSERT_EQ(memcmp(fast, ref, 16), 0) << line;
        ASSERT_EQ(memcmp(fast_mask, ref_mask, 16), 0) << line;
    }
    EXPECT_GT(plain, 10000);
}

// The buffered reader returns exactly the pieces fgets with a 120-byte
// buffer returns, across its own read boundaries, with long lines, NUL
// bytes, CR LF and a last line without a line feed.
TEST(HexLine, ReaderMatchesFgets)
{
    std::mt19937 rng(5);
    std::string text;
    std::uniform_int_distribution<int> len(0, 300), kind(0, 9), byte(0, 255);
    while (text.size() < 2500000) {
        int n = len(rng);
        int k = kind(rng);
        for (int i = 0; i < n; i++)
            text.push_back(k == 0 ? (char)byte(rng) : "0123456789abcdef_"[i % 17]);
        text += k == 1 ? "\r\n" : "\n";
    }
    text += "tail without line feed";
    std::string path = make_tmp_dir("reader") + "/text";
    write_file(path, text);

    // From a file and from a pipe (short reads), with pieces that run across
    // chunk ends.
    for (bool from_file : {true, false}) {
        FILE* plain = fopen(path.c_str(), "r");
        FILE* source = from_file ? fopen(path.c_str(), "r") : popen(("cat " + path).c_str(), "r");
        long pieces = 0;
        {
            line_reader reader(source);
            char expected[QORA_LINE_BUF];
            for (;;) {
                long before = ftell(plain);
                bool more = fgets(expected, sizeof(expected), plain) != nullptr;
                text_piece piece = reader.next();
                ASSERT_EQ(piece.n > 0, more) << "piece " << pieces;
                if (!more)
                    break;
                size_t n = (size_t)(ftell(plain) - before);
                ASSERT_EQ(piece.n, n) << "piece " << pieces;
                ASSERT_EQ(memcmp(piece.data, expected, n), 0) << "piece " << pieces;
                pieces++;
            }
        }
        fclose(plain);
        from_file ? fclose(source) : pclose(source);
        EXPECT_GT(pieces, 20000);
    }
}

} // namespace
