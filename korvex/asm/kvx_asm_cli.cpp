// Assembles QORA code into the code lines of a pattern file, disassembles
// the code buffers of a pattern file, and prints the instruction table of
// docs/engine-model.md.
//
//   kvx_asm [-o FILE] SOURCE    assemble SOURCE
//   kvx_asm [-o FILE] -d FILE   list the code buffers of the pattern FILE
//   kvx_asm [-o FILE] --table   the markdown instruction table
//   kvx_asm --version           the project's version
//
// "-" reads standard input. A code line holds 16 bytes as four 32-bit words,
// the last first: word3_word2_word1_word0, each "%08x"; the last line is
// padded with zero words. When disassembling, each code buffer is listed
// with offsets from its own start, the offsets its bindings name; a data
// buffer gets one comment line and is never decoded. Errors go to standard
// error, with exit code 1.
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "kvx_asm.h"
#include "qora_version.h"

namespace
{

const char kUsage[] = "usage: kvx_asm [-o FILE] SOURCE    assemble SOURCE into code lines\n"
                      "       kvx_asm [-o FILE] -d FILE   list the code buffers of the pattern FILE\n"
                      "       kvx_asm [-o FILE] --table   print the markdown instruction table\n"
                      "       kvx_asm --version           print the version\n"
                      "       kvx_asm -h, --help          print this usage\n"
                      "\"-\" reads standard input; the output goes to FILE of -o, else standard output.\n";

struct options {
    std::string output;
    std::string input;
    bool disassemble = false;
    bool table = false;
    bool help = false;
    bool version = false;
};

bool fail(const std::string& message)
{
    fprintf(stderr, "kvx_asm: %s\n", message.c_str());
    return false;
}

bool parse_args(int argc, char** argv, options* o)
{
    bool inputs = false;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        bool with_file = arg == "-o" || arg == "-d";
        if (with_file && i + 1 == argc)
            return fail(arg + " needs a file");
        if (arg == "-h" || arg == "--help")
            o->help = true;
        else if (arg == "--version")
            o->version = true;
        else if (arg == "--table")
            o->table = true;
        else if (arg == "-o")
            o->output = argv[++i];
        else if (arg.size() > 1 && arg[0] == '-' && !with_file)
            return fail("unknown option " + arg);
        else if (inputs)
            return fail("one input only");
        else {
            o->disassemble = arg == "-d";
            o->input = with_file ? argv[++i] : arg;
            inputs = true;
        }
    }
    if (!o->help && !o->version && inputs == o->table)
        return fail("give a source, -d FILE or --table (-h for help)");
    return true;
}

