// The assembler and disassembler of QORA code: encodings against literal
// words, errors with their lines, listings of valid and invalid words, round
// trips, the documented instruction table, and the kvx_asm command line
// (its -o round trip through files included).
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

namespace
{

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

const struct {
    const char* text;
    words_t words;
} kEncodings[] = {
    {"END", {0}},
    {"NOP 1", {0x00000101}},
    {"NOP 3", {0x00000301, 0, 0}},
    {"SETR r3, 5, 6", {0x00030302, 5, 6}},
    {"SETR r15, 0xFFFFFFFF", {0x000F0202, 0xFFFFFFFF}},
    {"MOVE r0, r1, r2", {0x02100103}},
    {"FILL r7, r14, r14", {0x0EE70104}},
    {"ADD8 r7, r4, r5, r14", {0xE5470105}},
    {"MAX8 r7, r7, r4, r14", {0xE4770106}},
    {"CONV r0, r1, r2, r3", {0x32100107}},
    {"FLOW 7", {0x00070108}},
    {"FLOW 0x5", {0x00050108}},
    {"CYCLES r3", {0x00030109}},
    {".word 0xdeadbeef", {0xDEADBEEF}},
    {"  cOnV\tR0 ,r1,  r2 , r03   ; registers in any case", {0x32100107}},
    {"0x0010: FLOW 1 # a listing line", {0x00010108}},
    {"; a comment alone", {}},
};

TEST(KvxAsm, EncodesEveryInstructionToItsWords)
{
    std::set<std::string> covered;
    for (const auto& c : kEncodings) {
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
    EXPECT_EQ(kvx_asm_name(0x0A), nullptr);
}

const struct {
    const char* text;
    const char* error;
    uint32_t capacity;
} kErrors[] = {
    {"FOO r1", "line 1: unknown mnemonic 'FOO'", 64},
    {"END\n\nMOVE r0, r1", "line 3: MOVE takes 3 operands, got 2", 64},
    {"FLOW", "line 1: FLOW takes 1 operand, got 0", 64},
    {"MOVE r0, x1, r2", "line 1: expected a register r0-r15, got 'x1'", 64},
    {"SETR r14, 1, 2, 3", "line 1: SETR r14 takes at most 2 words (up to r15), got 3", 64},
    {"SETR r1", "line 1: SETR takes a register and at least one word", 64},
    {"NOP 0", "line 1: value out of range: '0' (1-255)", 64},
    {"FLOW 65536", "line 1: value out of range: '65536' (0-65535)", 64},
    {".word 0x100000000", "line 1: value out of range: '0x100000000' (0-4294967295)", 64},
    {".word -1", "line 1: bad number '-1'", 64},
    {"MOVE r0,, r2", "line 1: empty operand", 64},
    {"here: END", "line 1: bad offset 'here'", 64},
    {"END\nNOP 3\nNOP 2", "line 3: the code exceeds the capacity of 4 words", 4},
};

TEST(KvxAsm, ReportsErrorsWithTheirLine)
{
    for (const auto& c : kErrors) {
        std::string error;
        EXPECT_EQ(assemble(c.text, &error, c.capacity), words_t {}) << c.text;
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

const struct {
    words_t words;
    const char* listing;
} kListings[] = {
    {{0x00000301, 0, 0, 0x00070108}, "0x0000: NOP 3\n0x000c: FLOW 7\n"},
    {{0x32100107, 0x00030109}, "0x0000: CONV r0, r1, r2, r3\n0x0004: CYCLES r3\n"},
    // Not instructions: unknown opcode, length 0, past the end, SETR refused.
    {{0x0000010A, 0}, "0x0000: .word 0x0000010a\n0x0004: END\n"},
    {{0x02100003}, "0x0000: .word 0x02100003\n"},
    {{0x00000302, 0x00010108}, "0x0000: .word 0x00000302\n0x0004: FLOW 1\n"},
    // Instructions the text does not reproduce: every word kept.
    {{0x52100103}, "0x0000: .word 0x52100103 ; MOVE r0, r1, r2\n"},
    {{0x00000100}, "0x0000: .word 0x00000100 ; END\n"},
    {{0x00000201, 5, 0}, "0x0000: .word 0x00000201 ; NOP 2\n0x0004: .word 0x00000005\n0x0008: END\n"},
    {{0x00F00202, 9}, "0x0000: .word 0x00f00202 ; SETR r0, 0x00000009\n0x0004: .word 0x00000009\n"},
};

TEST(KvxAsm, ListsInstructionsAndWords)
{
    for (const auto& c : kListings)
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
    // SETR r0; SETR r8 with a convolution's five words; NOP 3; CONV; FLOW 1;
    // an unknown opcode; MOVE with a stray bit; NOP 2; END; a stray word;
    // SETR past r15.
    words_t program = {0x00000202, 0x20000000, 0x00080602, 0x000C000C, 0x00100008, 0x01010303, 77,
                       0x000A800A, 0x00000301, 0,          0,          0x32100107, 0x00010108, 0x0000010A,
                       0x52100103, 0x00000201, 7,          0,          0xFFFFFFFF, 0x000F0402, 1};
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

std::string table()
{
    std::string text(kvx_asm_table(nullptr, 0), '\0');
    EXPECT_EQ(kvx_asm_table(&text[0], text.size() + 1), text.size());
    return text;
}

TEST(KvxAsm, InstructionTableIsTheDocumentedOne)
{
    std::string text = table();
    // The whole table (the documentation check alone would take a prefix).
    EXPECT_EQ(text.rfind("| Opcode | Name | Length | Effect | Work |\n|---|---|---|---|---|\n", 0), 0u);
    EXPECT_NE(text.find("\n| 0x09 | CYCLES | 1 | "), std::string::npos);
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

const struct {
    const char* args;
    const char* input;
    int rc;
    const char* out;
    const char* err; // a part of standard error
} kCli[] = {
    {"-", "SETR r3, 5, 6\nMOVE r0, r1, r2\nFLOW 7\nEND\nNOP 2\n.word 9\n", 0,
     "02100103_00000006_00000005_00030302\n00000000_00000201_00000000_00070108\n"
     "00000000_00000000_00000000_00000009\n",
     ""},
    // Only code buffers are listed, each from offset 0; a comment inside a
    // binding table is a relocation, so "// Code" there opens no code buffer.
    {"-d -",
     "// Output\n// @40009000 {32}\n// Data\n@40000000\n00000000_00000000_00070108_0000000A\n\n"
     "// Code\n@0\n02100103_00000006_00000005_00030302\r\n00000000_00000000_00070108_0000000A\n\n"
     "// Code\n@1\n00000000_00000000_00000000_00070108\n\n"
     "// Binding\n// 4 @40009000\n// Code\n@2\n00000000_00000000_00000000_00070108\n",
     0,
     "; @40000000: data, 16 bytes\n"
     "; @0: code, 32 bytes\n0x0000: SETR r3, 0x00000005, 0x00000006\n0x000c: MOVE r0, r1, r2\n"
     "0x0010: .word 0x0000000a\n0x0014: FLOW 7\n0x0018: END\n0x001c: END\n"
     "; @1: code, 16 bytes\n0x0000: FLOW 7\n0x0004: END\n0x0008: END\n0x000c: END\n"
     "; @2: data, 16 bytes\n",
     ""},
    {"-d -", "// Code\n@0\n0000000_00000000_00000000_00000000\n", 1, "", "line 3: not a code line"},
    {"-", "END\nBAD\n", 1, "", "kvx_asm: standard input: line 2: unknown mnemonic 'BAD'\n"},
    {"", "", 1, "", "give a source, -d FILE or --table"},
    {"-d", "", 1, "", "-d needs a file"},
    {"/nonexistent/code.s", "", 1, "", "cannot read /nonexistent/code.s"},
};

TEST(KvxAsmCli, AssemblesDisassemblesAndReportsErrors)
{
    std::string dir = make_tmp_dir("kvx_asm_cli");
    for (const auto& c : kCli) {
        cli_result r = run_asm(dir, c.args, c.input);
        EXPECT_EQ(r.rc, c.rc) << c.args;
        EXPECT_EQ(r.out, c.out) << c.args;
        EXPECT_NE(r.err.find(c.err), std::string::npos) << c.args << ": " << r.err;
    }
    EXPECT_EQ(run_asm(dir, "--table", "").out, table());
    ASSERT_EQ(run_asm(dir, "-o " + dir + "/code.hex -", "SETR r0, 7\n.word 0x52100103\nEND\n").rc, 0);
    EXPECT_EQ(run_asm(dir, "-d " + dir + "/code.hex", "").out,
              "0x0000: SETR r0, 0x00000007\n0x0008: .word 0x52100103 ; MOVE r0, r1, r2\n0x000c: END\n");
    EXPECT_EQ(run_asm(dir, "-h", "").out.rfind("usage: kvx_asm", 0), 0u);
    EXPECT_EQ(run_asm(dir, "--version", "").out, "kvx_asm " QORA_EXPECTED_VERSION "\n");
}

} // namespace
