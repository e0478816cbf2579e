// Assembler and disassembler of QORA code: the rows of KVX_INSTRUCTIONS say
// how each mnemonic reads and encodes. Errors inside are thrown and become
// return codes at the C functions.
#include "kvx_asm.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <strings.h>

namespace
{

struct insn {
    uint32_t code;
    const char* name;
    uint32_t length;
    kvx_form form;
    const char* effect;
    const char* work;
};

#define KVX_ASM_ROW(code, name, length, form, effect, work) {code, #name, length, form, effect, work},
const insn kInstructions[] = {KVX_INSTRUCTIONS(KVX_ASM_ROW)};
#undef KVX_ASM_ROW

// Only NOP and SETR choose their length; every other form is one word.
#define KVX_ASM_ONE_WORD(code, name, length, form, effect, work)                                                       \
    static_assert(((length) == 1) == ((form) != KVX_FORM_LENGTH && (form) != KVX_FORM_SETR),                           \
                  #name " must be one word exactly when its form has no length");
KVX_INSTRUCTIONS(KVX_ASM_ONE_WORD)
#undef KVX_ASM_ONE_WORD

struct asm_error {
    std::string message;
};

[[noreturn]] void fail(const std::string& message)
{
    throw asm_error {message};
}

const insn* by_code(uint32_t code)
{
    for (const insn& in : kInstructions)
        if (in.code == code)
            return &in;
    return nullptr;
}

const insn* by_name(const std::string& name)
{
    for (const insn& in : kInstructions)
        if (strcasecmp(in.name, name.c_str()) == 0)
            return &in;
    return nullptr;
}

std::string trim(const std::string& s)
{
    size_t first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return "";
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

// An unsigned decimal or 0x hex number in [min, max].
uint32_t number(const std::string& s, uint32_t min, uint32_t max)
{
    bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    const char* digits = hex ? "0123456789abcdefABCDEF" : "0123456789";
    size_t start = hex ? 2 : 0;
    if (s.size() == start || s.find_first_not_of(digits, start) != std::string::npos)
        fail("bad number '" + s + "'");
    errno = 0;
    unsigned long long v = strtoull(s.c_str() + start, nullptr, hex ? 16 : 10);
    if (errno == ERANGE || v < min || v > max)
        fail("value out of range: '" + s + "' (" + std::to_string(min) + "-" + std::to_string(max) + ")");
    return (uint32_t)v;
}

uint32_t reg(const std::string& s)
{
    if (s.size() < 2 || (s[0] != 'r' && s[0] != 'R') || s.find_first_not_of("0123456789", 1) != std::string::npos)
        fail("expected a register r0-r15, got '" + s + "'");
    if (s.size() > 3 || atoi(s.c_str() + 1) > 15)
        fail("register out of range: '" + s + "' (r0-r15)");
    return (uint32_t)atoi(s.c_str() + 1);
}

// One source line: its mnemonic and comma-separated operands.
struct statement {
    std::string mnemonic;
    std::vector<std::string> operands;
};

// Drops the comment and an "OFFSET:" prefix; an empty mnemonic is a blank line.
statement parse(std::string line)
{
    line = trim(line.substr(0, line.find_first_of(";#")));
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
        std::string offset = trim(line.substr(0, colon));
        try {
            number(offset, 0, UINT32_MAX);
        } catch (const asm_error&) {
            fail("bad offset '" + offset + "'");
        }
        line = trim(line.substr(colon + 1));
    }
    statement st;
    size_t space = line.find_first_of(" \t");
    st.mnemonic = line.substr(0, space);
    std::string rest = space == std::string::npos ? "" : trim(line.substr(space));
    for (size_t at = 0; !rest.empty() && at <= rest.size();) {
        size_t comma = std::min(rest.find(',', at), rest.size());
        st.operands.push_back(trim(rest.substr(at, comma - at)));
        if (st.operands.back().empty())
            fail("empty operand");
        at = comma + 1;
    }
    return st;
}

void expect(const statement& st, size_t n)
{
    if (st.operands.size() != n)
        fail(st.mnemonic + " takes " + std::to_string(n) + " operand" + (n == 1 ? "" : "s") + ", got " +
             std::to_string(st.operands.size()));
}

void emit_setr(const statement& st, std::vector<uint32_t>& out)
{
    if (st.operands.size() < 2)
        fail("SETR takes a register and at least one word");
    uint32_t first = reg(st.operands[0]);
    uint32_t n = (uint32_t)st.operands.size() - 1;
    if (first + n > 16)
        fail("SETR " + st.operands[0] + " takes at most " + std::to_string(16 - first) + " words (up to r15), got " +
             std::to_string(n));
    out.push_back(kvx_asm_setr(first, n));
    for (uint32_t i = 1; i <= n; i++)
        out.push_back(number(st.operands[i], 0, UINT32_MAX));
}

void emit_regs(const insn& in, const statement& st, std::vector<uint32_t>& out)
{
    size_t n = (size_t)(in.form - KVX_FORM_REGS1) + 1;
    expect(st, n);
    uint32_t r[4] = {0, 0, 0, 0};
    for (size_t i = 0; i < n; i++)
        r[i] = reg(st.operands[i]);
    out.push_back(kvx_asm_regs(in.code, r[0], r[1], r[2], r[3]));
}

void emit(const insn& in, const statement& st, std::vector<uint32_t>& out)
{
    switch (in.form) {
    case KVX_FORM_NONE:
        expect(st, 0);
        out.push_back(in.code == KVX_OP_END ? kvx_asm_end() : kvx_asm_header(in.code, 1, 0));
        return;
    case KVX_FORM_LENGTH: {
        expect(st, 1);
        uint32_t len = number(st.operands[0], 1, 255);
        out.push_back(kvx_asm_header(in.code, len, 0));
        out.resize(out.size() + len - 1, 0);
        return;
    }
    case KVX_FORM_SETR: emit_setr(st, out); return;
    case KVX_FORM_IMM:
        expect(st, 1);
        out.push_back(kvx_asm_header(in.code, 1, number(st.operands[0], 0, 0xFFFF)));
        return;
    default: emit_regs(in, st, out);
    }
}

// Appends the words of one source line.
void assemble_line(const std::string& line, std::vector<uint32_t>& out)
{
    statement st = parse(line);
    if (st.mnemonic.empty())
        return;
    if (strcasecmp(st.mnemonic.c_str(), ".word") == 0) {
        expect(st, 1);
        out.push_back(number(st.operands[0], 0, UINT32_MAX));
        return;
    }
    const insn* in = by_name(st.mnemonic);
    if (in == nullptr)
        fail("unknown mnemonic '" + st.mnemonic + "'");
    emit(*in, st, out);
}

std::vector<uint32_t> assemble_text(const char* text, uint32_t capacity, bool bounded, uint32_t* line_no)
{
    std::vector<uint32_t> out;
    const char* at = text;
    for (*line_no = 1;; ++*line_no) {
        const char* end = strchr(at, '\n');
        assemble_line(end == nullptr ? std::string(at) : std::string(at, end), out);
        if (bounded && out.size() > capacity)
            fail("the code exceeds the capacity of " + std::to_string(capacity) + " words");
        if (end == nullptr)
            return out;
        at = end + 1;
    }
}

std::string hex_word(uint32_t w)
{
    char s[16];
    snprintf(s, sizeof(s), "0x%08x", w);
    return s;
}

std::string reg_list(uint32_t imm, size_t n)
{
    std::string text;
    for (size_t i = 0; i < n; i++)
        text += (i == 0 ? " r" : ", r") + std::to_string((imm >> (4 * i)) & 15);
    return text;
}

// The text of the instruction `len` words long at words[0]; its form only.
std::string text_of(const insn& in, const uint32_t* words, uint32_t len)
{
    uint32_t imm = words[0] >> 16;
    switch (in.form) {
    case KVX_FORM_NONE: return in.name;
    case KVX_FORM_LENGTH: return std::string(in.name) + " " + std::to_string(len);
    case KVX_FORM_SETR: {
        std::string text = std::string(in.name) + reg_list(imm, 1);
        for (uint32_t i = 1; i < len; i++)
            text += ", " + hex_word(words[i]);
        return text;
    }
    case KVX_FORM_IMM: return std::string(in.name) + " " + std::to_string(imm);
    default: return in.name + reg_list(imm, (size_t)(in.form - KVX_FORM_REGS1) + 1);
    }
}

// Writes formatted text at out[*n] while it fits; *n counts it all.
void append(char* out, size_t out_size, size_t* n, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int len = vsnprintf(*n < out_size ? out + *n : nullptr, *n < out_size ? out_size - *n : 0, fmt, args);
    va_end(args);
    *n += len > 0 ? (size_t)len : 0;
}

// The instruction at words[at] as the engine reads it: its length in words
// (0: none), its text, and whether that text assembles back to its words.
struct decoded {
    uint32_t len;
    std::string text;
    bool exact;
};

decoded decode(const uint32_t* words, uint32_t count, uint32_t at)
{
    const insn* in = by_code(words[at] & 0xFF);
    uint32_t len = in != nullptr && in->code == KVX_OP_END ? 1 : (words[at] >> 8) & 0xFF;
    if (in == nullptr || len == 0 || len > count - at)
        return {0, "", false};
    decoded d {len, text_of(*in, words + at, len), false};
    std::vector<uint32_t> again;
    try {
        assemble_line(d.text, again);
    } catch (const asm_error&) {
        return {0, "", false}; // a SETR the engine refuses
    }
    d.exact = again == std::vector<uint32_t>(words + at, words + at + len);
    return d;
}

void disassemble_into(const uint32_t* words, uint32_t count, char* out, size_t out_size, size_t* n)
{
    for (uint32_t at = 0; at < count;) {
        decoded d = decode(words, count, at);
        if (d.exact) {
            append(out, out_size, n, "0x%04x: %s\n", 4 * at, d.text.c_str());
            at += d.len;
            continue;
        }
        std::string note = d.len > 0 ? " ; " + d.text : "";
        append(out, out_size, n, "0x%04x: .word %s%s\n", 4 * at, hex_word(words[at]).c_str(), note.c_str());
        for (uint32_t i = 1; i < d.len; i++)
            append(out, out_size, n, "0x%04x: .word %s\n", 4 * (at + i), hex_word(words[at + i]).c_str());
        at += std::max(d.len, 1u);
    }
}

const char* length_text(const insn& in, char* buf, size_t size)
{
    if (in.form == KVX_FORM_LENGTH)
        return "any";
    if (in.form == KVX_FORM_SETR)
        return "2 or more";
    snprintf(buf, size, "%u", (unsigned)in.length);
    return buf;
}

} // namespace

extern "C" int kvx_assemble(const char* text, uint32_t* words, uint32_t capacity, uint32_t* count, char* error,
                            size_t error_size)
{
    uint32_t line = 0;
    try {
        std::vector<uint32_t> out = assemble_text(text, capacity, words != nullptr, &line);
        if (words != nullptr && !out.empty())
            memcpy(words, out.data(), out.size() * sizeof(uint32_t));
        *count = (uint32_t)out.size();
        return 0;
    } catch (const asm_error& e) {
        if (error != nullptr)
            snprintf(error, error_size, "line %u: %s", line, e.message.c_str());
    }
    return -1;
}

extern "C" int kvx_disassemble(const uint32_t* words, uint32_t count, char* out, size_t out_size)
{
    size_t n = 0;
    disassemble_into(words, count, out, out_size, &n);
    if (out_size > 0 && n == 0)
        out[0] = '\0';
    return n < out_size ? 0 : -1;
}

extern "C" const char* kvx_asm_name(uint8_t opcode)
{
    const insn* in = by_code(opcode);
    return in == nullptr ? nullptr : in->name;
}

extern "C" size_t kvx_asm_table(char* out, size_t out_size)
{
    size_t n = 0;
    append(out, out_size, &n, "| Opcode | Name | Length | Effect | Work |\n|---|---|---|---|---|\n");
    for (const insn& in : kInstructions) {
        char buf[16];
        append(out, out_size, &n, "| 0x%02x | %s | %s | %s | %s |\n", (unsigned)in.code, in.name,
               length_text(in, buf, sizeof(buf)), in.effect, in.work);
    }
    return n;
}
