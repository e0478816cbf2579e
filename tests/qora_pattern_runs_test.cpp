// Runs of data lines read a block at a time, against the C library they
// stand in for: every run decoder the CPU runs against sscanf's reading of
// each line, the vector line-feed count against fgets, and whole pattern and
// golden loads against a piece-by-piece fgets + sscanf reading of the same
// file (bytes, masks, messages and the progress bar, all of standard output).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "qora_pattern_hexline.h"
#include "qora_pattern_reader.h"
#include "qora_utils.h"
#include "test_util.h"

namespace
{

// Where two outputs part, with some context.
std::string first_difference(const std::string& got, const std::string& want)
{
    size_t at = std::mismatch(got.begin(), got.begin() + (long)std::min(got.size(), want.size()), want.begin()).first -
        got.begin();
    size_t from = at < 60 ? 0 : at - 60;
    return "at " + std::to_string(at) + ":\n got: " + got.substr(from, 120) + "\nwant: " + want.substr(from, 120);
}

// A line a run takes: 36 bytes, '_' every ninth, a line feed last, hex
// digits (and for goldens 'x') elsewhere.
bool is_run_line(const char* line, bool golden)
{
    for (int i = 0; i < 35; i++) {
        unsigned char c = (unsigned char)line[i];
        if (i % 9 == 8 ? c != '_' : !(isxdigit(c) || (golden && c == 'x')))
            return false;
    }
    return line[35] == '\n';
}

// 36-byte lines: mostly plain, some with one character changed to a
// neighbour of the hex digits, white space, 'x', NUL or a high byte.
std::string random_lines(std::mt19937& rng, size_t count)
{
    static const char digits[] = "0123456789abcdefABCDEF";
    static const char odd[] = "xX_ \t\r\n/@gG:`F9\x7f\x80\xe6\xff";
    std::string text;
    std::uniform_int_distribution<int> digit(0, 21), oddity(0, 9), pos(0, 35), ch(0, sizeof(odd) - 1);
    for (size_t i = 0; i < count; i++) {
        char line[36];
        for (int c = 0; c < 35; c++)
            line[c] = c % 9 == 8 ? '_' : digits[digit(rng)];
        line[35] = '\n';
        if (oddity(rng) == 0)
            line[pos(rng)] = odd[ch(rng)]; // the last entry of odd is its NUL
        text.append(line, 36);
    }
    return text;
}

TEST(HexRuns, EveryDecoderAgreesWithSscanf)
{
    size_t count = 0;
    const hex_run_decoder* decoders = hex_run_decoders(&count);
    ASSERT_GE(count, 2u); // a vector decoder and the portable one
    EXPECT_STREQ(decoders[count - 1].name, "words");
    std::mt19937 rng(3);
    const size_t kLines = 20000;
    std::string text = random_lines(rng, kLines);
    for (size_t d = 0; d < count; d++) {
        const hex_run_decoder& dec = decoders[d];
        for (bool golden : {false, true}) {
            // The portable golden decoder leaves lines with an 'x' to the
            // per-line reading.
            bool takes_x = golden && strcmp(dec.name, "words") != 0;
            size_t pos = 0, runs = 0;
            while (pos < kLines) {
                std::vector<uint8_t> data(16 * (kLines - pos) + 16, 0xA5), mask(data.size(), 0xA5);
                const char* at = text.data() + 36 * pos;
                size_t done = golden ? dec.golden(at, kLines - pos, data.data(), mask.data())
                                     : dec.data(at, kLines - pos, data.data());
                for (size_t i = 0; i < done; i++) {
                    const char* line = at + 36 * i;
                    ASSERT_TRUE(is_run_line(line, takes_x)) << dec.name << " took " << std::string(line, 36);
                    std::string text_line(line, 36);
                    uint8_t ref[16], ref_mask[16];
                    ASSERT_EQ(sscanf_hex_line(text_line.c_str(), golden, ref, ref_mask), 16);
                    ASSERT_EQ(memcmp(&data[16 * i], ref, 16), 0) << dec.name << " " << text_line;
                    if (golden) {
                        ASSERT_EQ(memcmp(&mask[16 * i], ref_mask, 16), 0) << dec.name << " " << text_line;
                    }
                }
                ASSERT_EQ(data[16 * done], 0xA5) << dec.name << ": wrote past its run";
                if (pos + done < kLines) {
                    ASSERT_FALSE(is_run_line(at + 36 * done, takes_x))
                        << dec.name << " stopped at " << std::string(at + 36 * done, 36);
                }
                pos += done + 1;
                runs++;
            }
            EXPECT_GT(runs, 1000u) << dec.name;
        }
        // A run stops where it was told, even inside plain lines.
        std::string plain(36 * 4, '0');
        for (int i = 0; i < 4; i++) {
            plain[36 * i + 8] = plain[36 * i + 17] = plain[36 * i + 26] = '_';
            plain[36 * i + 35] = '\n';
        }
        uint8_t out[64], out_mask[64];
        EXPECT_EQ(dec.data(plain.data(), 3, out), 3u) << dec.name;
        EXPECT_EQ(dec.golden(plain.data(), 0, out, out_mask), 0u) << dec.name;
    }
}

uint32_t fgets_reads(const std::string& path)
{
    FILE* fp = fopen(path.c_str(), "r");
    char buf[QORA_LINE_BUF];
    uint32_t reads = 0;
    while (fgets(buf, sizeof(buf), fp))
        reads++;
    fclose(fp);
    return reads;
}

// Lines of every length around the piece size, at every offset to the
// vector blocks, counted whole and split at many places.
TEST(HexRuns, LineFeedCountMatchesFgets)
{
    std::mt19937 rng(9);
    std::uniform_int_distribution<int> len(0, 260), kind(0, 3);
    std::string text;
    while (text.size() < 200000) {
        int n = kind(rng) == 0 ? 118 + kind(rng) : len(rng);
        text.append((size_t)n, 'a');
        text += '\n';
        if (kind(rng) == 0)
            text.append(QORA_LINE_BUF * (size_t)kind(rng), 'b'); // long runs without a line feed
    }
    std::string path = make_tmp_dir("runs_count") + "/t.txt";
    for (size_t cut : {text.size(), text.size() - 1, text.size() - 77}) {
        std::string part = text.substr(0, cut);
        write_file(path, part);
        uint32_t reads = fgets_reads(path);
        for (size_t split : {(size_t)0, (size_t)1, (size_t)63, (size_t)64, (size_t)65, part.size() / 3, part.size()}) {
            size_t tail = 0;
            uint32_t pieces = count_line_pieces(part.data(), split, &tail);
            pieces += count_line_pieces(part.data() + split, part.size() - split, &tail);
            EXPECT_EQ(pieces + (tail > 0 ? 1 : 0), reads) << cut << " split " << split;
        }
    }
}

// The bar as the loaders must print it, one step per read.
struct bar_model {
    uint32_t total, idx = 0, last = 0xFFFFFFFF;
    char bar[51] = {};
    std::string out;
    explicit bar_model(uint32_t reads) : total(reads) { }
    void step()
    {
        idx++;
        uint32_t pct = total == 0 ? 0 : idx * 100 / total;
        if (pct > 100)
            return;
        if (pct != last) {
            bar[pct / 2] = '#';
            char text[80];
            snprintf(text, sizeof(text), "\r[%-50.51s][%u%%]", bar, pct);
            out += text;
            last = pct;
        }
        if (pct == 100)
            out += "\n";
    }
};

// Data lines of every kind a dump may hold, around runs of usual lines long
// enough to cross read chunks, bar steps and buffer growth.
std::string mixed_data(std::mt19937& rng, size_t lines, bool golden)
{
    std::uniform_int_distribution<int> kind(0, 199), run(1, 3000);
    std::string text;
    for (size_t i = 0; i < lines;) {
        int k = kind(rng);
        if (k < 150) {
            size_t n = std::min<size_t>((size_t)run(rng), lines - i);
            text += random_lines(rng, n);
            i += n;
            continue;
        }
        const char* odd[] = {"00112233_44556677_8899AABB_CCDDEEFF\r\n",
                             "0011 2233_4455_6677_8899aabb_ccddeeff\n",
                             "0x112233_44556677_8899aabb_ccddeexx\n",
                             "12\n",
                             "1234567\n",
                             "12345678\n",
                             "00112233_44556677_8899aabb_ccddeeff",
                             "// note\n",
                             "\n"};
        if (k < 190) {
            text += odd[k % 9];
        } else if (golden) {
            text.append(60 + (size_t)(k - 190), '7'); // a golden line of 119 characters ends the load
            text += "\n";
        } else {
            text.append(119 + (size_t)(k - 190), 'e'); // pieces of a long line
            text += "\n";
        }
        i++;
    }
    if (golden) // an '@' opens a region: only where the test puts one
        std::replace(text.begin(), text.end(), '@', 'g');
    return text;
}

TEST(HexRuns, PatternLoadMatchesPieceByPieceReading)
{
    std::mt19937 rng(21);
    std::string dir = make_tmp_dir("runs_pattern");
    std::string text = "// Data\n@40000000\n" + mixed_data(rng, 60000, false) + "@40100000\n" +
        mixed_data(rng, 20000, false) + "00112233_44556677_8899aabb_ccddeeff";
    std::string path = dir + "/p.hex";
    write_file(path, text);

    // The reference: each fgets piece by the loader's rules, with sscanf.
    bar_model bar(fgets_reads(path));
    std::vector<std::string> buffers;
    bool filling = false, open = false;
    FILE* fp = fopen(path.c_str(), "r");
    char piece[QORA_LINE_BUF];
    while (fgets(piece, sizeof(piece), fp)) {
        bar.step();
        size_t len = strlen(piece);
        if (len < 2) {
            if (filling)
                open = filling = false;
        } else if (piece[0] == '/' && piece[1] == '/') {
            if (filling)
                open = filling = false;
        } else if (piece[0] == '@') {
            buffers.emplace_back();
            open = true;
            filling = false;
        } else if (!open) {
            bar.out += "Warning: No '@' keyword before data\n";
        } else {
            filling = true;
            uint8_t data[16], mask[16];
            if (sscanf_hex_line(piece, false, data, mask) < 16)
                bar.out += "load_data():1084 sscanf fail\n";
            buffers.back().append((const char*)data, 16);
        }
    }
    fclose(fp);

    isolated_result r = run_isolated([&] {
        std::vector<std::string> p {path}, g;
        qoraPattern set(p, g, 1);
        std::string bytes;
        for (uint32_t i = 0; i < set.get_pattern_data_num(); i++) {
            buffer* b = set.get_pattern_data() + i;
            bytes.append((const char*)b->data, b->size);
            bytes += '|';
        }
        return bytes;
    });
    std::string expected;
    for (const std::string& b : buffers)
        expected += b + "|";
    EXPECT_EQ(r.result.size(), expected.size());
    EXPECT_TRUE(r.result == expected) << "the loaded bytes differ";
    EXPECT_TRUE(r.out == bar.out) << first_difference(r.out, bar.out);
    EXPECT_GT(bar.out.size(), 5000u); // the odd lines were met
}

TEST(HexRuns, GoldenLoadMatchesPieceByPieceReading)
{
    std::mt19937 rng(33);
    std::string dir = make_tmp_dir("runs_golden");
    const uint32_t kFirst = 1000000, kSecond = 300008; // the second ends inside a line
    write_file(dir + "/p.hex",
               "// Output\n// @40000000 {" + std::to_string(kFirst) + "}\n// @50000000 {" + std::to_string(kSecond) +
                   "}\n");
    std::string text = "@40000000\n" + mixed_data(rng, 75000, true) + "@50000000\n" + mixed_data(rng, 30000, true);
    std::string path = dir + "/g.hex";
    write_file(path, text);

    bar_model bar(fgets_reads(path));
    std::vector<std::string> data_of, mask_of;
    std::vector<uint32_t> len_of;
    uint32_t offset = 0;
    FILE* fp = fopen(path.c_str(), "r");
    char piece[QORA_LINE_BUF];
    while (fgets(piece, sizeof(piece), fp)) {
        bar.step();
        size_t len = strlen(piece);
        if (len < 8 || piece[0] == '/')
            continue;
        if (piece[0] == '@') {
            len_of.push_back(piece[1] == '4' ? kFirst : kSecond);
            data_of.emplace_back();
            mask_of.emplace_back();
            offset = 0;
            continue;
        }
        ASSERT_LT(len, QORA_LINE_BUF - 1u); // no line in this file ends the load
        uint32_t take = std::min<uint32_t>(16, len_of.back() - offset);
        if (take < 16) {
            char warn[80];
            snprintf(warn, sizeof(warn), "Warning : read golden last line not 16 bytes align (0x%x)\n", take);
            bar.out += warn;
        }
        uint8_t data[16], mask[16];
        if (sscanf_hex_line(piece, true, data, mask) < 16)
            bar.out += "load_golden_hex():@ sscanf fail\n";
        data_of.back().append((const char*)data, take);
        mask_of.back().append((const char*)mask, take);
        offset += take;
    }
    fclose(fp);

    isolated_result r = run_isolated([&] {
        std::vector<std::string> p {dir + "/p.hex"}, g {path};
        qoraPattern set(p, g, 1);
        std::string bytes;
        for (uint32_t i = 0; i < set.get_pattern_golden_num(); i++) {
            uint32_t n = set.get_pattern_golden_size(i);
            bytes.append((const char*)set.get_pattern_golden_addr(i), n);
            bytes.append((const char*)set.get_pattern_golden_addr_mask(i), n);
            bytes += '|';
        }
        return bytes;
    });
    // Only the lines reached are compared: what lies beyond is the loader's
    // own business.
    std::string expected;
    for (size_t i = 0; i < data_of.size(); i++) {
        ASSERT_EQ(data_of[i].size(), len_of[i]) << "the generated golden must fill region " << i;
        expected += data_of[i] + mask_of[i] + "|";
    }
    EXPECT_EQ(r.result.size(), expected.size());
    EXPECT_TRUE(r.result == expected) << "the loaded bytes differ";
    // The sscanf message carries the loader's own line number.
    std::string out = r.out;
    for (size_t at = 0; (at = out.find("load_golden_hex():", at)) != std::string::npos; at += 18) {
        size_t end = out.find(' ', at);
        out.replace(at + 18, end - at - 18, "@");
    }
    bar_model pattern_bar(3); // the three comment lines of p.hex
    for (int i = 0; i < 3; i++)
        pattern_bar.step();
    EXPECT_TRUE(out == pattern_bar.out + bar.out) << first_difference(out, pattern_bar.out + bar.out);
}

} // namespace
