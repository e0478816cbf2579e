// kvx_asm -d against the engine model: on the copy example of
// docs/pattern-format.md, the listing names the instructions at the byte
// offsets the engine runs them from (its instruction trace), and the data
// buffer is never decoded.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "test_util.h"

namespace
{

// The n-th fenced block after `heading` in a document.
std::string fenced_block(const std::string& doc, const std::string& heading, int n)
{
    std::string rest = doc.substr(std::min(doc.find(heading), doc.size()));
    std::regex block("```\n([^`]*)```");
    std::sregex_iterator m(rest.begin(), rest.end(), block), end;
    for (int i = 0; i < n && m != end; i++)
        ++m;
    return m == end ? "" : (*m)[1].str();
}

// "offset name" of each instruction `step` finds (offset, then name): a
// listing's "0x0008: SETR r1, ..." or a trace's "subcmd#1 pc=0x0008 SETR ...".
std::vector<std::string> steps(const std::string& text, const char* step)
{
    std::vector<std::string> found;
    std::regex re(step);
    for (std::sregex_iterator m(text.begin(), text.end(), re), end; m != end; ++m)
        found.push_back((*m)[1].str() + " " + (*m)[2].str());
    return found;
}

TEST(KvxAsmModel, ListingOffsetsAreWhereTheEngineRunsTheCopyExample)
{
    std::string doc = read_file(std::string(QORA_SOURCE_DIR) + "/docs/pattern-format.md");
    std::string pattern = fenced_block(doc, "A pattern that copies 32 bytes", 0);
    std::string golden = fenced_block(doc, "A pattern that copies 32 bytes", 1);
    ASSERT_NE(pattern.find("// Code"), std::string::npos) << pattern;
    ASSERT_EQ(golden.rfind("@40009000\n", 0), 0u) << golden;
    std::string dir = make_tmp_dir("kvx_asm_model");
    write_file(dir + "/copy.hex", pattern);
    write_file(dir + "/copy_golden.hex", golden);

    std::string cmd = std::string(QORA_ASM_CMD) + " -d " + dir + "/copy.hex >" + dir + "/listing";
    ASSERT_EQ(system(cmd.c_str()), 0);
    std::string listing = read_file(dir + "/listing");
    EXPECT_EQ(listing.rfind("; @40000000: data, 32 bytes\n; @0: code, 32 bytes\n", 0), 0u) << listing;

    std::string out;
    ASSERT_EQ(run_player("-f " + dir + "/copy.hex -g " + dir + "/copy_golden.hex", &out, false,
                         "KVX_MODEL_ITRACE=" + dir + "/itrace"),
              0)
        << out;
    std::vector<std::string> ran = steps(read_file(dir + "/itrace"), " pc=(0x[0-9a-f]{4}) ([^ \n]+)");
    EXPECT_EQ(steps("\n" + listing, "\n(0x[0-9a-f]{4}): ([^ \n]+)"), ran);
    EXPECT_EQ(ran.size(), 5u); // three SETRs, MOVE, END
}

} // namespace