bool read_input(const std::string& path, std::string* text)
{
    if (path == "-") {
        text->assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        return true;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return fail("cannot read " + path);
    text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

bool write_output(const std::string& path, const std::string& text)
{
    FILE* fp = path.empty() ? stdout : fopen(path.c_str(), "w");
    if (fp == nullptr)
        return fail("cannot write " + path);
    bool ok = fwrite(text.data(), 1, text.size(), fp) == text.size();
    ok = (fp == stdout ? fflush(fp) == 0 : fclose(fp) == 0) && ok;
    return ok || fail("cannot write " + (path.empty() ? std::string("standard output") : path));
}

std::string code_lines(std::vector<uint32_t> w)
{
    w.resize((w.size() + 3) / 4 * 4, 0);
    std::string text;
    char line[40];
    for (size_t i = 0; i < w.size(); i += 4) {
        snprintf(line, sizeof(line), "%08x_%08x_%08x_%08x\n", w[i + 3], w[i + 2], w[i + 1], w[i]);
        text += line;
    }
    return text;
}

bool is_code_line(const std::string& line)
{
    if (line.size() != 35)
        return false;
    for (size_t i = 0; i < line.size(); i++)
        if (i % 9 == 8 ? line[i] != '_' : !isxdigit((unsigned char)line[i]))
            return false;
    return true;
}

bool assemble(const std::string& path, const std::string& source, std::string* out)
{
    uint32_t count = 0;
    char error[256];
    if (kvx_assemble(source.c_str(), nullptr, 0, &count, error, sizeof(error)) != 0)
        return fail((path == "-" ? "standard input" : path) + ": " + error);
    std::vector<uint32_t> words(count);
    kvx_assemble(source.c_str(), words.data(), count, &count, error, sizeof(error));
    *out = code_lines(words);
    return true;
}

uint32_t word_at(const std::string& line, int i)
{
    return (uint32_t)strtoul(line.substr((size_t)i * 9, 8).c_str(), nullptr, 16);
}

// One buffer of a pattern file, as the player's loader opens it.
struct pattern_buffer {
    std::string name; // the text after '@'; empty for code lines before any '@'
    bool code = false;
    uint32_t bytes = 0;
    std::vector<uint32_t> words; // code buffers only
};

// Reads the buffers of a pattern file the way the player's loader does: an
// '@' line opens a code buffer when the last comment remembered began
// "Code", else a data buffer; a blank line or a comment ends it. Relocation
// lines are not remembered (they follow "// Binding" until "// Output").
// Code lines before any '@' line (kvx_asm's own output) are one code buffer.
bool read_buffers(const std::string& text, std::vector<pattern_buffer>* buffers)
{
    std::istringstream in(text);
    std::string line, last_comment;
    bool in_binding = false, open = false;
    for (int number = 1; std::getline(in, line); number++) {
        line.erase(line.find_last_not_of(" \t\r") + 1);
        if (line.rfind("//", 0) == 0) {
            open = false;
            std::string word = line.size() > 3 ? line.substr(3) : "";
            if (word.rfind("Binding", 0) == 0)
                in_binding = true;
            else if (word.rfind("Output", 0) == 0)
                in_binding = false;
            else if (in_binding && word.rfind("Temporary", 0) != 0)
                continue;
            if (line.size() > 3)
                last_comment = word;
        } else if (line.empty()) {
            open = false;
        } else if (line[0] == '@') {
            pattern_buffer b;
            b.name = line.substr(1);
            b.code = last_comment.rfind("Code", 0) == 0;
            buffers->push_back(b);
            open = true;
        } else if (open || buffers->empty()) {
            if (buffers->empty())
                buffers->push_back(pattern_buffer {"", true, 0, {}});
            pattern_buffer& b = buffers->back();
            b.bytes += 16;
            if (!b.code)
                continue;
            if (!is_code_line(line))
                return fail("line " + std::to_string(number) + ": not a code line: " + line);
            for (int i = 3; i >= 0; i--)
                b.words.push_back(word_at(line, i));
        }
    }
    return true;
}

std::string listing(const std::vector<uint32_t>& words)
{
    std::vector<char> out(64 * words.size() + 64);
    while (kvx_disassemble(words.data(), (uint32_t)words.size(), out.data(), out.size()) != 0)
        out.resize(2 * out.size());
    return out.data();
}

// Each code buffer's listing, its offsets counted from the buffer's start
// (the offsets bindings name); data buffers are named, never decoded.
bool disassemble(const std::string& text, std::string* out)
{
    std::vector<pattern_buffer> buffers;
    if (!read_buffers(text, &buffers))
        return false;
    for (const pattern_buffer& b : buffers) {
        if (!b.code)
            *out += "; @" + b.name + ": data, " + std::to_string(b.bytes) + " bytes\n";
        else if (!b.name.empty())
            *out += "; @" + b.name + ": code, " + std::to_string(b.bytes) + " bytes\n" + listing(b.words);
        else
            *out += listing(b.words);
    }
    return true;
}

std::string table()
{
    std::string text(kvx_asm_table(nullptr, 0), '\0');
    kvx_asm_table(&text[0], text.size() + 1);
    return text;
}

bool run(const options& o)
{
    std::string in, out;
    if (o.table)
        out = table();
    else if (!read_input(o.input, &in))
        return false;
    else if (!(o.disassemble ? disassemble(in, &out) : assemble(o.input, in, &out)))
        return false;
    return write_output(o.output, out);
}

} // namespace

int main(int argc, char** argv)
{
    options o;
    if (!parse_args(argc, argv, &o))
        return 1;
    if (o.help) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (o.version) {
        printf("kvx_asm %s\n", QORA_PLAYER_VERSION);
        return 0;
    }
    return run(o) ? 0 : 1;
}
