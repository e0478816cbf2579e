// kvx_asm -d against the engine model: on the copy example of
// docs/pattern-format.md, the listing names the instructions at the byte
// offsets the engine runs them from (its instruction trace), and the data
// buffer is never decoded.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.h"

namespace
{

// The n-th fenced block after `heading` in a document.
std::string fenced_block(const std::string& doc, const std::string& heading, int n)
{
    size_t at = doc.find(heading);
    for (int i = 0; at != std::string::npos; i++) {
        size_t open = doc.find("```\n", at);
        size_t close = open == std::string::npos ? open : doc.find("```", open + 4);
        if (close == std::string::npos)
            break;
        if (i == n)
            return doc.substr(open + 4, close - open - 4);
        at = close + 3;
    }
    return "";
}

// "0x0008: SETR r1, ..." -> "0x0008 SETR"; comment lines dropped.
std::vector<std::string> listed(const std::string& listing)
{
    std::vector<std::string> steps;
    std::istringstream in(listing);
    for (std::string line; std::getline(in, line);)
        if (line.rfind("0x", 0) == 0)
            steps.push_back(line.substr(0, 6) + " " + line.substr(8, line.find_first_of(" \n", 8) - 8));
    return steps;
}

// "subcmd#1 pc=0x0008 SETR r1=..." -> "0x0008 SETR".
std::vector<std::string> executed(const std::string& trace)
{
    std::vector<std::string> steps;
    std::istringstream in(trace);
    for (std::string line; std::getline(in, line);) {
        size_t pc = line.find(" pc=");
        if (pc != std::string::npos)
            steps.push_back(line.substr(pc + 4, line.find(' ', pc + 4 + 7) - pc - 4));
    }
    return steps;
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
    std::vector<std::string> ran = executed(read_file(dir + "/itrace"));
    EXPECT_EQ(listed(listing), ran);
    EXPECT_EQ(ran.size(), 5u); // three SETRs, MOVE, END
}

} // namespace
