// Run mode end to end: the qora_player executable plays small patterns on
// the engine model; the checks read its output, its exit code, its dump
// files and the model's call trace.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>

#include "kvx_asm.h"
#include "qora_pattern_store.h"
#include "qora_test.h"
#include "test_util.h"

namespace {

uint32_t setr(uint32_t reg)
{
    return kvx_asm_setr(reg, 1);
}
uint32_t move(uint32_t dst, uint32_t src, uint32_t len)
{
    return kvx_asm_regs(KVX_OP_MOVE, dst, src, len, 0);
}

const std::string kInput = hex_line(0x03020100, 0x07060504, 0x0b0a0908, 0x0f0e0d0c) +
                           hex_line(0x13121110, 0x17161514, 0x1b1a1918, 0x1f1e1d1c);

// Copies the 32-byte buffer at 40000000 to the output at 40009000, once per
// code buffer; with `via_vlm` through the on-chip memory.
std::string copy_pattern(int code_buffers, bool via_vlm)
{
    std::string code;
    std::string bindings;
    if (via_vlm) {
        code = hex_line(setr(0), 0, setr(1), 0) + hex_line(setr(2), 32, move(0, 1, 2), setr(3)) +
               hex_line(0, move(3, 0, 2), 0, 0);
        bindings = "// 4 @1D900000\n// 12 @40000000\n// 32 @40009000\n";
    } else {
        code = hex_line(setr(0), 0, setr(1), 0) + hex_line(setr(2), 32, move(0, 1, 2), 0);
        bindings = "// 4 @40009000\n// 12 @40000000\n";
    }
    std::string text = "// Output\n// @40009000 {32}\n// Data\n@40000000\n" + kInput + "\n// Code\n";
    for (int c = 0; c < code_buffers; c++)
        text += "@" + std::to_string(c) + "\n" + code + "\n";
    for (int c = 0; c < code_buffers; c++)
        text += "// Binding\n" + bindings;
    return text;
}

struct RunCase {
    const char* what;
    std::string env;
    std::string args;
    int rc;
    std::vector<std::string> printed;
    std::vector<std::string> traced;
    std::vector<std::string> absent; // in the output or the trace
};

class RunMode : public testing::Test {
protected:
    void SetUp() override
    {
        // Tests run in parallel: each gets a directory of its own.
        dir = make_tmp_dir(std::string("run_") + testing::UnitTest::GetInstance()->current_test_info()->name());
        write_file(dir + "/copy.hex", copy_pattern(1, false));
        write_file(dir + "/two.hex", copy_pattern(2, false));
        write_file(dir + "/vlm.hex", copy_pattern(1, true));
        write_file(dir + "/gold.hex", "@40009000\n" + kInput);
        write_file(dir + "/bad.hex", "@40009000\n" + hex_line(0x03020100, 0x07060504, 0x0b0a0908, 0x0f0e0d0c) +
                                         hex_line(0x13121110, 0x17161414, 0x1b1a1918, 0x1f1e1d1c));
    }

    void check(const RunCase& c)
    {
        std::string trace = dir + "/trace.txt";
        remove(trace.c_str());
        std::string out;
        int rc = run_player(c.args, &out, false, c.env + " KVX_MODEL_TRACE=" + trace);
        std::string calls = read_file(trace);
        EXPECT_EQ(rc, c.rc) << c.what << "\n" << out;
        for (const std::string& text : c.printed)
            EXPECT_NE(out.find(text), std::string::npos) << c.what << ": no \"" << text << "\" in\n" << out;
        for (const std::string& text : c.traced)
            EXPECT_NE(calls.find(text), std::string::npos) << c.what << ": no \"" << text << "\" in\n" << calls;
        for (const std::string& text : c.absent)
            EXPECT_EQ((out + calls).find(text), std::string::npos) << c.what << ": \"" << text << "\"";
    }

