// Header generators, the debug-log converter and the conversion modes,
// through the qora_player executable (the generators keep file-wide state,
// one conversion per process).
#include <gtest/gtest.h>

#include "test_util.h"

namespace
{

const std::string kPattern = "// Output\n// @40009000 {32}\n// acx0_qora1_cmda_length_0014\n// Temporary\n@40000000\n" +
    hex_line(0x03020100, 0x07060504, 0x0b0a0908, 0x0f0e0d0c) + "\n@40001000\n" + hex_line(1, 2, 3, 4) +
    "\n// Code\n@0\n" + hex_line(0x0202, 0, 0x10202, 0) + hex_line(0x20202, 32, 0x02100103, 0) +
    "\n// Binding\n// 4 @40009000\n// 12 @40000000\n// 16 @40009010\n// 20 @1D900010\n// 24 @40001010\n"
    "// 28 @3FFFFFF0\n";

class Conversions : public testing::Test
{
protected:
    void SetUp() override
    {
        dir = make_tmp_dir(std::string("conv_") + testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    int player(const std::string& args, std::string* out) { return run_player(args, out, false, "-C " + dir); }
    std::string dir;
};

TEST_F(Conversions, PatternHeaderText)
{
    write_file(dir + "/p.hex", "x\n" + kPattern);
    write_file(dir + "/out.hex", "@40009000\n" + hex_line(1, 2, 3, 4));
    std::string out;
    EXPECT_EQ(player("--gen hdr -f p.hex -g out.hex", &out), 0);
    EXPECT_NE(out.find("Warning: No '@' keyword before data\n"), std::string::npos) << out;
    EXPECT_NE(out.find("binding warning (addr=3ffffff0)\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Generate hdr.h\n"), std::string::npos);
    std::string h = read_file(dir + "/hdr.h");
    const std::vector<std::string> expected = {
        "// Output\n#define hdr_output_size 32\n"
        "unsigned char hdr_Output[hdr_output_size] __attribute__ ((aligned (16)));\n"
        "// acx0_qora1_cmda_length_0014\n\nunsigned int hdr_cmd_len = 0x14;\n// Temporary\n"
        "unsigned char hdr_40000000[] __attribute__ ((aligned (16))) = {\n"
        "0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};\n",
        "} hdr_binding[] = {\n    {4, hdr_Output, 0, 0x0},\n    {12, hdr_40000000, 0, 0x0},\n"
        "    {16, hdr_Output, 0, 0x10},\n    {20, (unsigned char *)0x1d900000, 0x1d900000, 0x10},\n"
        "    {24, hdr_40001000, 0, 0x10},\n    {28, hdr_40000000, 0, 0x40000000},\n    {0, NULL, 0, 0x0}\n};\n",
        "} hdr_data[] = {\n    {hdr_40000000, \"40000000\", sizeof(hdr_40000000), 0, 1},\n"
        "    {hdr_40001000, \"40001000\", sizeof(hdr_40001000), 0, 0},\n"
        "    {hdr_Command, \"Command\", sizeof(hdr_Command), 0, 0},\n    {NULL, NULL, 0, 0, 0}\n};\n\n"
        "unsigned int hdr_binding_num = 6;\nunsigned int hdr_data_num = 3;\n\n\n"
        "unsigned char *hdr_golden_mask = NULL;\n",
    };
    for (const std::string& part : expected)
        EXPECT_NE(h.find(part), std::string::npos) << part << "\nin\n" << h;
}

// The command-length comment is recognised from 26 characters, its line
// feed included: without one, the same text is a plain comment.
TEST_F(Conversions, CommandLengthNeedsTheWholeName)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"// acx0_qora1_cmda_length", "// note\n// acx0_qora1_cmda_length\nunsigned char *h_golden_mask = NULL;\n"},
        {"// acx0_qora1_cmda_length\n",
         "// note\n// acx0_qora1_cmda_length\n\nunsigned int h_cmd_len = 0x;\n\nunsigned char *h_golden_mask = "
         "NULL;\n"},
    };
    for (const auto& c : cases) {
        write_file(dir + "/p.hex", "// note\n" + c.first);
        std::string out;
        EXPECT_EQ(player("--gen h -f p.hex", &out), 0);
        EXPECT_EQ(read_file(dir + "/h.h"), c.second) << c.first;
    }
}

