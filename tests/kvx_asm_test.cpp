// The assembler and disassembler of QORA code: encodings against literal
// words, errors with their lines, listings of valid and invalid words, round
// trips, the documented instruction table, and the kvx_asm command line.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kvx_asm.h"
#include "test_util.h"

namespace {

using words_t = std::vector<uint32_t>;

// Assembles `text` into at most `capacity` words; the words, or the error.
words_t assemble(const std::string& text, std::string* error = nullptr, uint32_t capacity = 1024)
{
    words_t words(capacity);
    uint32_t count = 0;
    char message[256] = "";
    int rc = kvx_assemble(text.c_str(), words.data(), capacity, &count, message, sizeof(message));
    if (error != nullptr)
        *error = rc == 0 ? "" : message;
    words.resize(rc == 0 ? count : 0);
    return words;
}

std::string disassemble(const words_t& words)
{
    std::vector<char> out(64 * words.size() + 64);
    EXPECT_EQ(kvx_disassemble(words.data(), (uint32_t)words.size(), out.data(), out.size()), 0);
    return out.data();
}

struct encoding_case {
    const char* text;
    words_t words;
};

const encoding_case kEncodings[] = {
    {"END", {0}},
    {"NOP 1", {0x00000101}},
    {"NOP 3", {0x00000301, 0, 0}},
    {"SETR r3, 5, 6", {0x00030302, 5, 6}},
    {"SETR r15, 0xFFFFFFFF", {0x000F0202, 0xFFFFFFFF}},
    {"SETR r0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16",
     {0x00001102, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
    {"MOVE r0, r1, r2", {0x02100103}},
    {"FILL r7, r14, r14", {0x0EE70104}},
    {"ADD8 r7, r4, r5, r14", {0xE5470105}},
    {"MAX8 r7, r7, r4, r14", {0xE4770106}},
    {"CONV r0, r1, r2, r3", {0x32100107}},
    {"FLOW 7", {0x00070108}},
    {"FLOW 0x5", {0x00050108}},
    {"FLOW 0xffff", {0xFFFF0108}},
    {"CYCLES r3", {0x00030109}},
    {".word 0xdeadbeef", {0xDEADBEEF}},
    {".WORD 4294967295", {0xFFFFFFFF}},
    {"  cOnV\tR0 ,r1,  r2 , r03   ; registers in any case", {0x32100107}},
    {"0x0010: FLOW 1 # a listing line", {0x00010108}},
    {"", {}},
    {"; a comment alone", {}},
};

TEST(KvxAsm, EncodesEveryInstructionToItsWords)
{
    std::set<std::string> covered;
    for (const encoding_case& c : kEncodings) {
        std::string error;
        EXPECT_EQ(assemble(c.text, &error), c.words) << c.text;
        EXPECT_EQ(error, "") << c.text;
        if (!c.words.empty() && kvx_asm_name(c.words[0] & 0xFF) != nullptr)
            covered.insert(kvx_asm_name(c.words[0] & 0xFF));
    }
    for (unsigned op = 0; op < 256; op++) {
        const char* name = kvx_asm_name((uint8_t)op);
        EXPECT_TRUE(name == nullptr || covered.count(name)) << "no case for " << name;
    }
}

TEST(KvxAsm, EncodersMatchTheAssembler)
{
    const struct {
        uint32_t word;
        const char* text;
    } cases[] = {
        {kvx_asm_setr(3, 2), "SETR r3, 0, 0"},
        {kvx_asm_regs(KVX_OP_MOVE, 0, 1, 2, 0), "MOVE r0, r1, r2"},
        {kvx_asm_regs(KVX_OP_ADD8, 7, 4, 5, 14), "ADD8 r7, r4, r5, r14"},
        {kvx_asm_regs(KVX_OP_CYCLES, 3, 0, 0, 0), "CYCLES r3"},
        {kvx_asm_nop(4), "NOP 4"},
        {kvx_asm_flow(0xBEEF), "FLOW 0xbeef"},
        {kvx_asm_end(), "END"},
        {kvx_asm_header(KVX_OP_FLOW, 1, 0x12345), "FLOW 0x2345"}, // fields are cut to their widths
    };
    for (const auto& c : cases)
        EXPECT_EQ(assemble(c.text).at(0), c.word) << c.text;
}

TEST(KvxAsm, AssemblesAProgramLineByLine)
{
    EXPECT_EQ(assemble("SETR r2, 64\r\n\n  # set up\nMOVE r0, r1, r2 ; copy\nFLOW 1\nEND"),
              (words_t{0x00020202, 64, 0x02100103, 0x00010108, 0}));
}

struct error_case {
    const char* text;
    const char* error;
    uint32_t capacity;
};

const error_case kErrors[] = {
    {"FOO r1", "line 1: unknown mnemonic 'FOO'", 64},
    {"END\n\nMOVE r0, r1", "line 3: MOVE takes 3 operands, got 2", 64},
    {"MOVE r0, r1, r2, r3", "line 1: MOVE takes 3 operands, got 4", 64},
    {"END 1", "line 1: END takes 0 operands, got 1", 64},
    {"FLOW", "line 1: FLOW takes 1 operand, got 0", 64},
    {"CYCLES r16", "line 1: register out of range: 'r16' (r0-r15)", 64},
    {"CYCLES r100", "line 1: register out of range: 'r100' (r0-r15)", 64},
    {"MOVE r0, x1, r2", "line 1: expected a register r0-r15, got 'x1'", 64},
    {"MOVE r0, r, r2", "line 1: expected a register r0-r15, got 'r'", 64},
    {"FILL r0 r1, r2, r3", "line 1: expected a register r0-r15, got 'r0 r1'", 64},
    {"SETR r14, 1, 2, 3", "line 1: SETR r14 takes at most 2 words (up to r15), got 3", 64},
    {"SETR r1", "line 1: SETR takes a register and at least one word", 64},
    {"SETR r1, 5x", "line 1: bad number '5x'", 64},
    {"NOP 0", "line 1: value out of range: '0' (1-255)", 64},
    {"NOP 256", "line 1: value out of range: '256' (1-255)", 64},
    {"FLOW 65536", "line 1: value out of range: '65536' (0-65535)", 64},
    {".word 0x100000000", "line 1: value out of range: '0x100000000' (0-4294967295)", 64},
    {".word 99999999999999999999999", "line 1: value out of range: '99999999999999999999999' (0-4294967295)", 64},
    {".word -1", "line 1: bad number '-1'", 64},
    {".word 0x", "line 1: bad number '0x'", 64},
    {".word 0x0x5", "line 1: bad number '0x0x5'", 64},
    {"MOVE r0,, r2", "line 1: empty operand", 64},
    {"FLOW 1,", "line 1: empty operand", 64},
    {"here: END", "line 1: bad offset 'here'", 64},
    {"END\nNOP 3\nNOP 2", "line 3: the code exceeds the capacity of 4 words", 4},
};

TEST(KvxAsm, ReportsErrorsWithTheirLine)
{
    for (const error_case& c : kErrors) {
        std::string error;
        EXPECT_EQ(assemble(c.text, &error, c.capacity), words_t{}) << c.text;
        EXPECT_EQ(error, c.error) << c.text;
    }
}

TEST(KvxAsm, CountsWithoutWordsAndCutsTheError)
{
    uint32_t count = 0;
    EXPECT_EQ(kvx_assemble("NOP 255\nSETR r0, 1, 2", nullptr, 0, &count, nullptr, 0), 0);
    EXPECT_EQ(count, 258u);
    char error[8];
    EXPECT_EQ(kvx_assemble("END\nFOO", nullptr, 0, &count, error, sizeof(error)), -1);
    EXPECT_STREQ(error, "line 2:");
    EXPECT_EQ(kvx_assemble("FOO", nullptr, 0, &count, nullptr, 0), -1);
}

struct listing_case {
    words_t words;
    const char* listing;
};

const listing_case kListings[] = {
    {{}, ""},
    {{0}, "0x0000: END\n"},
    {{0x00000301, 0, 0, 0x00070108}, "0x0000: NOP 3\n0x000c: FLOW 7\n"},
    {{0x00030302, 5, 0xFFFFFFFF}, "0x0000: SETR r3, 0x00000005, 0xffffffff\n"},
    {{0x02100103, 0x0EE70104}, "0x0000: MOVE r0, r1, r2\n0x0004: FILL r7, r14, r14\n"},
    {{0xE5470105, 0xE4770106}, "0x0000: ADD8 r7, r4, r5, r14\n0x0004: MAX8 r7, r7, r4, r14\n"},
    {{0x32100107, 0x00030109}, "0x0000: CONV r0, r1, r2, r3\n0x0004: CYCLES r3\n"},
    // Not instructions: unknown opcode, length 0, past the end, SETR refused.
    {{0x0000010A, 0}, "0x0000: .word 0x0000010a\n0x0004: END\n"},
    {{0x02100003}, "0x0000: .word 0x02100003\n"},
    {{0x00000302, 0x00010108}, "0x0000: .word 0x00000302\n0x0004: FLOW 1\n"},
    {{0x00000102}, "0x0000: .word 0x00000102\n"},
    {{0x000F0302, 0x00010108, 0}, "0x0000: .word 0x000f0302\n0x0004: FLOW 1\n0x0008: END\n"},
    // Instructions the text does not reproduce: every word kept.
    {{0x52100103}, "0x0000: .word 0x52100103 ; MOVE r0, r1, r2\n"},
    {{0x00F30109}, "0x0000: .word 0x00f30109 ; CYCLES r3\n"},
    {{0x00000100}, "0x0000: .word 0x00000100 ; END\n"},
    {{0x00000201, 5, 0}, "0x0000: .word 0x00000201 ; NOP 2\n0x0004: .word 0x00000005\n0x0008: END\n"},
    {{0x00010208, 0x00010108}, "0x0000: .word 0x00010208 ; FLOW 1\n0x0004: .word 0x00010108\n"},
    {{0x00F00202, 9}, "0x0000: .word 0x00f00202 ; SETR r0, 0x00000009\n0x0004: .word 0x00000009\n"},
};

TEST(KvxAsm, ListsInstructionsAndWords)
{
    for (const listing_case& c : kListings)
        EXPECT_EQ(disassemble(c.words), c.listing);
}

TEST(KvxAsm, ListingFailsWhenTheBufferIsShort)
{
    words_t words = {0x02100103};
    std::string line = "0x0000: MOVE r0, r1, r2\n";
    std::vector<char> out(line.size() + 1);
    EXPECT_EQ(kvx_disassemble(words.data(), 1, out.data(), out.size()), 0);
    EXPECT_EQ(out.data(), line);
    EXPECT_EQ(kvx_disassemble(words.data(), 1, out.data(), line.size()), -1);
    EXPECT_EQ(kvx_disassemble(words.data(), 0, nullptr, 0), -1) << "no room, not even for the end";
    char empty[4] = "xyz";
    EXPECT_EQ(kvx_disassemble(words.data(), 0, empty, sizeof(empty)), 0);
    EXPECT_STREQ(empty, "") << "no words, an empty listing";
}

TEST(KvxAsm, ListingAssemblesBackToTheWords)
{
    words_t program = {kvx_asm_setr(0, 1), 0x20000000, kvx_asm_setr(8, 5), 12 | 12 << 16, 8 | 16 << 16,
                       3 | 3 << 8 | 1 << 16 | 1 << 24, 77, 10 | 128 << 8 | 10 << 16, kvx_asm_nop(3), 0, 0,
                       kvx_asm_regs(KVX_OP_CONV, 0, 1, 2, 3), kvx_asm_flow(1), 0x0000010A, 0x52100103,
                       kvx_asm_nop(2), 7, kvx_asm_end(), 0xFFFFFFFF, kvx_asm_setr(15, 3), 1};
    EXPECT_EQ(assemble(disassemble(program)), program);
    // Any words: headers with small opcodes and lengths, or anything.
    std::mt19937 rng(7);
    for (int round = 0; round < 500; round++) {
        words_t words(1 + rng() % 24);
        for (uint32_t& w : words)
            w = rng() % 2 ? (uint32_t)rng() : (rng() & 0xFFFF0000u) | (rng() % 4) << 8 | rng() % 11;
        std::string listing = disassemble(words);
        ASSERT_EQ(assemble(listing), words) << listing;
    }
}

TEST(KvxAsm, NamesOpcodes)
{
    const struct {
        uint8_t op;
        const char* name;
    } cases[] = {{KVX_OP_END, "END"}, {KVX_OP_SETR, "SETR"}, {KVX_OP_CYCLES, "CYCLES"}, {0x0A, nullptr}, {0xFF, nullptr}};
    for (const auto& c : cases)
        EXPECT_STREQ(kvx_asm_name(c.op), c.name) << (int)c.op;
}

std::string table()
{
    std::string text(kvx_asm_table(nullptr, 0), '\0');
    EXPECT_EQ(kvx_asm_table(&text[0], text.size() + 1), text.size());
    return text;
}

TEST(KvxAsm, InstructionTableIsTheDocumentedOne)
{
    std::string text = table();
    EXPECT_EQ(text.rfind("| Opcode | Name | Length | Effect | Work |\n|---|---|---|---|---|\n", 0), 0u);
    EXPECT_NE(text.find("| 0x02 | SETR | 2 or more | "), std::string::npos);
    EXPECT_NE(text.find("| 0x01 | NOP | any | "), std::string::npos);
    EXPECT_NE(read_file(std::string(QORA_SOURCE_DIR) + "/docs/engine-model.md").find(text), std::string::npos)
        << "docs/engine-model.md: replace the instruction table with the output of kvx_asm --table";
    char cut[8];
    EXPECT_EQ(kvx_asm_table(cut, sizeof(cut)), text.size());
    EXPECT_EQ(std::string(cut), text.substr(0, 7));
}

// The command line: exit code, standard output and error of one run.
struct cli_result {
    int rc;
    std::string out, err;
};

cli_result run_asm(const std::string& dir, const std::string& args, const std::string& input)
{
    write_file(dir + "/in", input);
    std::string cmd = std::string(QORA_ASM_CMD) + " " + args + " <" + dir + "/in >" + dir + "/out 2>" + dir + "/err";
    int status = system(cmd.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(dir + "/out"), read_file(dir + "/err")};
}

struct cli_case {
    const char* args;
    const char* input;
    int rc;
    const char* out;
    const char* err; // a part of standard error
};

const cli_case kCli[] = {
    {"-", "SETR r3, 5, 6\nMOVE r0, r1, r2\nFLOW 7\nEND\nNOP 2\n.word 9\n", 0,
     "02100103_00000006_00000005_00030302\n00000000_00000201_00000000_00070108\n"
     "00000000_00000000_00000000_00000009\n",
     ""},
    {"-", "", 0, "", ""},
    {"-d -",
     "// Code\n@0\n02100103_00000006_00000005_00030302\r\n// Binding\n00000000_00000000_00070108_0000000A\n"
     "0000000_00000000_00000000_00000000\n",
     0,
     "0x0000: SETR r3, 0x00000005, 0x00000006\n0x000c: MOVE r0, r1, r2\n0x0010: .word 0x0000000a\n"
     "0x0014: FLOW 7\n0x0018: END\n0x001c: END\n",
     ""},
    {"-", "END\nBAD\n", 1, "", "kvx_asm: standard input: line 2: unknown mnemonic 'BAD'\n"},
    {"", "", 1, "", "give a source, -d FILE or --table"},
    {"-x", "", 1, "", "unknown option -x"},
    {"- -", "", 1, "", "one input only"},
    {"-d", "", 1, "", "-d needs a file"},
    {"/nonexistent/code.s", "", 1, "", "cannot read /nonexistent/code.s"},
};

TEST(KvxAsmCli, AssemblesDisassemblesAndReportsErrors)
{
    std::string dir = make_tmp_dir("kvx_asm_cli");
    for (const cli_case& c : kCli) {
        cli_result r = run_asm(dir, c.args, c.input);
        EXPECT_EQ(r.rc, c.rc) << c.args;
        EXPECT_EQ(r.out, c.out) << c.args;
        EXPECT_NE(r.err.find(c.err), std::string::npos) << c.args << ": " << r.err;
    }
    EXPECT_EQ(run_asm(dir, "--table", "").out, table());
    EXPECT_EQ(run_asm(dir, "-h", "").out.rfind("usage: kvx_asm", 0), 0u);
}

TEST(KvxAsmCli, ListingOfWrittenCodeAssemblesToTheSameLines)
{
    std::string dir = make_tmp_dir("kvx_asm_cli_files");
    write_file(dir + "/code.s", "SETR r0, 0x20000000\nNOP 4\nFILL r0, r1, r2\n.word 0x52100103\nFLOW 3\nEND\n");
    ASSERT_EQ(run_asm(dir, "-o " + dir + "/code.hex " + dir + "/code.s", "").rc, 0);
    ASSERT_EQ(run_asm(dir, "-o " + dir + "/code.lst -d " + dir + "/code.hex", "").rc, 0);
    ASSERT_EQ(run_asm(dir, "-o " + dir + "/again.hex " + dir + "/code.lst", "").rc, 0);
    EXPECT_EQ(read_file(dir + "/code.hex"), "00000000_00000401_20000000_00000202\n52100103_02100104_00000000_00000000\n"
                                            "00000000_00000000_00000000_00030108\n");
    EXPECT_NE(read_file(dir + "/code.lst").find("0x001c: .word 0x52100103 ; MOVE r0, r1, r2\n"), std::string::npos);
    EXPECT_EQ(read_file(dir + "/again.hex"), read_file(dir + "/code.hex"));
}

} // namespace
