// Golden loaders through the golden accessors, against a pattern that
// declares three outputs. Each scenario runs in a child process.
#include <gtest/gtest.h>

#include "test_util.h"

namespace
{

const char* kOutputs = "// Output\n"
                       "// @4000A000 {20}\n"
                       "// @40009000 {32}\n"
                       "// @40000000 {16}\n";

const std::string kLine = "00112233_44556677_8899aabb_ccddeeff\n";

struct GoldenCase {
    const char* what;
    std::vector<std::pair<std::string, std::string>> goldens; // file name, content
    std::string regions;                                      // golden lines of describe_set
    std::vector<std::string> printed;
};

std::string describe_goldens(const std::string& dir, const GoldenCase& c)
{
    std::vector<std::string> patterns {dir + "/p.hex"}, goldens;
    for (const auto& g : c.goldens) {
        write_file(dir + "/" + g.first, g.second);
        goldens.push_back(dir + "/" + g.first);
    }
    isolated_result r = run_isolated([&] { return load_and_describe(patterns, goldens); });
    for (const std::string& text : c.printed)
        EXPECT_NE(r.out.find(text), std::string::npos) << c.what << ": no \"" << text << "\" in\n" << r.out;
    size_t at = r.result.find("\ngolden");
    return at == std::string::npos ? "" : r.result.substr(at + 1);
}

TEST(GoldenLoad, Scenarios)
{
    const std::vector<GoldenCase> cases = {
        {"masks from x nibbles",
         {{"g.hex", "// expected\n@40000000\nxx112233_44556677_8899aabb_ccddeex5\n"}},
         "golden0 40000000 len=16 05eeddccbbaa99887766554433221100"
         " mask=0fffffffffffffffffffffffffffff00\n",
         {}},
        {"prefix names, partial last line, regions sorted",
         {{"g.hex", "@4000A0\n" + kLine + kLine + kLine + "@40009000\n" + kLine + kLine}},
         "golden0 40009000 len=32 ffeeddccbbaa99887766554433221100ffeeddccbbaa99887766554433221100"
         " mask=ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff\n"
         "golden1 4000A0 len=20 ffeeddccbbaa99887766554433221100ffeeddcc"
         " mask=ffffffffffffffffffffffffffffffffffffffff\n",
         {"Warning : read golden last line not 16 bytes align (0x4)\n",
          "Warning : read golden last line not 16 bytes align (0x0)\n"}},
        {"lines that stop short of the output: the rest is not compared",
         {{"g.hex", "@40009000\n" + kLine}},
         "golden0 40009000 len=32 ffeeddccbbaa99887766554433221100" + std::string(32, '0') +
             " mask=" + std::string(32, 'f') + std::string(32, '0') + "\n",
         {}},
        {"unknown region name drops every region",
         {{"g.hex", "@40000000\n" + kLine + "@50000000\n" + kLine}},
         "",
         {"get invalid out sz \n"}},
        {"a line that fills the read buffer",
         {{"g.hex", "@40000000\n" + std::string(119, '0') + "\n"}},
         "",
         {"Warning : len >= 120\n"}},
        {"short lines, comments and lines before any region are skipped",
         {{"g.hex", kLine + "/" + kLine + "0011\n@40000000\n\n" + kLine}},
         "golden0 40000000 len=16 ffeeddccbbaa99887766554433221100 mask=ffffffffffffffffffffffffffffffff\n",
         {}},
        {"binary goldens: longer, shorter, empty",
         {{"long.bin", std::string(20, 'a')}, {"short.bin", std::string(10, 'b')}, {"empty.bin", ""}},
         "golden0  len=10 62626262626262626262\n"
         "golden1  len=0 \n",
         {"\nWarning : read golden size(0x14) > output size(0x10)\nfree golden(0) data\n"}},
        {"file kinds",
         {{"g.HEX", kLine}, {"golden", kLine}, {"none/g.bin", ""}, {"h.hex", kLine}},
         "",
         {"Golden file type: Fail\nGolden file type: Fail\n", "No pattern data\n"}},
    };
    for (const GoldenCase& c : cases) {
        std::string dir = make_tmp_dir("golden");
        write_file(dir + "/p.hex", kOutputs);
        EXPECT_EQ(describe_goldens(dir, c), c.regions) << c.what;
    }
}

// A pipe has no size: counting its 16-byte reads takes its bytes, and the
// rewind before loading fails, so the golden loads empty.
TEST(GoldenLoad, AFifoGoldenIsUsedUpByCounting)
{
    std::string dir = make_tmp_dir("golden_fifo");
    write_file(dir + "/p.hex", kOutputs);
    ASSERT_EQ(system(("mkfifo '" + dir + "/g.bin' && (printf 0123456789 > '" + dir + "/g.bin' &)").c_str()), 0);
    isolated_result r = run_isolated([&] { return load_and_describe({dir + "/p.hex"}, {dir + "/g.bin"}); });
    EXPECT_NE(r.result.find("golden0  len=0 \n"), std::string::npos) << r.result;
    EXPECT_NE(r.out.find("prepare_progress_bar() seek fail\n"), std::string::npos) << r.out;
}

// Binary goldens load in large reads but must count and check in 16-byte
// steps: a file one byte longer than its output fails at the last step.
TEST(GoldenLoad, LargeBinaryGolden)
{
    std::string dir = make_tmp_dir("golden_large");
    std::string pattern = "// Output\n// @40000000 {2000000}\n";
    write_file(dir + "/p.hex", pattern);
    std::string data(2000000, '\0');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = (char)(i * 7);
    write_file(dir + "/exact.bin", data);
    write_file(dir + "/over.bin", data + "z");
    isolated_result r = run_isolated([&] {
        std::vector<std::string> p {dir + "/p.hex"}, g {dir + "/exact.bin"};
        qoraPattern set(p, g, 1);
        return std::to_string(set.get_pattern_golden_size(0)) + " " +
            std::to_string(memcmp(set.get_pattern_golden_addr(0), data.data(), data.size()) == 0);
    });
    EXPECT_EQ(r.result, "2000000 1");
    EXPECT_NE(r.out.find("][100%]\n"), std::string::npos);
    write_file(dir + "/one_read.bin", std::string(16, 'x'));
    r = run_isolated([&] { return load_and_describe({dir + "/p.hex"}, {dir + "/one_read.bin"}); });
    std::string golden_bar = r.out.substr(r.out.find("[100%]\n") + 7); // after the pattern's bar
    EXPECT_EQ(golden_bar.find("[50%]"), std::string::npos) << "one 16-byte read is all of it: " << golden_bar;
    EXPECT_NE(golden_bar.find("[100%]\n"), std::string::npos) << golden_bar;
    r = run_isolated([&] { return load_and_describe({dir + "/p.hex"}, {dir + "/over.bin"}); });
    EXPECT_NE(r.out.find("Warning : read golden size(0x1e8481) > output size(0x1e8480)"), std::string::npos);
}

} // namespace