// More buffers than the loader keeps (8,192): the header still has one data
// row per declared array, its count agrees with its table, and bindings
// find buffers past the 8,192nd, by name and as the nearest one below.
TEST_F(Conversions, DataTableHasARowPerBuffer)
{
    std::string text = "// Output\n// @40009000 {16}\n";
    for (int i = 0; i < 8200; i++)
        text += "@5" + std::to_string(i) + "\n" + hex_line(i, 0, 0, 0) + "\n";
    text += "// Code\n@0\n" + hex_line(0, 0, 0, 0) + "\n// Binding\n// 4 @58199\n// 8 @581A8\n";
    write_file(dir + "/p.hex", text);
    std::string out;
    ASSERT_EQ(player("--gen big -f p.hex", &out), 0);
    EXPECT_EQ(out.find("binding warning"), std::string::npos) << out;
    write_file(dir + "/check.c",
               "#include <stddef.h>\n#include <string.h>\n#include \"big.h\"\n"
               "int main(void) {\n"
               "  size_t rows = sizeof(big_data) / sizeof(big_data[0]) - 1;\n"
               "  if (rows != 8201 || big_data_num != rows || big_data[rows].data != NULL) return 1;\n"
               "  for (size_t i = 0; i < rows; i++)\n"
               "    if (big_data[i].size != 16) return 2;\n"
               "  if (big_data[8199].data != big_58199 || strcmp(big_data[8199].data_addr_str, \"58199\")) return 3;\n"
               "  if (big_data[8200].data != big_Command || big_binding_num != 2) return 4;\n"
               "  if (big_binding[0].data != big_58199 || big_binding[0].shift != 0) return 5;\n"
               "  if (big_binding[1].data != big_58199 || big_binding[1].shift != 0xf) return 6;\n"
               "  return big_binding[2].data == NULL ? 0 : 7;\n}\n");
    std::string cmd = "cd '" + dir + "' && cc -Wall -Werror check.c -o check && ./check";
    EXPECT_EQ(system(cmd.c_str()), 0);
}

// The generated header compiles as C and C++ and holds the pattern.
TEST_F(Conversions, GeneratedHeaderCompiles)
{
    write_file(dir + "/p.hex", kPattern);
    write_file(dir + "/cmodel_output.hex", "@40009000\n0f0e0dxx_0b0a0908_07060504_03020100\n" + hex_line(1, 2, 3, 4));
    std::string out;
    ASSERT_EQ(player("--gen hdr -f p.hex -g cmodel_output.hex", &out), 0);
    write_file(dir + "/check.c",
               "#include <stddef.h>\n#include \"hdr.h\"\n"
               "int main(void) {\n"
               "  if (hdr_binding_num != 6 || hdr_data_num != 3 || hdr_cmd_len != 0x14) return 1;\n"
               "  if (sizeof(hdr_Command) != 32 || hdr_Command[0] != 2 || hdr_40000000[15] != 0x0f) return 2;\n"
               "  if (hdr_binding[2].data != hdr_Output || hdr_binding[2].shift != 0x10) return 3;\n"
               "  if (hdr_binding[3].dev_va != 0x1d900000 || hdr_data[0].is_tmp != 1) return 4;\n"
               "  if (hdr_golden_len != 32 || hdr_golden_mask[12] != 0x00 || hdr_golden_mask[0] != 0xff) return 5;\n"
               "  if (hdr_golden[16] != 1 || hdr_data[2].data != hdr_Command) return 6;\n"
               "  return sizeof(hdr_Output) == 32 ? 0 : 7;\n}\n");
    for (const char* compiler : {"cc -x c", "c++ -x c++"}) {
        std::string cmd = "cd '" + dir + "' && " + compiler + " -Wall -Werror check.c -o check && ./check";
        EXPECT_EQ(system(cmd.c_str()), 0) << compiler;
    }
}

struct GoldenHeaderCase {
    const char* what;
    std::string file;
    std::string content;
    std::string header;
    bool scan_short = false; // a data line with fewer than sixteen tokens is reported
};

TEST_F(Conversions, GoldenHeaders)
{
    const std::vector<GoldenHeaderCase> cases = {
        {"a text golden of another name", "out.hex", "@40009000\n" + hex_line(1, 2, 3, 4),
         "\nunsigned char *g_golden_mask = NULL;\n"},
        {"a masked text golden; short lines and long comments are skipped", "cmodel_output.hex",
         "@4\n// a comment longer than thirty-two characters\nff00ff00\nff00ff00_ff00ff00_ff00ff00_ff00ffxx\n",
         "unsigned char g_golden_mask[] __attribute__ ((aligned (16))) = {\n0x00, 0xff, 0xff, 0xff, 0xff, 0xff, "
         "0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};\n"
         "unsigned char g_golden[] __attribute__ ((aligned (16))) = {\n0x00, 0xff, 0x00, 0xff, 0x00, 0xff, 0x00, "
         "0xff, 0x00, 0xff, 0x00, 0xff, 0x00, 0xff, 0x00, 0xff};\n"
         "unsigned int g_golden_len = sizeof(g_golden);\n\n"},
        {"a line of 32 characters (line feed included) is a data line, read as far as it goes", "cmodel_output.hex",
         "@4\n00112233_44556677_8899aabb_ccdd\n",
         "unsigned char g_golden_mask[] __attribute__ ((aligned (16))) = {\n0x, 0x, 0xff, 0xff, 0xff, 0xff, 0xff, "
         "0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};\n"
         "unsigned char g_golden[] __attribute__ ((aligned (16))) = {\n0x, 0x, 0xdd, 0xcc, 0xbb, 0xaa, 0x99, "
         "0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x00};\n"
         "unsigned int g_golden_len = sizeof(g_golden);\n\n",
         true},
        {"a 20-byte binary golden", "g.bin",
         std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\xaa\xbb\xcc\xdd"),
         "unsigned char g_golden[] __attribute__ ((aligned (16))) = {\n0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, "
         "0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x10,\n0xaa, 0xbb, 0xcc, 0xdd};\n"
         "unsigned int g_golden_len = 20;\n\nunsigned char *g_golden_mask = NULL;\n"},
        {"an empty binary golden", "e.bin", "",
         "unsigned char g_golden[] __attribute__ ((aligned (16))) = {\n};\nunsigned int g_golden_len = 0;\n\n"
         "unsigned char *g_golden_mask = NULL;\n"},
    };
    for (const GoldenHeaderCase& c : cases) {
        write_file(dir + "/" + c.file, c.content);
        remove((dir + "/g.h").c_str());
        std::string out;
        EXPECT_EQ(player("--gen g -g " + c.file, &out), 0) << c.what;
        EXPECT_EQ(read_file(dir + "/g.h"), c.header) << c.what;
        EXPECT_EQ(out.find("sscanf fail") != std::string::npos, c.scan_short) << c.what << "\n" << out;
    }
}