    std::string dir;
};

// Options reach the middleware calls, and the engine reads what the player
// wrote: the model's trace shows the calls, in order, and what the engine
// read from the player's buffers and parameters per sub-command.
TEST_F(RunMode, TheEngineReadsWhatThePlayerWrote)
{
    const std::string copy = "-f " + dir + "/copy.hex -g " + dir + "/gold.hex ";
    const std::vector<RunCase> cases = {
        {"a copy verifies", "", copy, 0, {"[I:BuildCmd:", "] Get pattern : run_TheEngineReadsWhatThePlayerWrote\n", "Verify pattern 1 times : success\n"},
         {"korvexCmd_run(cmd#1) = 0", "engine_run(subcmd#1, core 0, priority none, 1000 MHz) = cause 0x00, detail 0x0\n"},
         {"SC_PARAM_CORE_AFFINITY", "SC_PARAM_BOOST_VALUE", "VLM"}},
        {"several loops; data buffers invalidated after each run, before the compare", "", copy + "-l 3 -d 0", 0,
         {"Verify pattern 3 times : success\n"},
         {"korvexCmd_run(cmd#3) = 0\nkorvexSession_deleteCmd(session#1, cmd#3) = 0\n"
          "korvexSession_memInvalidate(session#1, mem#1) = 0\n"},
         {"korvexSession_memInvalidate(session#1, mem#2)"}},
        {"a thread count below 1 plays one copy of a built-in pattern", "", "-f Test -t 0", 0, {"success"},
         {"subcmd#1"}, {"subcmd#2"}},
        {"no golden", "", "-f " + dir + "/copy.hex -l 2", 0,
         {"no golden data\n", "Run pattern 2 times : done (doesn't compare golden)\n"}, {}, {}},
        {"loop 0 runs nothing", "", copy + "-l 0", 1, {}, {}, {"Run command"}},
        {"core mask cut to the engine's cores", "", copy + "-c 11", 0, {"set core mask = 3\n"},
         {"korvexSubCmd_setParam(subcmd#1, SC_PARAM_CORE_AFFINITY, 3) = 0"}, {}},
        {"boost value", "", copy + "-b 100", 0, {}, {"SC_PARAM_BOOST_VALUE, 100) = 0"}, {"TURBO"}},
        {"turbo", "", copy + "-b 101", 0, {}, {"SC_PARAM_TURBO_BOOST, 1) = 0"}, {"BOOST_VALUE"}},
        {"random boost", "", copy + "-b -1", 0, {"success"}, {"korvexSubCmd_setParam(subcmd#1, SC_PARAM_"}, {}},
        {"statistics", "", copy + "-d 4", 0,
         {"] execute   = 1[us]\n", "] ipTime    = 1[us]\n", "] execTime  = 21[us]\n", "] bandwidth = 64[MB/s]\n"},
         {}, {"ran on core"}},
        {"two code buffers are packed", "", "-f " + dir + "/two.hex -g " + dir + "/gold.hex -c 1", 0,
         {"success"},
         {"korvexSubCmd_setParam(subcmd#1, SC_PARAM_VLM_CTX, 1) = 0\n"
          "korvexSubCmd_setParam(subcmd#2, SC_PARAM_VLM_CTX, 1) = 0\n"
          "korvexCmd_setDependencyPack(cmd#1, subcmd#1, subcmd#2) = 0\n",
          "korvexSubCmd_setParam(subcmd#1, SC_PARAM_CORE_AFFINITY, 1) = 0"},
         {"subcmd#2, SC_PARAM_CORE_AFFINITY", "Fail"}},
        {"VLM obtained", "", "-f " + dir + "/vlm.hex -g " + dir + "/gold.hex", 0, {"success"},
         {"korvexSession_memAlloc(session#1, 0, 0, KORVEX_MEM_TYPE_VLM, 0) = mem#",
          "engine_run(subcmd#1, core 0, priority none, 1000 MHz, vlm_usage 1048576) = cause 0x00"},
         {"get vlm fail", "1048576, 4096, KORVEX_MEM_TYPE_DRAM"}},
        {"VLM refused: shared DRAM instead", "KVX_MODEL_NO_VLM=1", "-f " + dir + "/vlm.hex -g " + dir + "/gold.hex",
         0, {"get vlm fail!!\n", "success"}, {"1048576, 4096, KORVEX_MEM_TYPE_DRAM, 2) = mem#"}, {}},
        {"VLM disabled: the code reaches the on-chip memory without a handle", "",
         "-f " + dir + "/vlm.hex -g " + dir + "/gold.hex --no_vlm", 1, {"irq hint = 0x8007\n", "Command Fail!!"}, {},
         {"KORVEX_MEM_TYPE_VLM", "VLM_USAGE"}},
        {"PMU normal mode", "", copy + "-p 0101 -p 1001 -p 1708", 0,
         {"pmu freq = 1000000\n", "normal mode, cmd_log = 0x51000000--------\n", "evt:0x0101, cnt: 5\n",
          "evt:0x1001, cnt: 32\n", "evt:0x1708, cnt: 0\n"},
         {"korvexSession_cmdBufAlloc(session#1, 64, 1048576) = cb#"}, {}},
        {"PMU flusher mode", "", copy + "--flusher", 0, {"burst_mode = 0x2\n", "---- ip time = 0 us ----\n"},
         {"korvexSession_cmdBufAlloc(session#1, 983040, 1048576) = cb#7\n",
          "korvexSubCmd_addCmdBuf(subcmd#1, cb#7, KORVEX_CB_OUT) = 0\n",
          "engine_run(subcmd#1, core 0, priority none, 1000 MHz) = cause 0x00"},
         {}},
        {"PMU flusher mode: one record per flow", "", "-f Test --flusher -p 0103", 0,
         {"] ---- flow id = 0000 (cmd_log = 0x51000001), time = 61 us ----\n", "] evt:0x0103, cnt: 1\n",
          "] ---- ip time = 61 us ----\n"},
         {},
         {"flow id = 0001"}},
        {"13 PMU events are counted", "",
         copy + "-p 1 -p 2 -p 3 -p 4 -p 5 -p 6 -p 7 -p 8 -p 9 -p a -p b -p c -p 101", 0,
         {"evt:0x000c, cnt: 0\n", "evt:0x0101, cnt: 5\n", "success"}, {"cb#7"}, {"Warning"}},
        {"14 PMU events are refused", "",
         copy + "-p 1 -p 2 -p 3 -p 4 -p 5 -p 6 -p 7 -p 8 -p 9 -p a -p b -p c -p d -p e", 1,
         {"Warning: The number of PMU events > 14\n"}, {"korvexSubCmd_addCmdBuf(subcmd#1, null, KORVEX_CB_IN) = -1"},
         {"Run command", "Verify", "[E:"}}, // the warning is the last line
        {"priority 13 is 5", "", copy + "--force_priority 13", 0, {"set priority = 5\n", "success"},
         {"engine_run(subcmd#1, core 0, priority 5, 1000 MHz) = cause 0x00"}, {}},
        {"priority 8 is 0", "", copy + "--force_priority 8", 0, {"success"},
         {"engine_run(subcmd#1, core 0, priority 0, 1000 MHz) = cause 0x00"}, {}},
        {"command parameters", "", copy + "-b 50 -o 7 -a 9000 --delay_off 5 --perf_mode", 0, {"success"},
         {"engine_run(subcmd#1, core 0, priority none, 800 MHz, soft_limit 7, hard_limit 9000, power_policy 2, "
          "delay_off 5) = cause 0x00"},
         {"Fail"}},
        {"packed sub-commands share a VLM context", "", "-f " + dir + "/two.hex -g " + dir + "/gold.hex", 0,
         {"success"},
         {"engine_run(subcmd#1, core 0, priority none, 1000 MHz, vlm_ctx 1) = cause 0x00",
          "engine_run(subcmd#2, core 1, priority none, 1000 MHz, vlm_ctx 1) = cause 0x00"},
         {}},
        {"high DRAM for every buffer", "", copy + "-d 2", 0, {"] 40000000\n: dev va = 0x80000000 sz = 32\n"},
         {"korvexSession_memAlloc(session#1, 32, 4096, KORVEX_MEM_TYPE_DRAM, 2) = mem#"}, {}},
    };
    for (const RunCase& c : cases)
        check(c);
}

TEST_F(RunMode, MismatchReportAndDump)
{
    std::string out;
    std::string args = "-f " + dir + "/copy.hex -g " + dir + "/bad.hex --dump_output";
    EXPECT_EQ(run_player("-l 5 " + args, &out, false, "-C " + dir), 1);
    EXPECT_NE(out.find("]   5: output = 17161514, golden = 17161414, mask = ffffffff\n"), std::string::npos) << out;
    EXPECT_NE(out.find("] QORA loop 0 !! Compare golden Fail !!\n"), std::string::npos);
    EXPECT_EQ(out.find("error"), std::string::npos) << "the dump was written and closed";
    EXPECT_EQ(out.find("Run command", out.find("Compare golden Fail")), std::string::npos); // the loop stops
    std::string copied;
    for (int i = 0; i < 32; i++)
        copied += (char)i;
    EXPECT_EQ(read_file(dir + "/output0_0.bin"), copied); // what the engine wrote, not the golden
}

TEST_F(RunMode, MiddlewareFailures)
{
    const std::string copy = "-f " + dir + "/copy.hex -g " + dir + "/gold.hex -b 100 --delay_off 3 ";
    auto fail = [](const char* op_n) { return std::string("KVX_MODEL_FAIL=") + op_n; };
    const std::vector<RunCase> cases = {
        {"no session", fail("korvexSession_createInstance:1"), copy, 1, {"] No korvex session!\n"}, {}, {}},
        {"no cores", "KVX_MODEL_CORES=0", copy, 1, {"] no qora device registered!\n"}, {}, {}},
        {"data buffer", fail("korvexSession_memAlloc:1"), copy, 1, {"] alloc 40000000\n FAIL\n"}, {}, {}},
        {"output buffer", fail("korvexSession_memAlloc:2"), copy, 1, {"] alloc output_buf 0 FAIL\n"}, {}, {}},
        {"information record", fail("korvexSession_cmdBufAlloc:1"), copy, 1,
         {"alloc command buffer (command information) fail\n"}, {}, {}},
        {"result record", fail("korvexSession_cmdBufAlloc:2"), copy, 1, {"alloc command buffer (command result) fail\n"},
         {}, {}},
        {"player record", fail("korvexSession_cmdBufAlloc:3"), copy, 1,
         {"alloc command buffer (player information) fail\n"}, {}, {}},
        {"code buffer", fail("korvexSession_cmdBufAlloc:4"), copy, 1, {"alloc command buffer (codebuf) fail\n"}, {}, {}},
        {"PMU buffer", fail("korvexSession_cmdBufAlloc:5"), copy + "-p 101", 0,
         {"alloc command buffer (pmu) fail\n", "success"}, {}, {"pmu freq"}},
        {"PMU result buffers: PMU off", fail("korvexSession_cmdBufAlloc:6"), copy + "-p 101", 0,
         {"alloc command buffer (pmu_res/buf) fail\n", "success"}, {}, {"pmu freq"}},
        {"command", fail("korvexSession_createCmd:1"), copy, 1, {"] Create korvex command FAIL!"}, {}, {}},
        {"command parameter", fail("korvexCmd_setParam:1"), copy, 0, {"setParam delay power off: Fail\n", "success"}, {}, {}},
        {"sub-command", fail("korvexCmd_createSubcmd:1"), copy, 1, {}, {"korvexSession_deleteCmd(session#1, cmd#1) = 0"}, {}},
        {"attach", fail("korvexSubCmd_addCmdBuf:2"), copy, 1, {}, {"korvexSession_deleteCmd(session#1, cmd#1) = 0"}, {}},
        {"boost", fail("korvexSubCmd_setParam:1"), copy, 0, {"setParam boost value: Fail\n", "success"}, {}, {}},
        {"build", fail("korvexCmd_build:1"), copy, 1, {}, {"korvexSession_deleteCmd(session#1, cmd#1) = 0"},
         {"Run command"}},
        {"run", fail("korvexCmd_run:1"), copy, 1, {"] Command Fail!! (-1)\n"}, {}, {}},
        {"invalidate", fail("korvexSession_memInvalidate:1"), copy, 0,
         {"] invalidate data buffer idx0: Fail\n", "success"}, {}, {}},
    };
    for (const RunCase& c : cases)
        check(c);
}

TEST_F(RunMode, BuiltInPatterns)
{
    const std::vector<RunCase> cases = {
        {"Test", "", "-f Test", 0, {"] Get pattern : conv2d_uint8\n", "Verify pattern 1 times : success\n"},
         {"korvexSession_cmdBufAlloc(session#1, 320, 256) = cb#4"}, {}},
        {"MaxPower, twice: its masked cycle counter differs", "", "-f MaxPower -l 2", 0,
         {"] Get pattern : max_pwr4_pi\n", "Verify pattern 2 times : success\n"}, {}, {}},
        {"four code buffers on a core mask", "", "-f Test -t 4 -c 3 -l 2", 0, {"Verify pattern 2 times : success\n"},
         {"korvexCmd_setDependencyPack(cmd#1, subcmd#1, subcmd#4) = 0",
          "korvexSubCmd_setParam(subcmd#2, SC_PARAM_CORE_AFFINITY, 3) = 0"},
         {"subcmd#3, SC_PARAM_CORE_AFFINITY"}},
        {"a reserved name ends the lists", "", "-f Test -f missing.hex -g missing.bin", 0, {"success"}, {},
         {"open file"}},
        {"names are case-sensitive", "", "-f test", 1, {"Pattern file type: Fail\n"}, {}, {"Run command"}},
    };
    for (const RunCase& c : cases)
        check(c);
}

// The built-in workloads' sources, checked against a corrupted golden: one
// changed byte is reported.
TEST_F(RunMode, CorruptedBuiltInGoldenFails)
{
    std::string out;
    ASSERT_EQ(system((std::string(QORA_AUTHOR_CMD) + " " + dir).c_str()), 0);
    std::string golden = read_file(dir + "/conv2d_uint8/golden.bin");
    golden[1000] = (char)(golden[1000] ^ 1);
    write_file(dir + "/bad.bin", golden);
    EXPECT_EQ(run_player("-f " + dir + "/conv2d_uint8/pattern.hex -g " + dir + "/bad.bin", &out), 1);
    EXPECT_NE(out.find("] index = 250, outout = "), std::string::npos) << out;
    EXPECT_EQ(run_player("-f " + dir + "/conv2d_uint8/pattern.hex -g " + dir + "/conv2d_uint8/golden.bin", &out), 0);
}

// Fails every middleware call of one run in turn, the first, second, ... call
// of each operation: the player must end with 0 or 1 (never a crash or a
// sanitizer report), and with the result each operation's failure calls for.
TEST_F(RunMode, FaultSweep)
{
    const std::string args = "-f " + dir + "/two.hex -g " + dir + "/gold.hex -b 100 --delay_off 3 -p 101 -d 4 -l 2";
    std::string trace = dir + "/sweep.txt";
    std::string out;
    ASSERT_EQ(run_player(args, &out, false, "KVX_MODEL_TRACE=" + trace), 0) << out;
    std::map<std::string, int> calls;
    std::istringstream lines(read_file(trace));
    for (std::string l; std::getline(lines, l);)
        calls[l.substr(0, l.find('('))]++;
    // Operations whose failure always ends the run, and those only warned about.
    const std::map<std::string, int> result = {
        {"korvexSession_createInstance", 1}, {"korvexSession_memAlloc", 1},
        {"korvexSession_createCmd", 1},      {"korvexCmd_createSubcmd", 1},       {"korvexSubCmd_addCmdBuf", 1},
        {"korvexCmd_build", 1},              {"korvexCmd_run", 1},                {"korvexCmd_setParam", 0},
        {"korvexSubCmd_setParam", 0},        {"korvexSubCmd_getRunInfo", 0},      {"korvexSession_memInvalidate", 0},
        {"korvexSession_deleteCmd", 0},      {"korvexSession_memFree", 0},        {"korvexSession_cmdBufFree", 0},
        {"korvexSession_deleteInstance", 0}, {"korvexCmd_setDependencyPack", 0},
    };
    int runs = 0;
    for (const auto& op : calls) {
        for (int n = 1; n <= op.second; n++, runs++) {
            std::string what = op.first + ":" + std::to_string(n);
            int rc = run_player(args, &out, false, "KVX_MODEL_FAIL=" + what);
            EXPECT_TRUE(rc == 0 || rc == 1) << what << " ended with " << rc;
            auto expected = result.find(op.first);
            if (expected != result.end()) {
                EXPECT_EQ(rc, expected->second) << what << "\n" << out;
            }
        }
    }
    EXPECT_GT(runs, 60);
}

// The remaining warnings and verdicts, each from the situation that causes it.
TEST_F(RunMode, WarningsAndVerdicts)
{
    // Code that finishes flow 7, then meets an unknown opcode.
    write_file(dir + "/fault.hex", "// Output\n// @40009000 {32}\n// Data\n@40000000\n" + kInput +
                                       "\n// Code\n@0\n" + hex_line(0x070108, 0x1F7, 0, 0) + "\n");
    write_file(dir + "/no_out.hex", "@40000000\n" + kInput + "\n");
    write_file(dir + "/no_data.hex", "// Output\n// @40009000 {32}\n// Code\n@0\n" + hex_line(0, 0, 0, 0) + "\n");
    write_file(dir + "/short.bin", std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16));
    write_file(dir + "/gold2.hex", "@40009000\n" + kInput + "@40009000\n" + kInput);
    write_file(dir + "/two_out.hex", copy_pattern(1, false) + "// Output\n// @4000A000 {32}\n");
    write_file(dir + "/gold_b.hex", "@4000A000\n" + kInput);
    write_file(dir + "/half.hex", "@40009000\n" + kInput.substr(0, kInput.find('\n') + 1));
    write_file(dir + "/past.hex", copy_pattern(1, false) + "// 4099 @40009000\n");
    write_file(dir + "/last.hex", copy_pattern(1, false) + "// 28 @40009000\n");
    const std::string copy = "-f " + dir + "/copy.hex -g " + dir + "/gold.hex ";
    const std::string vlm = "-f " + dir + "/vlm.hex -g " + dir + "/gold.hex ";
    const std::string two = "-f " + dir + "/two.hex -g " + dir + "/gold.hex ";
    auto fail = [](const char* op_n) { return std::string("KVX_MODEL_FAIL=") + op_n; };
    const std::vector<RunCase> cases = {
        {"a faulting code", "", "-f " + dir + "/fault.hex -d 5", 1,
         {"] res: core0, last finished flow id = 7 (abort/halt?)\n", "] res: core0, irq hint = 0x8001\n",
          "] execute   = ", "] ran on core0\n", "] Command Fail!! (-1)\n"},
         {}, {}},
        {"no output declared", "", "-f " + dir + "/no_out.hex", 1, {"] Pattern has no output information\n"}, {}, {}},
        {"no data buffer: nothing is built", "", "-f " + dir + "/no_data.hex", 1, {}, {}, {"Get pattern", "korvexCmd"}},
        {"a short golden", "", "-f " + dir + "/copy.hex -g " + dir + "/short.bin", 0,
         {"] golde size(0x10) != output size(0x20)\n", "success"}, {}, {}},
        {"a text golden shorter than its output checks what it holds", "",
         "-f " + dir + "/copy.hex -g " + dir + "/half.hex", 0, {"success"}, {}, {"golde size"}},
        {"more golden regions than outputs", "", "-f " + dir + "/copy.hex -g " + dir + "/gold2.hex", 0,
         {"] golden number(2) dismatch (output num = 1)\n", "Run pattern 1 times : done (doesn't compare golden)"}, {}, {}},
        {"the first of two outputs fails", "", "-f " + dir + "/two_out.hex -g " + dir + "/bad.hex -g " + dir + "/gold_b.hex",
         1, {"] output-0 fail\n", "] output-1 fail\n"}, {}, {}},
        {"VLM usage refused: the code reaches past it", fail("korvexSubCmd_setParam:1"), vlm, 1,
         {"] setParam VLM usage: Fail\n", "irq hint = 0x8008\n"}, {}, {}},
        {"turbo refused", fail("korvexSubCmd_setParam:1"), copy + "-b 120", 0, {"] setParam turbo boost: Fail\n"}, {}, {}},
        {"affinity refused", fail("korvexSubCmd_setParam:1"), copy + "-c 1", 0, {"] setParam core affinity: Fail\n"}, {}, {}},
        {"soft limit refused", fail("korvexCmd_setParam:1"), copy + "-o 5", 0, {"] setParam soft limit: Fail\n"}, {}, {}},
        {"hard limit refused", fail("korvexCmd_setParam:1"), copy + "-a 5", 0, {"] setParam hard limit: Fail\n"}, {}, {}},
        {"performance mode refused", fail("korvexCmd_setParam:1"), copy + "--perf_mode", 0,
         {"] setParam performance mode: Fail\n"}, {}, {}},
        {"VLM context and pack refused", fail("korvexSubCmd_setParam:2,korvexCmd_setDependencyPack:1"), two, 0,
         {"] setParam SC_PARAM_VLM_CTX: Fail\n", "] setDependencyPack : Fail\n"}, {}, {}},
        {"no shared memory either: the code reaches the on-chip memory without a handle",
         "KVX_MODEL_NO_VLM=1 " + fail("korvexSession_memAlloc:4"), vlm, 1,
         {"] get vlm fail!!\n", "] alloc share mem FAIL\n", "irq hint = 0x8007\n"}, {}, {"VLM_USAGE"}},
        {"a binding past the code is not written", "", "-f " + dir + "/past.hex -g " + dir + "/gold.hex", 0,
         {"] codebuf 0: binding ofs 0x1003 outside code size 0x20\n", "success"}, {}, {}},
        {"a binding on the code's last word is written", "", "-f " + dir + "/last.hex -d 2", 0,
         {"codebuf ofs 0x1c = 0x"}, {}, {"outside code size"}},
        {"the dump cannot be written", "-C " + dir, "-f " + dir + "/copy.hex -g " + dir + "/bad.hex --dump_output", 1,
         {"] open file(output0_0.bin) error\n"}, {}, {}},
    };
    // The dump goes to the working directory: make it unwritable there.
    (void)!system(("mkdir -p '" + dir + "/output0_0.bin'").c_str());
    for (const RunCase& c : cases)
        check(c);
}

