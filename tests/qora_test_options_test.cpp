// Option parser and entry-point dispatch, observed through execute_pattern
// and the real executable.
#include <gtest/gtest.h>

#include <set>

#include "qora_test_settings.h"
#include "qora_utils.h"
#include "test_util.h"

namespace
{

std::string usage_text()
{
    return capture_stdout([] { ShowHelp(); });
}

const char* kWarnCore = "[W:parser_options:221] -c QORA core id option needs to be positive\n";
const char* kVersion = "qora player version : " QORA_EXPECTED_VERSION "\n";

class Options : public testing::Test
{
protected:
    void SetUp() override { reset_settings(); }
    void TearDown() override { reset_settings(); }
};

// Every long option the usage text names is one the parser takes.
TEST_F(Options, UsageTextNamesAcceptedOptions)
{
    std::string u = usage_text();
    // The text users and scripts read, kept beside the tests.
    EXPECT_EQ(u, read_file(std::string(QORA_SOURCE_DIR) + "/tests/usage.txt"));
    // The debug mask bits it names are the ones the player tests.
    const std::pair<int, const char*> bits[] = {
        {QORA_DEBUG_CMD, "cmd"}, {QORA_DEBUG_MEM, "mem"}, {QORA_DEBUG_PERF, "perf"}};
    for (const auto& bit : bits) {
        std::string text = "bit " + std::to_string(__builtin_ctz(bit.first)) + ": enable " + bit.second + " info\n";
        EXPECT_NE(u.find(text), std::string::npos) << text;
    }
    std::set<std::string> listed;
    for (size_t at = u.find("--"); at != std::string::npos; at = u.find("--", at + 2)) {
        size_t end = u.find_first_not_of("abcdefghijklmnopqrstuvwxyz_0123456789", at + 2);
        if (end > at + 2)
            listed.insert(u.substr(at, end - at));
    }
    EXPECT_GE(listed.size(), 20u);
    for (const std::string& option : listed) {
        std::string out;
        // "-u 1" ends the call once the option was parsed.
        EXPECT_EQ(run_player(option + " 1 -u 1", &out, true), 0) << option;
        EXPECT_EQ(out.find("unrecognized"), std::string::npos) << option << ": " << out;
    }
}

struct OutputCase {
    std::vector<std::string> args;
    int rc;
    std::function<std::string()> expected;
};

TEST_F(Options, ResultAndOutput)
{
    const std::vector<OutputCase> cases = {
        {{"-h"}, 0, [] { return usage_text(); }},
        {{"-v"}, 0, [] { return std::string(kVersion); }},
        {{"-h", "-v"}, 0, [] { return usage_text() + kVersion; }},
        {{"-u", "2", "-h"}, 0, [] { return std::string(); }},
        {{"-u", "3", "-v"}, 0, [] { return std::string(kVersion); }},
        {{"-c", "-1", "-v"}, 0, [] { return std::string(kWarnCore) + kVersion; }},
        {{"-c", "0", "-v"}, 0, [] { return std::string(kVersion); }},
        {{"-g", "gold.txt"}, 0, [] { return usage_text(); }},
        {{"-l", "3"}, 0, [] { return usage_text(); }},
    };
    for (const OutputCase& c : cases) {
        reset_settings();
        std::string out;
        EXPECT_EQ(call_entry(c.args, &out), c.rc) << testing::PrintToString(c.args);
        EXPECT_EQ(out, c.expected()) << testing::PrintToString(c.args);
    }
}

struct SettingCase {
    std::vector<std::string> args;
    std::function<bool()> holds;
};

TEST_F(Options, StoredSettings)
{
    const std::vector<SettingCase> cases = {
        {{"-s", "5", "-h"}, [] { return sleep_time_us == 5000; }},
        {{"-s", "abc", "-h"}, [] { return sleep_time_us == 0; }},
        {{"-l", "12ms", "-h"}, [] { return loop == 12; }},
        {{"-c", "-1", "-h"}, [] { return core_id == 0; }},
        {{"-c", "11", "-h"}, [] { return core_id == 11; }},
        {{"-p", "0x11708", "-p", "1708", "-p", "ff", "-h"},
         [] {
             return pmu_events == std::vector<uint16_t> {0x1708, 0x1708, 0xff};
         }},
        {{"-h", "-f", "a.hex"}, [] { return pattern_list == std::vector<std::string> {"a.hex"}; }},
        {{"-f", "a", "-f", "b", "-g", "g1", "-h"},
         [] { return pattern_list.size() == 2 && golden_list == std::vector<std::string> {"g1"}; }},
        {{"--gen", "a", "--gen", "b", "-h"}, [] { return gen_hdr_name == "b"; }},
        {{"--gen_fw", "x.elf", "-B", "log", "-h"}, [] { return fw_elf == "x.elf" && hex2bin == "log"; }},
        {{"-b", "-1", "-o", "7", "-a", "8", "-t", "4", "-d", "5", "-h"},
         [] { return boost_value == -1 && soft_limit == 7 && hard_limit == 8 && thrd_num == 4 && debug_lv == 5; }},
        {{"--delay_off", "30", "--force_priority", "10", "-h"}, [] { return delay_off_ms == 30 && prio_lv == 10; }},
        {{"--dump_output", "--flusher", "--no_vlm", "--perf_mode", "--gen_use_dirname", "-h"},
         [] { return dump_result_data && pmu_flusher == 1 && vlm_disable && perf_mode && folder_as_name; }},
        {{"-u", "2", "-f", "late.hex"}, [] { return do_nothing && pattern_list.empty(); }},
        {{"--pattern=x.hex", "--loop", "9", "--version"}, [] { return pattern_list.size() == 1 && loop == 9; }},
        {{"-h"}, [] { return loop == 1 && debug_lv == 1 && boost_value == -2 && prio_lv == -1 && thrd_num == 1; }},
    };
    for (const SettingCase& c : cases) {
        reset_settings();
        std::string out;
        EXPECT_EQ(call_entry(c.args, &out), 0) << testing::PrintToString(c.args);
        EXPECT_TRUE(c.holds()) << testing::PrintToString(c.args);
    }
}

TEST_F(Options, SettingsPersistAcrossCalls)
{
    std::string out;
    call_entry({"-f", "a.hex", "-p", "1", "-h"}, &out);
    call_entry({"-f", "b.hex", "-p", "2"}, &out); // do_nothing from the first call still holds
    EXPECT_EQ(pattern_list, (std::vector<std::string> {"a.hex", "b.hex"}));
    EXPECT_EQ(pmu_events, (std::vector<uint16_t> {1, 2}));
    EXPECT_TRUE(out.empty());
}

struct ProcessCase {
    std::string args;
    int rc;
    std::string first_line;
};

// The executable passes on the entry point's result and output (the
// options themselves are checked in process, above); unknown options are
// reported by getopt.
TEST(PlayerExecutable, ExitCodesAndOutput)
{
    const std::vector<ProcessCase> cases = {
        {"", 1, "./qora_player [options]"},
        {"-x", 0, "./qora_player [options]"},
        {"-z -v", 0, "qora player version : " QORA_EXPECTED_VERSION},
    };
    std::string out;
    for (const ProcessCase& c : cases) {
        EXPECT_EQ(run_player(c.args, &out), c.rc) << c.args;
        EXPECT_EQ(out.substr(0, out.find('\n')), c.first_line) << c.args;
    }
    EXPECT_EQ(run_player("-z -v", &out, true), 0);
    EXPECT_NE(out.find("invalid option -- 'z'"), std::string::npos);
}

} // namespace
