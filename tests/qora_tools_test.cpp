// The tools beside the player and what the documents say of them:
// tools/run.sh plays in the caller's directory, the README names only
// scripts and programs that exist, kvx_asm's manual page lists exactly the
// options of its usage text, and qora_pattern_author takes no option for a
// directory.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <regex>
#include <set>
#include <string>

#include "test_util.h"

namespace
{

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Exit status of a shell command line; its output goes to `log`.
int shell(const std::string& cmd, const std::string& log)
{
    int status = system((cmd + " >" + log + ".out 2>" + log + ".err").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The directory the test programs were built in: the player's.
std::string build_dir()
{
    std::string player = QORA_PLAYER_PATH;
    player = player.substr(player.rfind(' ') + 1);
    return player.substr(0, player.rfind('/'));
}

// The player as run_player starts it, with the sanitizer settings of the tests.
std::string player_command()
{
#ifdef QORA_SANITIZER_ENV
    return "env " QORA_SANITIZER_ENV " " QORA_PLAYER_PATH;
#else
    return QORA_PLAYER_PATH;
#endif
}

// tools/run.sh, copied into a scratch checkout whose dependency installer
// and cmake are stand-ins that print, and whose build/qora_player runs the
// real player: the patterns are the caller's, named relative to the
// caller's directory, and the dumps land there too.
TEST(RunScript, KeepsTheCallersDirectory)
{
    std::string dir = make_tmp_dir("run_script");
    std::string tree = dir + "/checkout", user = dir + "/user", bin = dir + "/bin";
    ASSERT_EQ(system(("mkdir -p " + tree + "/tools " + tree + "/build " + user + " " + bin).c_str()), 0);
    ASSERT_EQ(system(("cp " QORA_SOURCE_DIR "/tools/run.sh " + tree + "/tools/").c_str()), 0);
    write_file(tree + "/tools/install-deps.sh", "#!/bin/sh\necho installing\n");
    write_file(bin + "/cmake", "#!/bin/sh\necho cmake \"$@\"\n");
    write_file(tree + "/build/qora_player", "#!/bin/sh\nexec " + player_command() + " \"$@\"\n");
    ASSERT_EQ(
        system(
            ("chmod +x " + tree + "/tools/install-deps.sh " + bin + "/cmake " + tree + "/build/qora_player").c_str()),
        0);
    ASSERT_EQ(system((std::string(QORA_AUTHOR_CMD) + " " + user + " >/dev/null").c_str()), 0);
    std::string golden = read_file(user + "/conv2d_uint8/golden.bin");
    golden[100] ^= 1;
    write_file(user + "/wrong.bin", golden);

    const struct {
        const char* args;
        int rc;
        const char* verdict;
    } runs[] = {
        {"", 0, "] Verify pattern 1 times : success\n"},
        {"-f conv2d_uint8/pattern.hex -g conv2d_uint8/golden.bin", 0, "] Verify pattern 1 times : success\n"},
        {"-f conv2d_uint8/pattern.hex -g wrong.bin --dump_output", 1, "] QORA loop 0 !! Compare golden Fail !!\n"},
    };
    std::string run = "cd " + user + " && PATH=" + bin + ":$PATH " + tree + "/tools/run.sh ";
    for (const auto& r : runs) {
        std::string log = dir + "/log";
        EXPECT_EQ(shell(run + r.args, log), r.rc) << r.args;
        std::string out = read_file(log + ".out");
        EXPECT_NE(out.find(r.verdict), std::string::npos) << r.args << out;
        EXPECT_EQ(out.find("installing"), std::string::npos) << "build messages on standard output";
        EXPECT_NE(read_file(log + ".err").find("cmake --build --preset default"), std::string::npos);
    }
    EXPECT_TRUE(exists(user + "/output0_0.bin"));
    EXPECT_FALSE(exists(tree + "/output0_0.bin"));
}

// Every `tools/...` and `build/...` program the README names exists.
TEST(Docs, ReadmeNamesProgramsThatExist)
{
    std::string readme = read_file(QORA_SOURCE_DIR "/README.md");
    std::regex command("`((tools|build)/[A-Za-z0-9_./-]+)");
    int seen = 0;
    for (std::sregex_iterator m(readme.begin(), readme.end(), command), end; m != end; ++m) {
        std::string path = (*m)[1];
        if (path.back() == '/')
            continue; // a glob such as build/bench/*_bench, whose programs some builds leave out
        std::string where = path.rfind("build/", 0) == 0 ? build_dir() + path.substr(5) : QORA_SOURCE_DIR "/" + path;
        EXPECT_TRUE(exists(where)) << path;
        seen++;
    }
    EXPECT_GE(seen, 10);
}

// Options of a text: words starting "-" or "--" (as the manual page and the
// usage text write them).
std::set<std::string> options_in(const std::string& text)
{
    std::set<std::string> found;
    std::regex option("(^|[ \\[|(\"])(--?[a-z][a-z_]*)");
    for (std::sregex_iterator m(text.begin(), text.end(), option), end; m != end; ++m)
        found.insert((*m)[2]);
    return found;
}

TEST(Docs, KvxAsmManualPageListsTheUsageOptions)
{
    std::string page = read_file(QORA_SOURCE_DIR "/docs/kvx_asm.1");
    size_t from = page.find("\n.SH OPTIONS\n"), to = page.find("\n.SH ", from + 1);
    ASSERT_NE(from, std::string::npos);
    // The tag line after each .TP, with groff's "\-" as "-".
    std::string tags;
    for (size_t at = page.find("\n.TP\n", from); at < to; at = page.find("\n.TP\n", at + 1)) {
        size_t line = at + 5;
        tags += page.substr(line, page.find('\n', line) - line) + "\n";
    }
    tags = std::regex_replace(tags, std::regex("\\\\-"), "-");
    tags = std::regex_replace(tags, std::regex("\\.BR? |\\.BI |\"|,"), " ");
    std::string log = make_tmp_dir("kvx_asm_man") + "/usage";
    ASSERT_EQ(shell(std::string(QORA_ASM_CMD) + " -h", log), 0);
    std::set<std::string> usage = options_in(read_file(log + ".out"));
    EXPECT_EQ(options_in(tags), usage);
    EXPECT_GE(usage.size(), 6u);
}

// "-h" prints the usage; no option is ever made a directory.
TEST(PatternAuthor, TakesNoOptionForADirectory)
{
    std::string dir = make_tmp_dir("author_usage");
    const struct {
        const char* args;
        int rc;
    } cases[] = {{"-h", 0}, {"--help", 0}, {"--bogus", 2}, {"", 2}, {"a b", 2}};
    for (const auto& c : cases) {
        std::string log = dir + "/log";
        EXPECT_EQ(shell("cd " + dir + " && " + QORA_AUTHOR_CMD + " " + c.args, log), c.rc) << c.args;
        std::string usage = read_file(log + (c.rc == 0 ? ".out" : ".err"));
        EXPECT_EQ(usage.rfind("usage: qora_pattern_author <output directory>\n", 0), 0u) << c.args;
    }
    EXPECT_FALSE(exists(dir + "/-h"));
    EXPECT_FALSE(exists(dir + "/--bogus"));
    EXPECT_FALSE(exists(dir + "/conv_demo"));
}

} // namespace