// Drops, one at a time, each flush the player makes before its first run.
// A buffer whose only flush is dropped holds host bytes the engine never
// saw: the run must be refused. The player writes no buffer between its
// flushes, so a buffer flushed twice survives one dropped flush.
TEST_F(RunMode, EveryFlushBeforeARunCounts)
{
    const std::vector<std::pair<std::string, std::string>> runs = {
        {"", "-f " + dir + "/two.hex -g " + dir + "/gold.hex -p 101"},
        {"KVX_MODEL_NO_VLM=1", "-f " + dir + "/vlm.hex -g " + dir + "/gold.hex --flusher"},
    };
    int dropped = 0;
    for (const auto& run : runs) {
        std::string trace = dir + "/flushes.txt";
        std::string out;
        remove(trace.c_str());
        ASSERT_EQ(run_player(run.second, &out, false, run.first + " KVX_MODEL_TRACE=" + trace), 0) << out;
        std::istringstream lines(read_file(trace));
        std::vector<std::string> flushed; // buffer of each flush, in order
        for (std::string l; std::getline(lines, l) && l.find("korvexCmd_run") != 0;)
            if (l.find("korvexSession_memFlush(") == 0)
                flushed.push_back(l.substr(l.find(", ") + 2, l.find(')') - l.find(", ") - 2));
        for (size_t n = 0; n < flushed.size(); n++) {
            if (flushed[n] == "null")
                continue;
            bool flushed_again = std::count(flushed.begin(), flushed.end(), flushed[n]) > 1;
            std::string what = run.second + ": flush " + std::to_string(n + 1) + " of " + flushed[n];
            int rc = run_player(run.second, &out, false,
                                run.first + " KVX_MODEL_DROP=korvexSession_memFlush:" + std::to_string(n + 1));
            EXPECT_EQ(rc, flushed_again ? 0 : 1) << what << "\n" << out;
            EXPECT_EQ(out.find("irq hint = 0x8030\n") != std::string::npos, !flushed_again) << what << "\n" << out;
            dropped++;
        }
    }
    EXPECT_GT(dropped, 20);
}

