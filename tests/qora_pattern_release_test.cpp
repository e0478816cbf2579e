// What the pattern set keeps when it is released: code bytes, the data
// blocks of a later pattern whose own position holds no buffer, and the
// built-in records. Players run each case; under the sanitizer preset any
// leak beyond these (in tests/lsan.supp or marked in the code) changes the
// status to LeakSanitizer's.
#include <gtest/gtest.h>

#include "test_util.h"

namespace
{

TEST(PatternRelease, KeptBlocksAreTheOnlyLeaks)
{
    std::string dir = make_tmp_dir("pattern_release");
    const std::string head = "// Output\n// @40009000 {32}\n// Data\n";
    const std::string code = "// Code\n@0\n" + hex_line(0, 0, 0, 0) + "\n";
    write_file(dir + "/p.hex", head + "@40000000\n" + hex_line(1, 2, 3, 4) + "\n" + code);
    write_file(dir + "/two.hex",
               head + "@40000000\n" + hex_line(1, 2, 3, 4) + "\n@40001000\n" + hex_line(5, 6, 7, 8) + "\n" + code);
    const std::string any = "xxxxxxxx_xxxxxxxx_xxxxxxxx_xxxxxxxx\n"; // masked out: any output passes
    write_file(dir + "/any.hex", "@40009000\n" + any + any);
    const struct {
        const char* what;
        std::string args;
        int rc;
    } cases[] = {
        {"one pattern: its code bytes", "-f p.hex -g any.hex", 0},
        {"two patterns: the second has no buffer at position 1, its data stay",
         "-f p.hex -f p.hex -g any.hex -g any.hex", 0},
        {"two patterns: the second has a buffer at position 1, its data go",
         "-f p.hex -f two.hex -g any.hex -g any.hex", 0},
        {"three patterns: the third has no buffer at position 2", "-f two.hex -f two.hex -f two.hex", 0},
        {"the built-in pattern four times", "-f Test -t 4", 0},
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_EQ(run_player(c.args, &out, true, "-C " + dir), c.rc) << c.what << "\n" << out;
        EXPECT_EQ(out.find("LeakSanitizer"), std::string::npos) << c.what << "\n" << out;
    }
}

} // namespace
