// Pattern text loader and the pattern set built from files, through the
// accessors. Each scenario runs in a child process, since the loader keeps
// its comment state across files on purpose.
#include <gtest/gtest.h>

#include <unistd.h>

#include <map>

#include "qora_pattern_internal.h"
#include "test_util.h"

namespace
{

struct LoadCase {
    const char* what;
    std::map<std::string, std::string> files;
    std::string set;                        // describe_set of the result
    std::vector<std::string> printed;       // texts that must appear on stdout
    std::vector<std::string> patterns = {}; // the files when not given
};

const char* kBasic = "// Output\n"
                     "// @40009000 {64}\n"
                     "// Temporary\n"
                     "@40001000\n"
                     "00000000_00000000_00000000_0000abcd\n"
                     "// Code\n"
                     "@0\n"
                     "00112233_44556677_8899aabb_ccddeeff\n"
                     "\n"
                     "// Binding\n"
                     "// 68 @40001000\n"
                     "// 72 @40009000\n";

// Two data buffers and an output 0x100 long at 40009000, then one relocation
// per line of `bindings`.
std::string relocations(const std::string& bindings)
{
    return "// Output\n// @40009000 {256}\n// Data\n@40000000\n"
           "00000000_00000000_00000000_00000000\n\n@40001000\n00000000_00000000_00000000_00000000\n\n"
           "// Code\n@0\n00000000_00000000_00000000_00000000\n\n// Binding\n" +
        bindings;
}

// A data buffer's address text keeps the line feed of its '@' line.
const std::string kRelocData = "data 40000000\n size=16 tmp=0 00000000000000000000000000000000\n"
                               "data 40001000\n size=16 tmp=0 00000000000000000000000000000000\n"
                               "out 40009000 size=256 idx=0\n";

std::string dir_of(const char* what)
{
    std::string name = what;
    for (char& c : name)
        if (!isalnum((unsigned char)c))
            c = '_';
    return make_tmp_dir("load_" + name);
}

void run_case(const LoadCase& c)
{
    std::string dir = dir_of(c.what);
    std::vector<std::string> patterns;
    for (const std::string& p : c.patterns)
        patterns.push_back(p[0] != '/' && p.find('.') != std::string::npos ? dir + "/" + p : p);
    for (const auto& f : c.files) {
        if (f.first.find('/') != std::string::npos)
            (void)!system(("mkdir -p '" + dir + "/" + f.first.substr(0, f.first.rfind('/')) + "'").c_str());
        write_file(dir + "/" + f.first, f.second);
        if (c.patterns.empty())
            patterns.push_back(dir + "/" + f.first);
    }
    isolated_result r = run_isolated([&] { return load_and_describe(patterns, {}); });
    std::string expected = c.set;
    size_t at = expected.find("@DIR@");
    if (at != std::string::npos)
        expected.replace(at, 5, dir.substr(dir.rfind('/') + 1));
    EXPECT_EQ(r.result, expected) << c.what;
    bool scan_fails = false;
    for (const std::string& text : c.printed) {
        EXPECT_NE(r.out.find(text), std::string::npos) << c.what << ": no \"" << text << "\" in\n" << r.out;
        scan_fails |= text.find("sscanf fail") != std::string::npos;
    }
    // A line with all sixteen tokens is never reported as a short scan.
    EXPECT_EQ(r.out.find("sscanf fail") != std::string::npos, scan_fails) << c.what << "\n" << r.out;
}

TEST(PatternLoad, Scenarios)
{
    const std::vector<LoadCase> cases = {
        {"code data temporary and byte order",
         {{"case/data/p.hex", kBasic}},
         "name=data\n"
         "code0 size=16 tmp=0 ffeeddccbbaa99887766554433221100\n"
         "  bind ofs=68 buf:40001000 shift=0x0 dev_va=0x0\n"
         "  bind ofs=72 out:40009000 shift=0x0 dev_va=0x0\n"
         "data 40001000\n size=16 tmp=1 cdab0000000000000000000000000000\n"
         "out 40009000 size=64 idx=0\n",
         {}},
        {"relocation rules in order",
         {{"r.hex",
           relocations("// 1 @40001000\n// 2 @4000\n// 3 @1D9000A0\n// 4 @1D800010\n"
                       "// 5 @40001010\n// 6 @40009010\n// 7 @3FFFFFF0\n// 8 @40009000\n"
                       "// 9 @40009100\n")}},
         "name=@DIR@\ncode0 size=16 tmp=0 00000000000000000000000000000000\n"
         "  bind ofs=1 buf:40001000 shift=0x0 dev_va=0x0\n"
         "  bind ofs=2 out:40009000 shift=0x0 dev_va=0x0\n"
         "  bind ofs=3 vlm shift=0xa0 dev_va=0x1d900000\n"
         "  bind ofs=4 vlm shift=0xfff00010 dev_va=0x1d900000\n"
         "  bind ofs=5 buf:40001000 shift=0x10 dev_va=0x0\n"
         "  bind ofs=6 out:40009000 shift=0x10 dev_va=0x0\n"
         "  bind ofs=7 buf:40000000 shift=0x40000000 dev_va=0x0\n"
         "  bind ofs=8 out:40009000 shift=0x0 dev_va=0x0\n"
         "  bind ofs=9 buf:40001000 shift=0x8100 dev_va=0x0\n" +
             kRelocData,
         {}},
        {"a non-keyword comment in the binding state is a relocation",
         {{"b.hex", relocations("// Code\n")}},
         "name=@DIR@\ncode0 size=16 tmp=0 00000000000000000000000000000000\n"
         "  bind ofs=0 out:40009000 shift=0x0 dev_va=0x0\n" +
             kRelocData,
         {"load_comment():955 sscanf fail\n"}},
        {"outputs: bad sizes dropped, order ignores case",
         {{"o.hex",
           "// Outputs\n// @4000a100 {16}\n// @40009000 {32}\n// @4000A000 {0}\n"
           "// @4000B000 {1073741824}\n// @ {x}\n// plain comment\n// @4000A000 {1073741823}\n"}},
         "name=@DIR@\nout 40009000 size=32 idx=1\nout 4000A000 size=1073741823 idx=2\nout 4000a100 size=16 idx=0\n",
         {"load_comment():975 invalid out sz \n", "load_comment():966 sscanf fail\n"}},
        {"data must follow an @ line",
         {{"d.hex",
           "@40000000\n// note between\n\n00000000_00000000_00000000_00000001\n// after data\n"
           "00000000_00000000_00000000_00000002\n\n00000000_00000000_00000000_00000003\n"
           "00000000_00000000_00000000_00000004\n"}},
         "name=@DIR@\ndata 40000000\n size=16 tmp=0 01000000000000000000000000000000\n",
         {"Warning: No '@' keyword before data\n"}},
        {"odd characters, short and long lines",
         {{"x.hex", "@40000000\n0011223_44556677_8899aabb_ccddeeff\nzz\n" + std::string(125, '1') + "\n//\n"}},
         "name=@DIR@\ndata 40000000\n size=64 tmp=0 "
         "ffffffffffffffffffffffff3f221100ffffffffffffffffffffffffffffffff\n",
         {"load_data():1084 sscanf fail\n", "Warning: comment length < 4\n"}},
        {"a '/' as second character does not start a comment",
         {{"s.hex", "@40000000\n0/112233_44556677_8899aabb_ccddeeff\n"}},
         "name=@DIR@\ndata 40000000\n size=16 tmp=0 ffeeddccbbaa9988776655443322110f\n",
         {}},
        {"'a/' starts no comment: '@' opens a data buffer",
         {{"c.hex", "a/ Code\n@0\n00000000_00000000_00000000_00000001\n"}},
         "name=@DIR@\ndata 0\n size=16 tmp=0 01000000000000000000000000000000\n",
         {"Warning: No '@' keyword before data\n"}},
        {"a NUL second character ends the line's text: no data",
         {{"n.hex",
           std::string("@40000000\n0\0"
                       "112233_44556677_8899aabb_ccddeeff\n",
                       46) +
               "00000000_00000000_00000000_00000001\n"}},
         "name=@DIR@\ndata 40000000\n size=16 tmp=0 01000000000000000000000000000000\n",
         {}},
        {"a buffer's address text keeps 15 characters",
         {{"t.hex", "@0123456789abcdefXYZ\n00000000_00000000_00000000_00000001\n"}},
         "name=@DIR@\ndata 0123456789abcde size=16 tmp=0 01000000000000000000000000000000\n",
         {}},
        {"data lines ending in CR LF are read by the exact rules",
         {{"crlf.hex", "@40000000\r\n00000000_00000000_00000000_00000001\r\n00000000_00000000_00000000_00000002\r\n"}},
         "name=@DIR@\ndata 40000000\r\n size=32 tmp=0 "
         "0100000000000000000000000000000002000000000000000000000000000000\n",
         {}},
        {"two characters at the end of the file are a data line",
         {{"e.hex", "@40000000\n00000000_00000000_00000000_00000001\nab"}},
         "name=@DIR@\ndata 40000000\n size=32 tmp=0 01000000000000000000000000000000ffffffffffffffffffffffffffffffab\n",
         {"load_data():1084 sscanf fail\n"}},
        {"file kinds",
         {{"stub.bin", "whatever"}},
         "name=\n",
         {"Pattern file type: Fail\nPattern file type: Fail\nopen file(/nonexistent/none.hex) \\nopen file(",
          "missing.bin) error\n"},
         {"stub.bin", "test", "p.HEX", "/nonexistent/none.hex", "missing.bin"}},
    };
    for (const LoadCase& c : cases)
        run_case(c);
}

// The loader's comment state, binding counter and pending "Temporary" flag
// carry over from one file to the next.
TEST(PatternLoad, StateCarriesAcrossFiles)
{
    std::string dir = make_tmp_dir("load_two_files");
    write_file(dir + "/a.hex",
               "// Code\n@0\n00000000_00000000_00000000_00000000\n\n// Binding\n// 4 @1D900000\n"
               "// Temporary\n");
    write_file(dir + "/b.hex", "@40000000\n00000000_00000000_00000000_00000000\n\n// Binding\n// 8 @1D900010\n");
    // Describes the second pattern: its buffers and code buffers.
    auto second = [&](std::vector<std::string> files) {
        return run_isolated([&] {
                   std::vector<std::string> g;
                   qoraPattern set(files, g, 1);
                   pattern* p = qora_pattern_access::patterns(set).back();
                   return std::to_string(p->buf_num) + " tmp=" + std::to_string(p->buf[0].is_tmp) +
                       " codes=" + std::to_string(p->code_num);
               })
            .result;
    };
    // After a.hex, b.hex inherits the pending "Temporary" and the binding
    // state (its relocation goes to table 2, which b has not: ignored).
    EXPECT_EQ(second({dir + "/a.hex", dir + "/b.hex"}), "1 tmp=1 codes=0");
    EXPECT_EQ(second({dir + "/b.hex"}), "1 tmp=0 codes=0");
}

TEST(PatternLoad, ProgressBar)
{
    std::string dir = make_tmp_dir("load_progress");
    write_file(dir + "/three.hex", "//\n//\n//\n");
    std::string blank = "\r[" + std::string(50, ' ') + "]";
    isolated_result r = run_isolated([&] { return load_and_describe({dir + "/three.hex"}, {}); });
    const std::string warn = "Warning: comment length < 4\n";
    EXPECT_EQ(r.out, blank + "[33%]" + warn + blank + "[66%]" + warn + blank + "[100%]\n" + warn);

    std::string many;
    for (int i = 0; i < 200; i++)
        many += "// comment\n";
    write_file(dir + "/many.hex", many);
    r = run_isolated([&] { return load_and_describe({dir + "/many.hex"}, {}); });
    EXPECT_NE(r.out.find("\r[" + std::string(51, '#') + "][100%]\n"), std::string::npos);
    EXPECT_EQ(r.out.find("\r[#" + std::string(49, ' ') + "][0%]"), 0u); // the first count prints 0%
    EXPECT_NE(r.out.find("\r[#" + std::string(49, ' ') + "][1%]"), std::string::npos);
}

TEST(PatternLoad, LargeBuffersGrowAndKeepEveryLine)
{
    std::string dir = make_tmp_dir("load_large");
    std::string text = "@40000000\n";
    char line[64];
    for (int i = 0; i < 20000; i++) {
        snprintf(line, sizeof(line), "00000000_00000000_00000000_%08x\n", i);
        text += line;
    }
    write_file(dir + "/big.hex", text);
    isolated_result r = run_isolated([&] {
        std::vector<std::string> p {dir + "/big.hex"}, g;
        qoraPattern set(p, g, 1);
        buffer* b = set.get_pattern_data();
        uint32_t bad = 0;
        for (uint32_t i = 0; i < 20000; i++)
            bad += memcmp(b->data + 16 * i, &i, 4) != 0; // little-endian host
        return std::to_string(b->size) + " " + std::to_string(bad);
    });
    EXPECT_EQ(r.result, "320000 0");
}

// The pattern name is the parent directory's name: 64 characters fit whole,
// longer names are cut there.
TEST(PatternLoad, LongDirectoryNames)
{
    std::string top = make_tmp_dir("load_names");
    ASSERT_EQ(system(("mkdir -p '" + top + "/d'").c_str()), 0);
    write_file(top + "/d/p.hex", "// Output\n// @40000000 {16}\n");
    isolated_result short_dir =
        run_isolated([&] { return chdir(top.c_str()) == 0 ? load_and_describe({"d/p.hex"}, {}) : "no directory"; });
    EXPECT_EQ(short_dir.result.substr(0, short_dir.result.find('\n')), "name=d"); // a one-character directory
    for (size_t n : {63, 64, 65, 100}) {
        std::string name(n, 'd');
        std::string dir = make_tmp_dir("load_names") + "/" + name;
        ASSERT_EQ(system(("mkdir -p '" + dir + "'").c_str()), 0);
        write_file(dir + "/p.hex", "// Output\n// @40000000 {16}\n");
        isolated_result r = run_isolated([&] { return load_and_describe({dir + "/p.hex"}, {}); });
        EXPECT_EQ(r.result.substr(0, r.result.find('\n')), "name=" + name.substr(0, 64)) << n;
    }
}

// Past the record arrays the loader reports and goes on, but stores nothing.
TEST(PatternLoad, LimitsAreReportedAndBounded)
{
    std::string dir = make_tmp_dir("load_limits");
    std::string text = "// Code\n@0\n00000000_00000000_00000000_00000000\n\n// Binding\n";
    for (int i = 0; i < MAX_NUM + 2; i++)
        text += "// " + std::to_string(i) + " @1D900000\n";
    text += "// Output\n// Data\n";
    for (int i = 0; i < MAX_DATA_NUM + 2; i++)
        text += "@4" + std::to_string(i) + "\n00000000_00000000_00000000_00000000\n\n";
    write_file(dir + "/limits.hex", text);
    isolated_result r = run_isolated([&] {
        std::vector<std::string> p {dir + "/limits.hex"}, g;
        qoraPattern set(p, g, 1);
        return std::to_string(set.get_pattern_binding_num(0)) + " " + std::to_string(set.get_pattern_data_num());
    });
    EXPECT_EQ(r.result, std::to_string(MAX_NUM + 2) + " " + std::to_string(MAX_DATA_NUM + 2));
    EXPECT_NE(r.out.find("binding num(32768) >= MAX_NUM(32768)\nbinding num(32769) >= MAX_NUM(32768)\n"
                         "binding num(32770) >= MAX_NUM(32768)\n"),
              std::string::npos);
    EXPECT_NE(r.out.find("data buf num >= MAX_DATA_NUM(8192)\n"), std::string::npos);
}

// Host allocation failures, through the loaders' allocation seam.
TEST(PatternLoad, AllocationFailures)
{
    std::string dir = make_tmp_dir("load_alloc");
    std::string text = "@40000000\n";
    for (int i = 0; i < 3100; i++) // 49600 bytes: the block must grow three times
        text += "00000000_00000000_00000000_00000001\n";
    write_file(dir + "/p.hex", text);
    write_file(dir + "/one.hex", "@40000000\n00000000_00000000_00000000_00000001\n");
    isolated_result no_block = run_isolated([&] {
        pattern_malloc = [](size_t) -> void* { return nullptr; };
        std::vector<std::string> p {dir + "/one.hex"}, g;
        qoraPattern set(p, g, 1);
        buffer* b = set.get_pattern_data();
        return std::to_string(set.get_pattern_data_num()) + " " + (b->data == nullptr ? "null " : "data ") +
            std::to_string(b->size);
    });
    EXPECT_EQ(no_block.result, "1 null 0");
    EXPECT_NE(no_block.out.find("Allocate memory FAIL\n"), std::string::npos);
    isolated_result no_growth = run_isolated([&] {
        pattern_realloc = [](void*, size_t) -> void* { return nullptr; };
        std::vector<std::string> p {dir + "/p.hex"}, g;
        qoraPattern set(p, g, 1);
        buffer* b = set.get_pattern_data();
        return std::to_string(b->size) + " " + std::to_string(b->data[16368]);
    });
    EXPECT_EQ(no_growth.result, "16384 1"); // the old block is kept; its size counts the bytes it holds
    // Every growth the lines call for is tried, and reported when it fails.
    size_t failures = 0;
    for (size_t at = 0; (at = no_growth.out.find("Realloc Fail!!\n", at)) != std::string::npos; at++)
        failures++;
    EXPECT_EQ(failures, 3u);
}

} // namespace