// A code buffer whose block could not grow, or not be allocated at all, is
// played with the bytes it holds; nothing reads past them (the sanitizer
// builds fail the child otherwise).
TEST_F(RunMode, LoadAllocationFailuresPlayWhatWasLoaded)
{
    std::string padded = copy_pattern(1, false);
    std::string end_lines;
    for (int i = 0; i < 1100; i++) // 17600 code bytes: the first block must grow once
        end_lines += hex_line(0, 0, 0, 0);
    padded.insert(padded.find("\n// Binding"), end_lines);
    write_file(dir + "/padded.hex", padded);
    struct Case {
        const char* what;
        std::string pattern;
        bool fail_growth;
        int fail_block; // which block allocation fails (1 = first), 0 none
        std::string result;
        std::string printed;
    };
    const std::vector<Case> cases = {
        {"growth fails", dir + "/padded.hex", true, 0, "0", "Realloc Fail!!\n"},
        {"the code block fails", dir + "/copy.hex", false, 2, "1", "Allocate memory FAIL\n"},
    };
    for (const Case& c : cases) {
        static int blocks; // blocks handed out so far, in the child
        static int failing;
        isolated_result r = run_isolated([&] {
            reset_settings();
            failing = c.fail_block;
            if (c.fail_growth)
                pattern_realloc = [](void*, size_t) -> void* { return nullptr; };
            pattern_malloc = [](size_t n) -> void* { return ++blocks == failing ? nullptr : malloc(n); };
            std::string out;
            int rc = call_entry({"-f", c.pattern, "-g", dir + "/gold.hex"}, &out);
            printf("%s", out.c_str());
            return std::to_string(rc);
        });
        EXPECT_EQ(r.result, c.result) << c.what << "\n" << r.out;
        EXPECT_NE(r.out.find(c.printed), std::string::npos) << c.what << "\n" << r.out;
    }
}

} // namespace