// A buffer name past the line buffer is cut to 119 characters, with a warning.
TEST_F(Conversions, LongBufferNamesAreCut)
{
    const std::string tail(200, 'a');
    write_file(dir + "/p.hex", "// Output\n// @40009000 {16}\n@" + tail + "\n" + hex_line(1, 2, 3, 4) + "\n");
    std::string out;
    EXPECT_EQ(player("--gen h -f p.hex", &out), 0);
    EXPECT_NE(out.find("Warning: buf name too long\n"), std::string::npos) << out;
    const std::string name = ("h_" + tail).substr(0, 119);
    EXPECT_NE(read_file(dir + "/h.h").find("unsigned char " + name + "[] __attribute__"), std::string::npos);
}

struct LogCase {
    const char* what;
    std::string log;
    std::string bin;
};

TEST_F(Conversions, DebugLogToBinary)
{
    const std::string marker = "qora_dump_buf: output\n";
    const std::string data = "0x00000001 0x00000002 0x00000003 0x00000004\n";
    const std::string bytes("\x01\0\0\0\x02\0\0\0\x03\0\0\0\x04\0\0\0", 16);
    const std::vector<LogCase> cases = {
        {"no marker", "hello\n" + data, ""},
        {"one line", "boot\n" + marker + data, bytes},
        {"the dump ends at another line", marker + data + "[log] x\n" + marker + data, bytes},
        {"a lone x repeats the previous words", marker + data + "x\n", bytes + bytes},
        {"a second marker keeps the dump going", marker + data + marker + data, bytes + bytes},
    };
    for (const LogCase& c : cases) {
        write_file(dir + "/run.log", c.log);
        std::string out;
        EXPECT_EQ(player("-B run.log", &out), 0) << c.what;
        EXPECT_EQ(read_file(dir + "/run.log.bin"), c.bin) << c.what;
    }
}

TEST_F(Conversions, ModeDispatchAndNaming)
{
    write_file(dir + "/p.hex", kPattern);
    write_file(dir + "/run.log", "qora_dump_buf: output\n0x1 0x2 0x3 0x4\n");
    (void)!system(("mkdir -p '" + dir + "/tests/max-pwr.4'").c_str());
    write_file(dir + "/tests/max-pwr.4/x.hex", kPattern);
    std::string out;
    EXPECT_EQ(player("--gen_fw a.elf -B run.log --gen x -f p.hex", &out), 0);
    EXPECT_EQ(read_file(dir + "/run.log.bin"), "");
    EXPECT_EQ(read_file(dir + "/x.h"), "");
    EXPECT_EQ(player("--gen_use_dirname", &out), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(player("--gen_use_dirname -f tests/max-pwr.4/x.hex", &out), 0);
    EXPECT_NE(out.find("Generate tests/max-pwr.4/max_pwrp4.h\n"), std::string::npos) << out;
    EXPECT_NE(read_file(dir + "/tests/max-pwr.4/max_pwrp4.h").find("max_pwrp4_binding_num = 6"), std::string::npos);
    EXPECT_EQ(player("--gen_use_dirname -f p.hex", &out), 0);
    EXPECT_NE(out.find("Generate ./pattern.h\n"), std::string::npos);
    EXPECT_EQ(player("--gen_use_dirname -f /nonexistent.hex", &out), 0); // in the root: no directory name
    EXPECT_EQ(out.find("Generate"), std::string::npos) << out;
    EXPECT_EQ(player("--gen h", &out), 0);
    EXPECT_NE(read_file(dir + "/h.h").find("unsigned char *h_golden_mask = NULL;"), std::string::npos);
}

} // namespace
