// The qora_player executable when memory runs out, under an address-space
// limit (ulimit -v): it ends with status 1 and either the message of the
// step that failed or one line on standard error, never a signal, and keeps
// what it printed before.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include "test_util.h"

namespace
{

const std::string kOutOfMemory = "qora_player: out of memory, the run did not complete\n";

struct limited_run {
    int status;
    std::string out, err;
};

limited_run run_limited(const std::string& dir, long kib, const std::string& args)
{
    std::string cmd = "cd '" + dir + "' && ulimit -v " + std::to_string(kib) + " && exec " + QORA_PLAYER_PATH + " " +
        args + " >out.txt 2>err.txt";
    limited_run r {system(cmd.c_str()), "", ""};
    r.out = read_file(dir + "/out.txt");
    r.err = read_file(dir + "/err.txt");
    return r;
}

struct OomCase {
    const char* what;
    std::string args;
    std::vector<long> limits_kib; // from tight to loose
    std::string reached;          // printed at some limit of the sweep instead of the line
    bool one_path;                // a run that fails sooner prints the start of what a later one prints
};

// The player's last piece of output was a whole line or progress bar: an
// abort would have cut standard output at a buffer boundary, or lost it.
bool ends_whole(const std::string& out)
{
    return out.empty() || out.back() == '\n' || (out.size() >= 2 && out.compare(out.size() - 2, 2, "%]") == 0);
}

TEST(PlayerOutOfMemory, EndsWithOneLineAndStatusOne)
{
#ifdef QORA_SANITIZER_ENV
    GTEST_SKIP() << "the sanitizers reserve more address space than any limit here allows";
#endif
    if (std::string(QORA_PLAYER_PATH).find(' ') != std::string::npos)
        GTEST_SKIP() << "an emulator needs more address space than any limit here allows";
    std::string dir = make_tmp_dir("player_oom");
    write_file(dir + "/big.hex",
               "// Output\n// @40009000 {1073741823}\n// Data\n@40000000\n" + hex_line(1, 0, 0, 0) + "\n// Code\n@0\n" +
                   hex_line(0, 0, 0, 0) + "\n");
    write_file(dir + "/g.hex", "@40009000\n" + hex_line(1, 0, 0, 0) + hex_line(2, 0, 0, 0));
    std::string data = "// Output\n// @40009000 {32}\n// Data\n@40000000\n";
    std::string line = hex_line(1, 2, 3, 4);
    data.reserve(data.size() + (24u << 20) / 16 * line.size() + 64);
    for (uint32_t i = 0; i < (24u << 20) / 16; i++)
        data += line;
    write_file(dir + "/data.hex", data + "\n// Code\n@0\n" + hex_line(0, 0, 0, 0) + "\n");
    const std::vector<OomCase> cases = {
        {"a 1 GiB output: the loader's array, then the engine model's views",
         "-f big.hex -g g.hex",
         {300000, 900000, 2200000, 4400000},
         "] alloc output_buf 0 FAIL\n",
         true},
        {"2147483647 copies of the built-in code", "-f Test -t 2147483647", {4000000}, "", true},
        {"a 24 MiB data buffer: the loader, then the engine model",
         "-f data.hex",
         {16000, 40000, 60000, 80000},
         "] alloc 40000000\n FAIL\n",
         false},
    };
    for (const OomCase& c : cases) {
        bool line_seen = false, reached_seen = false;
        std::string last_out;
        for (long kib : c.limits_kib) {
            limited_run r = run_limited(dir, kib, c.args);
            std::string at = std::string(c.what) + " under " + std::to_string(kib) + " KiB";
            ASSERT_TRUE(WIFEXITED(r.status)) << at << ": signal " << WTERMSIG(r.status) << "\n" << r.err;
            EXPECT_EQ(WEXITSTATUS(r.status), 1) << at;
            EXPECT_TRUE(r.err.empty() || r.err == kOutOfMemory) << at << ": " << r.err;
            line_seen = line_seen || r.err == kOutOfMemory;
            reached_seen = reached_seen || (!c.reached.empty() && r.out.find(c.reached) != std::string::npos);
            // Nothing printed before the failure was lost.
            EXPECT_TRUE(ends_whole(r.out)) << at << ": output cut\n" << r.out;
            if (c.one_path) {
                EXPECT_EQ(r.out.compare(0, last_out.size(), last_out), 0) << at << ": output lost";
            }
            EXPECT_EQ(r.err.empty(), r.out.find(" FAIL\n") != std::string::npos) << at << ": one reason\n" << r.out;
            last_out = r.err == kOutOfMemory ? r.out : "";
        }
        EXPECT_TRUE(line_seen) << c.what;
        EXPECT_EQ(reached_seen, !c.reached.empty()) << c.what;
    }
}

} // namespace
