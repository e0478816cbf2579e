// Run mode end to end: the qora_player executable plays small patterns on
// the engine model; the checks read its output, its exit code, its dump
// files and the model's call trace.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <sstream>

#include "kvx_asm.h"
#include "qora_pattern_internal.h"
#include "qora_test.h"
#include "test_util.h"

namespace
{

uint32_t setr(uint32_t reg)
{
    return kvx_asm_setr(reg, 1);
}
uint32_t move(uint32_t dst, uint32_t src, uint32_t len)
{
    return kvx_asm_regs(KVX_OP_MOVE, dst, src, len, 0);
}

const std::string kInput =
    hex_line(0x03020100, 0x07060504, 0x0b0a0908, 0x0f0e0d0c) + hex_line(0x13121110, 0x17161514, 0x1b1a1918, 0x1f1e1d1c);

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

// One run of the player and what it must show. Paths name "$D", the test's
// own directory, and "$N", that directory's name; the chained setters keep
// each row readable without padding fields it does not use.
struct RunCase {
    std::string what;
    std::string args;
    int rc;
    std::string env;
    std::vector<std::string> printed;
    std::vector<std::string> traced;
    std::vector<std::string> absent; // in the output or the trace

    RunCase& with(std::string settings)
    {
        env = std::move(settings);
        return *this;
    }
    RunCase& prints(std::vector<std::string> texts)
    {
        printed = std::move(texts);
        return *this;
    }
    RunCase& traces(std::vector<std::string> texts)
    {
        traced = std::move(texts);
        return *this;
    }
    RunCase& lacks(std::vector<std::string> texts)
    {
        absent = std::move(texts);
        return *this;
    }
};

// Test listings name a case by its description.
void PrintTo(const RunCase& c, std::ostream* os)
{
    *os << c.what;
}

RunCase play(const char* what, std::string args, int rc)
{
    return RunCase {what, std::move(args), rc, {}, {}, {}, {}};
}

std::string replace_all(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

// A case's name for the test filter: its description with every run of
// other characters turned into one '_'.
std::string case_name(const testing::TestParamInfo<RunCase>& info)
{
    std::string name;
    for (char ch : info.param.what) {
        if (isalnum((unsigned char)ch))
            name += ch;
        else if (!name.empty() && name.back() != '_')
            name += '_';
    }
    return name;
}

class RunMode : public testing::Test
{
protected:
    void SetUp() override
    {
        // Tests run in parallel: each gets a directory of its own.
        const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
        name = replace_all(std::string("run_") + test->name(), "/", ".");
        dir = make_tmp_dir(name);
        write_file(dir + "/copy.hex", copy_pattern(1, false));
        write_file(dir + "/two.hex", copy_pattern(2, false));
        write_file(dir + "/vlm.hex", copy_pattern(1, true));
        write_file(dir + "/gold.hex", "@40009000\n" + kInput);
        write_file(dir + "/bad.hex",
                   "@40009000\n" + hex_line(0x03020100, 0x07060504, 0x0b0a0908, 0x0f0e0d0c) +
                       hex_line(0x13121110, 0x17161414, 0x1b1a1918, 0x1f1e1d1c));
        // Code that finishes flow 7, then meets an unknown opcode.
        write_file(dir + "/fault.hex",
                   "// Output\n// @40009000 {32}\n// Data\n@40000000\n" + kInput + "\n// Code\n@0\n" +
                       hex_line(0x070108, 0x1F7, 0, 0) + "\n");
        write_file(dir + "/no_out.hex", "@40000000\n" + kInput + "\n");
        write_file(dir + "/no_data.hex", "// Output\n// @40009000 {32}\n// Code\n@0\n" + hex_line(0, 0, 0, 0) + "\n");
        write_file(dir + "/short.bin",
                   std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16));
        write_file(dir + "/gold2.hex", "@40009000\n" + kInput + "@40009000\n" + kInput);
        write_file(dir + "/two_out.hex", copy_pattern(1, false) + "// Output\n// @4000A000 {32}\n");
        write_file(dir + "/gold_b.hex", "@4000A000\n" + kInput);
        write_file(dir + "/half.hex", "@40009000\n" + kInput.substr(0, kInput.find('\n') + 1));
        write_file(dir + "/past.hex", copy_pattern(1, false) + "// 4099 @40009000\n");
        write_file(dir + "/last.hex", copy_pattern(1, false) + "// 28 @40009000\n");
        // A working directory where the first dump's name is taken by a directory.
        (void)!system(("mkdir -p '" + dir + "/ro/output0_0.bin'").c_str());
    }

    std::string in_dir(const std::string& text) const { return replace_all(replace_all(text, "$D", dir), "$N", name); }

    void check(const RunCase& c)
    {
        std::string trace = dir + "/trace.txt";
        remove(trace.c_str());
        std::string out;
        int rc = run_player(in_dir(c.args), &out, false, in_dir(c.env) + " KVX_MODEL_TRACE=" + trace);
        std::string calls = read_file(trace);
        EXPECT_EQ(rc, c.rc) << out;
        for (const std::string& text : c.printed)
            EXPECT_NE(out.find(in_dir(text)), std::string::npos) << "no \"" << in_dir(text) << "\" in\n" << out;
        for (const std::string& text : c.traced)
            EXPECT_NE(calls.find(text), std::string::npos) << "no \"" << text << "\" in\n" << calls;
        for (const std::string& text : c.absent)
            EXPECT_EQ((out + calls).find(text), std::string::npos) << "\"" << text << "\"";
    }

    std::string name;
    std::string dir;
};

class RunTable : public RunMode, public testing::WithParamInterface<RunCase>
{
};

TEST_P(RunTable, Plays)
{
    check(GetParam());
}

const std::string kCopy = "-f $D/copy.hex -g $D/gold.hex ";
const std::string kTwo = "-f $D/two.hex -g $D/gold.hex ";
const std::string kVlm = "-f $D/vlm.hex -g $D/gold.hex ";

std::string fail(const char* op_n)
{
    return std::string("KVX_MODEL_FAIL=") + op_n;
}

// Options reach the middleware calls, and the engine reads what the player
// wrote: the model's trace shows the calls, in order, and what the engine
// read from the player's buffers and parameters per sub-command.
INSTANTIATE_TEST_SUITE_P(
    Options, RunTable,
    testing::Values(
        play("a copy verifies", kCopy, 0)
            .prints({"[I:BuildCmd:", "] Get pattern : $N\n", "Verify pattern 1 times : success\n"})
            .traces({"korvexCmd_run(cmd#1) = 0",
                     "engine_run(subcmd#1, core 0, priority none, 1000 MHz) = cause 0x00, detail 0x0\n"})
            .lacks({"SC_PARAM_CORE_AFFINITY", "SC_PARAM_BOOST_VALUE", "VLM"}),
        play("several loops; data buffers invalidated after each run, before the compare", kCopy + "-l 3 -d 0", 0)
            .prints({"Verify pattern 3 times : success\n"})
            .traces({"korvexCmd_run(cmd#3) = 0\nkorvexSession_deleteCmd(session#1, cmd#3) = 0\n"
                     "korvexSession_memInvalidate(session#1, mem#1) = 0\n"})
            .lacks({"korvexSession_memInvalidate(session#1, mem#2)"}),
        play("a thread count below 1 plays one copy of a built-in pattern", "-f Test -t 0", 0)
            .prints({"success"})
            .traces({"subcmd#1"})
            .lacks({"subcmd#2"}),
        play("no golden", "-f $D/copy.hex -l 2", 0)
            .prints({"no golden data\n", "Run pattern 2 times : done (doesn't compare golden)\n"}),
        play("loop 0 runs nothing", kCopy + "-l 0", 1).lacks({"Run command"}),
        play("core mask cut to the engine's cores", kCopy + "-c 11", 0)
            .prints({"set core mask = 3\n"})
            .traces({"korvexSubCmd_setParam(subcmd#1, SC_PARAM_CORE_AFFINITY, 3) = 0"}),
        play("boost value", kCopy + "-b 100", 0).traces({"SC_PARAM_BOOST_VALUE, 100) = 0"}).lacks({"TURBO"}),
        play("turbo", kCopy + "-b 101", 0).traces({"SC_PARAM_TURBO_BOOST, 1) = 0"}).lacks({"BOOST_VALUE"}),
        play("random boost", kCopy + "-b -1", 0)
            .prints({"success"})
            .traces({"korvexSubCmd_setParam(subcmd#1, SC_PARAM_"}),
        play("statistics", kCopy + "-d 4", 0)
            .prints({"] execute   = 1[us]\n", "] ipTime    = 1[us]\n", "] execTime  = 21[us]\n",
                     "] bandwidth = 64[MB/s]\n"})
            .lacks({"ran on core"}),
        play("two code buffers are packed", kTwo + "-c 1", 0)
            .prints({"success"})
            .traces({"korvexSubCmd_setParam(subcmd#1, SC_PARAM_VLM_CTX, 1) = 0\n"
                     "korvexSubCmd_setParam(subcmd#2, SC_PARAM_VLM_CTX, 1) = 0\n"
                     "korvexCmd_setDependencyPack(cmd#1, subcmd#1, subcmd#2) = 0\n",
                     "korvexSubCmd_setParam(subcmd#1, SC_PARAM_CORE_AFFINITY, 1) = 0"})
            .lacks({"subcmd#2, SC_PARAM_CORE_AFFINITY", "Fail"}),
        play("VLM obtained", kVlm, 0)
            .prints({"success"})
            .traces({"korvexSession_memAlloc(session#1, 0, 0, KORVEX_MEM_TYPE_VLM, 0) = mem#",
                     "engine_run(subcmd#1, core 0, priority none, 1000 MHz, vlm_usage 1048576) = cause 0x00"})
            .lacks({"get vlm fail", "1048576, 4096, KORVEX_MEM_TYPE_DRAM"}),
        play("VLM refused: shared DRAM instead", kVlm, 0)
            .with("KVX_MODEL_NO_VLM=1")
            .prints({"get vlm fail!!\n", "success"})
            .traces({"1048576, 4096, KORVEX_MEM_TYPE_DRAM, 2) = mem#"}),
        play("VLM disabled: the code reaches the on-chip memory without a handle", kVlm + "--no_vlm", 1)
            .prints({"irq hint = 0x8007\n", "Command Fail!!"})
            .lacks({"KORVEX_MEM_TYPE_VLM", "VLM_USAGE"}),
        play("PMU normal mode", kCopy + "-p 0101 -p 1001 -p 1708", 0)
            .prints({"pmu freq = 1000000\n", "normal mode, cmd_log = 0x51000000--------\n", "evt:0x0101, cnt: 5\n",
                     "evt:0x1001, cnt: 32\n", "evt:0x1708, cnt: 0\n"})
            .traces({"korvexSession_cmdBufAlloc(session#1, 64, 1048576) = cb#"}),
        play("PMU flusher mode", kCopy + "--flusher", 0)
            .prints({"burst_mode = 0x2\n", "---- ip time = 0 us ----\n"})
            .traces({"korvexSession_cmdBufAlloc(session#1, 983040, 1048576) = cb#7\n",
                     "korvexSubCmd_addCmdBuf(subcmd#1, cb#7, KORVEX_CB_OUT) = 0\n",
                     "engine_run(subcmd#1, core 0, priority none, 1000 MHz) = cause 0x00"}),
        play("PMU flusher mode: one record per flow", "-f Test --flusher -p 0103", 0)
            .prints({"] ---- flow id = 0000 (cmd_log = 0x51000001), time = 61 us ----\n", "] evt:0x0103, cnt: 1\n",
                     "] ---- ip time = 61 us ----\n"})
            .lacks({"flow id = 0001"}),
        play("13 PMU events are counted", kCopy + "-p 1 -p 2 -p 3 -p 4 -p 5 -p 6 -p 7 -p 8 -p 9 -p a -p b -p c -p 101",
             0)
            .prints({"evt:0x000c, cnt: 0\n", "evt:0x0101, cnt: 5\n", "success"})
            .traces({"cb#7"})
            .lacks({"Warning"}),
        play("14 PMU events are refused",
             kCopy + "-p 1 -p 2 -p 3 -p 4 -p 5 -p 6 -p 7 -p 8 -p 9 -p a -p b -p c -p d -p e", 1)
            .prints({"Warning: The number of PMU events > 14\n"})
            .traces({"korvexSubCmd_addCmdBuf(subcmd#1, null, KORVEX_CB_IN) = -1"})
            .lacks({"Run command", "Verify", "[E:"}), // the warning is the last line
        play("priority 13 is 5", kCopy + "--force_priority 13", 0)
            .prints({"set priority = 5\n", "success"})
            .traces({"engine_run(subcmd#1, core 0, priority 5, 1000 MHz) = cause 0x00"}),
        play("priority 8 is 0", kCopy + "--force_priority 8", 0)
            .prints({"success"})
            .traces({"engine_run(subcmd#1, core 0, priority 0, 1000 MHz) = cause 0x00"}),
        play("command parameters", kCopy + "-b 50 -o 7 -a 9000 --delay_off 5 --perf_mode", 0)
            .prints({"success"})
            .traces({"engine_run(subcmd#1, core 0, priority none, 800 MHz, soft_limit 7, hard_limit 9000, "
                     "power_policy 2, delay_off 5) = cause 0x00"})
            .lacks({"Fail"}),
        play("packed sub-commands share a VLM context", kTwo, 0)
            .prints({"success"})
            .traces({"engine_run(subcmd#1, core 0, priority none, 1000 MHz, vlm_ctx 1) = cause 0x00",
                     "engine_run(subcmd#2, core 1, priority none, 1000 MHz, vlm_ctx 1) = cause 0x00"}),
        play("high DRAM for every buffer", kCopy + "-d 2", 0)
            .prints({"] 40000000\n: dev va = 0x80000000 sz = 32\n"})
            .traces({"korvexSession_memAlloc(session#1, 32, 4096, KORVEX_MEM_TYPE_DRAM, 2) = mem#"})),
    case_name);

// Each middleware call the player makes, refused once: the run ends or goes
// on as that call's failure calls for.
const std::string kCopyBoost = kCopy + "-b 100 --delay_off 3 ";
INSTANTIATE_TEST_SUITE_P(
    MiddlewareFailures, RunTable,
    testing::Values(
        play("no session", kCopyBoost, 1)
            .with(fail("korvexSession_createInstance:1"))
            .prints({"] No korvex session!\n"}),
        play("no cores", kCopyBoost, 1).with("KVX_MODEL_CORES=0").prints({"] no qora device registered!\n"}),
        play("data buffer", kCopyBoost, 1).with(fail("korvexSession_memAlloc:1")).prints({"] alloc 40000000\n FAIL\n"}),
        play("output buffer", kCopyBoost, 1)
            .with(fail("korvexSession_memAlloc:2"))
            .prints({"] alloc output_buf 0 FAIL\n"}),
        play("information record", kCopyBoost, 1)
            .with(fail("korvexSession_cmdBufAlloc:1"))
            .prints({"alloc command buffer (command information) fail\n"}),
        play("result record", kCopyBoost, 1)
            .with(fail("korvexSession_cmdBufAlloc:2"))
            .prints({"alloc command buffer (command result) fail\n"}),
        play("player record", kCopyBoost, 1)
            .with(fail("korvexSession_cmdBufAlloc:3"))
            .prints({"alloc command buffer (player information) fail\n"}),
        play("code buffer", kCopyBoost, 1)
            .with(fail("korvexSession_cmdBufAlloc:4"))
            .prints({"alloc command buffer (codebuf) fail\n"}),
        play("PMU buffer", kCopyBoost + "-p 101", 0)
            .with(fail("korvexSession_cmdBufAlloc:5"))
            .prints({"alloc command buffer (pmu) fail\n", "success"})
            .lacks({"pmu freq"}),
        play("PMU result buffers: PMU off", kCopyBoost + "-p 101", 0)
            .with(fail("korvexSession_cmdBufAlloc:6"))
            .prints({"alloc command buffer (pmu_res/buf) fail\n", "success"})
            .lacks({"pmu freq"}),
        play("command", kCopyBoost, 1)
            .with(fail("korvexSession_createCmd:1"))
            .prints({"] Create korvex command FAIL!"}),
        play("command parameter", kCopyBoost, 0)
            .with(fail("korvexCmd_setParam:1"))
            .prints({"setParam delay power off: Fail\n", "success"}),
        play("sub-command", kCopyBoost, 1)
            .with(fail("korvexCmd_createSubcmd:1"))
            .traces({"korvexSession_deleteCmd(session#1, cmd#1) = 0"}),
        play("attach", kCopyBoost, 1)
            .with(fail("korvexSubCmd_addCmdBuf:2"))
            .traces({"korvexSession_deleteCmd(session#1, cmd#1) = 0"}),
        play("boost", kCopyBoost, 0)
            .with(fail("korvexSubCmd_setParam:1"))
            .prints({"setParam boost value: Fail\n", "success"}),
        play("build", kCopyBoost, 1)
            .with(fail("korvexCmd_build:1"))
            .traces({"korvexSession_deleteCmd(session#1, cmd#1) = 0"})
            .lacks({"Run command"}),
        play("run", kCopyBoost, 1).with(fail("korvexCmd_run:1")).prints({"] Command Fail!! (-1)\n"}),
        play("invalidate", kCopyBoost, 0)
            .with(fail("korvexSession_memInvalidate:1"))
            .prints({"] invalidate data buffer idx0: Fail\n", "success"})),
    case_name);

INSTANTIATE_TEST_SUITE_P(
    BuiltInPatterns, RunTable,
    testing::Values(
        play("four code buffers on a core mask", "-f Test -t 4 -c 3 -l 2", 0)
            .prints({"Verify pattern 2 times : success\n"})
            .traces({"korvexCmd_setDependencyPack(cmd#1, subcmd#1, subcmd#4) = 0",
                     "korvexSubCmd_setParam(subcmd#2, SC_PARAM_CORE_AFFINITY, 3) = 0"})
            .lacks({"subcmd#3, SC_PARAM_CORE_AFFINITY"}),
        play("a reserved name ends the lists", "-f Test -f missing.hex -g missing.bin", 0)
            .prints({"success"})
            .lacks({"open file"}),
        play("names are case-sensitive", "-f test", 1).prints({"Pattern file type: Fail\n"}).lacks({"Run command"})),
    case_name);

// The remaining warnings and verdicts, each from the situation that causes it.
INSTANTIATE_TEST_SUITE_P(
    WarningsAndVerdicts, RunTable,
    testing::Values(
        play("a faulting code", "-f $D/fault.hex -d 5", 1)
            .prints({"] res: core0, last finished flow id = 7 (abort/halt?)\n", "] res: core0, irq hint = 0x8001\n",
                     "] execute   = ", "] ran on core0\n", "] Command Fail!! (-1)\n"}),
        play("no output declared", "-f $D/no_out.hex", 1).prints({"] Pattern has no output information\n"}),
        play("no data buffer: nothing is built", "-f $D/no_data.hex", 1).lacks({"Get pattern", "korvexCmd"}),
        play("a short golden", "-f $D/copy.hex -g $D/short.bin", 0)
            .prints({"] golde size(0x10) != output size(0x20)\n", "success"}),
        play("a text golden shorter than its output checks what it holds", "-f $D/copy.hex -g $D/half.hex", 0)
            .prints({"success"})
            .lacks({"golde size"}),
        play("more golden regions than outputs", "-f $D/copy.hex -g $D/gold2.hex", 0)
            .prints({"] golden number(2) dismatch (output num = 1)\n",
                     "Run pattern 1 times : done (doesn't compare golden)"}),
        play("the first of two outputs fails", "-f $D/two_out.hex -g $D/bad.hex -g $D/gold_b.hex", 1)
            .prints({"] output-0 fail\n", "] output-1 fail\n"}),
        play("VLM usage refused: the code reaches past it", kVlm, 1)
            .with(fail("korvexSubCmd_setParam:1"))
            .prints({"] setParam VLM usage: Fail\n", "irq hint = 0x8008\n"}),
        play("turbo refused", kCopy + "-b 120", 0)
            .with(fail("korvexSubCmd_setParam:1"))
            .prints({"] setParam turbo boost: Fail\n"}),
        play("affinity refused", kCopy + "-c 1", 0)
            .with(fail("korvexSubCmd_setParam:1"))
            .prints({"] setParam core affinity: Fail\n"}),
        play("soft limit refused", kCopy + "-o 5", 0)
            .with(fail("korvexCmd_setParam:1"))
            .prints({"] setParam soft limit: Fail\n"}),
        play("hard limit refused", kCopy + "-a 5", 0)
            .with(fail("korvexCmd_setParam:1"))
            .prints({"] setParam hard limit: Fail\n"}),
        play("performance mode refused", kCopy + "--perf_mode", 0)
            .with(fail("korvexCmd_setParam:1"))
            .prints({"] setParam performance mode: Fail\n"}),
        play("VLM context and pack refused", kTwo, 0)
            .with(fail("korvexSubCmd_setParam:2,korvexCmd_setDependencyPack:1"))
            .prints({"] setParam SC_PARAM_VLM_CTX: Fail\n", "] setDependencyPack : Fail\n"}),
        play("no shared memory either: the code reaches the on-chip memory without a handle", kVlm, 1)
            .with("KVX_MODEL_NO_VLM=1 " + fail("korvexSession_memAlloc:4"))
            .prints({"] get vlm fail!!\n", "] alloc share mem FAIL\n", "irq hint = 0x8007\n"})
            .lacks({"VLM_USAGE"}),
        play("a binding past the code is not written", "-f $D/past.hex -g $D/gold.hex", 0)
            .prints({"] codebuf 0: binding ofs 0x1003 outside code size 0x20\n", "success"}),
        play("a binding on the code's last word is written", "-f $D/last.hex -d 2", 0)
            .prints({"codebuf ofs 0x1c = 0x"})
            .lacks({"outside code size"}),
        play("the dump cannot be written", "-f $D/copy.hex -g $D/bad.hex --dump_output", 1)
            .with("-C $D/ro")
            .prints({"] open file(output0_0.bin) error\n"})),
    case_name);

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
        {"korvexSession_createInstance", 1},
        {"korvexSession_memAlloc", 1},
        {"korvexSession_createCmd", 1},
        {"korvexCmd_createSubcmd", 1},
        {"korvexSubCmd_addCmdBuf", 1},
        {"korvexCmd_build", 1},
        {"korvexCmd_run", 1},
        {"korvexCmd_setParam", 0},
        {"korvexSubCmd_setParam", 0},
        {"korvexSubCmd_getRunInfo", 0},
        {"korvexSession_memInvalidate", 0},
        {"korvexSession_deleteCmd", 0},
        {"korvexSession_memFree", 0},
        {"korvexSession_cmdBufFree", 0},
        {"korvexSession_deleteInstance", 0},
        {"korvexCmd_setDependencyPack", 0},
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
