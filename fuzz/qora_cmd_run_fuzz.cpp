// Run mode: a pattern and its goldens from the fuzz input, played on the
// engine model with the calls the entry point's run mode makes (player,
// pattern set, BuildCmd and Execute, then the pattern set and the player are
// released), two loops with the dump on.
//
// Input: six setting bytes, then the pattern text. Each line that is exactly
// "#golden" starts the next golden file (at most four); without one the run
// has no golden.
//   byte 0  bit 0: the goldens are binary (".bin"), else text (".hex");
//           bit 1: PMU flusher mode; bit 2: VLM disabled (--no_vlm);
//           bit 3: performance mode; bits 4-6: debug mask;
//           bit 7: the engine model has no VLM to give (KVX_MODEL_NO_VLM)
//   byte 1  PMU events: bits 0-3 how many (14 and 15 are more than the
//           player takes), bits 4-7 where they start in kEvents
//   byte 2  bits 0-3: core mask; bits 4-7: forced priority + 1 (0: none;
//           the player keeps the low three bits of 8 and above)
//   byte 3  bits 0-2: boost (kBoosts); bits 3-4: engine cores (kCores)
//   byte 4  a middleware call that fails: bits 0-6 pick it in kFaultOps
//           (0: none), bit 7 drops it instead (it returns 0 and does
//           nothing; a drop of a call that returns no int does nothing)
//   byte 5  which call of it fails (1: the first)
//
// The player keeps some state for the life of the process on purpose (one
// run per process): the text loader's cross-file state, the command
// layer's list of command-buffer records (deleted by the qoraCmd destructor
// but left in the list), and the code bytes of every loaded pattern. Each
// input puts them back so that memory stays flat and every input starts
// where a process starts.
//
// Memory and time grow with what the text declares, not with its length:
// every code buffer takes a 768 KiB relocation table, every golden region is
// as long as its output (data and mask, filled to the end), and the model
// backs every buffer and runs the code as it is (a large convolution can
// take minutes). Inputs whose declarations exceed a small budget are not
// loaded; patterns with more than a few code buffers, or whose buffers or
// engine work exceed it, are only loaded, or loaded and built, but not run.
// So one input takes milliseconds, and the loaders have a target of their
// own for large files.
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "../korvex/model/kvx_isa_table.h"
#include "fuzz_util.h"
#include "qora_pattern.h"
#include "qora_pattern_reader.h"
#include "qora_pattern_store.h"
#include "qora_player.h"

// Defined by the command layer; one qoraCmd per process never empties it.
extern std::vector<qora_cmd*> cmd_list;

namespace {

enum : uint32_t {
#define QORA_FUZZ_OPCODE(code, name, ...) OP_##name = code,
    KVX_INSTRUCTIONS(QORA_FUZZ_OPCODE)
#undef QORA_FUZZ_OPCODE
};

const size_t kSettings = 6;
const size_t kMaxGoldens = 4;
const char kGoldenLine[] = "#golden\n";
const size_t kGoldenLineLen = sizeof(kGoldenLine) - 1;

const int kLoops = 2;
// Pieces of the pattern text that open a buffer.
const size_t kMaxBufferPieces = 32;
// Golden bytes the golden files may make the loader fill.
const uint64_t kGoldenBudget = 32u << 20;
const uint32_t kMaxCodeBuffers = 8;
// Bytes of device memory the buffers and outputs may take (each allocation
// rounded up to the player's 4 KiB alignment).
const uint64_t kDeviceBudget = 4u << 20;
// Engine work one run may do, in the units of engine_work(): about 50 ms
// of the sanitized model.
const double kWorkBudget = 2e6;

// The events the model counts, then some it does not.
const uint16_t kEvents[16] = {0x0101, 0x0102, 0x0103, 0x1001, 0x1002, 0x1003, 0x1701, 0x1708,
                              0x2001, 0x2002, 0x0000, 0x0104, 0x1709, 0x2003, 0xFFFF, 0x1708};
// Not given, the range's ends, inside it, turbo; never random, so that a
// run does the same every time.
const int kBoosts[8] = {-2, -2, 0, 1, 57, 100, 101, 110};
const char kCores[4] = {'2', '1', '4', '0'};
// Every middleware call the player makes, except deleting the session: a
// session the model refuses to delete lives (and grows) until the process ends.
const char* const kFaultOps[] = {
    "korvexSession_createInstance", "korvexSession_queryDeviceNum", "korvexSession_memAlloc",
    "korvexSession_memGetInfoFromHostPtr", "korvexSession_memFree", "korvexSession_memFlush",
    "korvexSession_memInvalidate", "korvexSession_cmdBufAlloc", "korvexSession_cmdBufFree",
    "korvexSession_createCmd", "korvexSession_deleteCmd", "korvexCmd_setParam", "korvexCmd_createSubcmd",
    "korvexCmd_setDependencyPack", "korvexCmd_build", "korvexCmd_run", "korvexSubCmd_setParam",
    "korvexSubCmd_addCmdBuf", "korvexSubCmd_getRunInfo",
};
const size_t kFaultOpNum = sizeof(kFaultOps) / sizeof(kFaultOps[0]);

struct text_part {
    const uint8_t* data;
    size_t size;
};

// The pattern text, then one part per golden.
std::vector<text_part> split_parts(const uint8_t* data, size_t size)
{
    std::vector<text_part> parts;
    const uint8_t* end = data + size;
    const uint8_t* start = data;
    for (const uint8_t* line = data; line < end && parts.size() < kMaxGoldens;) {
        const uint8_t* lf = (const uint8_t*)memchr(line, '\n', (size_t)(end - line));
        const uint8_t* next = lf != nullptr ? lf + 1 : end;
        if ((size_t)(next - line) == kGoldenLineLen && memcmp(line, kGoldenLine, kGoldenLineLen) == 0) {
            parts.push_back({start, (size_t)(line - start)});
            start = next;
        }
        line = next;
    }
    parts.push_back({start, (size_t)(end - start)});
    return parts;
}

uint64_t page_rounded(uint32_t size)
{
    return ((uint64_t)std::max<uint32_t>(size, 1) + 4095) & ~(uint64_t)4095;
}

// Pieces the loaders read that start with `c`: text is read as fgets with a
// 120-byte buffer reads it, at most 119 characters ending after a line feed.
size_t pieces_starting_with(text_part text, uint8_t c)
{
    size_t count = 0;
    size_t column = 0;
    for (size_t i = 0; i < text.size; i++) {
        if (column == 0 && text.data[i] == c)
            count++;
        column = text.data[i] == '\n' ? 0 : (column + 1) % (QORA_LINE_BUF - 1);
    }
    return count;
}

// The largest output size the text after a "{" can declare, as the loader's
// "{%10d}" reads it into an int (1 to 0x3FFFFFFF), wherever the piece that
// holds it ends; 0 when it declares none.
uint32_t declared_size(const uint8_t* p, const uint8_t* end)
{
    while (p < end && (*p == ' ' || (*p >= '\t' && *p <= '\r')))
        p++;
    int width = 10;
    if (p < end && *p == '-')
        return 0;
    if (p < end && *p == '+') {
        p++;
        width--;
    }
    uint64_t value = 0;
    uint32_t largest = 0;
    for (; width > 0 && p < end && *p >= '0' && *p <= '9'; width--, p++) {
        value = value * 10 + (uint32_t)(*p - '0');
        int32_t as_int = (int32_t)(uint32_t)value;
        if (as_int >= 1 && as_int <= 0x3FFFFFFF)
            largest = std::max(largest, (uint32_t)as_int);
    }
    return largest;
}

// What loading may cost, bounded from the text alone: the buffers the
// pattern can open, the outputs it can declare, and the golden regions
// (one per '@' piece of a text golden, one per binary golden), each as long
// as the longest output.
bool load_is_cheap(const std::vector<text_part>& parts, bool binary_goldens)
{
    const text_part& pattern = parts[0];
    if (pieces_starting_with(pattern, '@') > kMaxBufferPieces)
        return false;
    uint64_t output_bytes = 0;
    uint32_t longest = 0;
    for (size_t i = 0; i < pattern.size; i++) {
        if (pattern.data[i] != '{')
            continue;
        uint32_t size = declared_size(pattern.data + i + 1, pattern.data + pattern.size);
        if (size != 0)
            output_bytes += page_rounded(size);
        longest = std::max(longest, size);
    }
    uint64_t regions = 0;
    for (size_t g = 1; g < parts.size(); g++)
        regions += binary_goldens ? 1 : pieces_starting_with(parts[g], '@');
    return output_bytes <= kDeviceBudget && regions * 2 * ((uint64_t)longest + 16384) <= kGoldenBudget;
}

// The model reads its hooks from the environment at every new session.
// These strings are the environment entries themselves (putenv), rewritten
// in place for each input, so that the environment keeps no copy of every
// value ever set. The model restarts its call counts only when a value
// changed since the last session: a picked call is counted from the first
// call of this input by a marker in KVX_MODEL_FAIL (the pick of a call that
// never happens) that differs for every input.
char env_no_vlm[] = "KVX_MODEL_NO_VLM=0";
char env_cores[] = "KVX_MODEL_CORES=2";
char env_fail[96] = "KVX_MODEL_FAIL=";
char env_drop[96] = "KVX_MODEL_DROP=";
const size_t kEnvFailName = 15; // "KVX_MODEL_FAIL=" and "KVX_MODEL_DROP="

void set_model_hooks(const uint8_t* s)
{
    static const bool entries_put = putenv(env_no_vlm) == 0 && putenv(env_cores) == 0 &&
                                    putenv(env_fail) == 0 && putenv(env_drop) == 0;
    static uint32_t serial;
    (void)entries_put;
    env_no_vlm[sizeof(env_no_vlm) - 2] = (s[0] & 0x80) != 0 ? '1' : '0';
    env_cores[sizeof(env_cores) - 2] = kCores[(s[3] >> 3) & 3];
    uint32_t op = s[4] & 0x7F;
    bool drop = (s[4] & 0x80) != 0;
    char pick[64] = "";
    if (op != 0)
        snprintf(pick, sizeof(pick), "%s:%u", kFaultOps[(op - 1) % kFaultOpNum], s[5]);
    if (op == 0)
        env_fail[kEnvFailName] = '\0'; // the counts do not matter
    else
        snprintf(env_fail + kEnvFailName, sizeof(env_fail) - kEnvFailName, "%s%sfuzz_input:%u", drop ? "" : pick,
                 drop ? "" : ",", serial++);
    snprintf(env_drop + kEnvFailName, sizeof(env_drop) - kEnvFailName, "%s", drop ? pick : "");
}

// Engine work of one run of a relocated code buffer, read as the engine
// reads it: straight-line code whose registers only SETR writes. Faults on
// memory are not foreseen, so this is an upper bound. Units: one per
// instruction, per convolution inner step, per vector element, and per 16
// bytes a DMA command moves.
double engine_work(const uint32_t* code, uint32_t size)
{
    uint32_t r[16] = {};
    uint32_t words = size / 4;
    double work = 0;
    for (uint32_t at = 0; at < words;) {
        uint32_t header;
        memcpy(&header, code + at, 4);
        uint32_t op = header & 0xFF;
        uint32_t len = (header >> 8) & 0xFF;
        uint32_t imm = header >> 16;
        if (op == OP_END || len == 0 || at + len > words)
            break;
        auto reg = [&](int field) { return r[(imm >> (4 * field)) & 15]; };
        switch (op) {
        case OP_SETR:
            if (len == 1 || (imm & 15) + len - 1 > 16)
                return work;
            memcpy(&r[imm & 15], code + at + 1, 4 * (len - 1));
            break;
        case OP_MOVE:
        case OP_FILL:
            work += reg(2) / 16.0;
            break;
        case OP_ADD8:
        case OP_MAX8:
            work += reg(3);
            break;
        case OP_CONV: {
            double h = r[8] & 0xFFFF, w = r[8] >> 16, cin = r[9] & 0xFFFF, cout = r[9] >> 16;
            double kh = r[10] & 0xFF, kw = (r[10] >> 8) & 0xFF, stride = (r[10] >> 16) & 0xFF;
            double pad = r[10] >> 24;
            if (stride == 0 || kh == 0 || kw == 0 || h + 2 * pad < kh || w + 2 * pad < kw)
                break;
            double oh = std::floor((h + 2 * pad - kh) / stride) + 1;
            double ow = std::floor((w + 2 * pad - kw) / stride) + 1;
            work += oh * ow * cout * kh * kw * (cin + 1);
            break;
        }
        case OP_NOP:
        case OP_FLOW:
        case OP_CYCLES:
            break;
        default:
            return work; // no such instruction: the engine stops here
        }
        work += 1;
        at += len;
    }
    return work;
}

// Whether the model's memory for the data buffers and outputs stays within
// the budget, and the code buffers are few.
bool buffers_fit(qoraPattern& set)
{
    if (set.get_pattern_code_num() > kMaxCodeBuffers)
        return false;
    uint64_t bytes = 0;
    buffer* data = set.get_pattern_data();
    uint32_t data_num = std::min<uint32_t>(set.get_pattern_data_num(), MAX_DATA_NUM);
    for (uint32_t i = 0; data != nullptr && i < data_num; i++)
        bytes += page_rounded(data[i].size);
    for (uint32_t o = 0; o < set.get_pattern_output_num(); o++)
        bytes += page_rounded(set.get_pattern_output_size(o));
    return bytes <= kDeviceBudget;
}

// The work of every code buffer as the player relocated it.
bool work_fits(qoraPattern& set)
{
    double work = 0;
    for (uint32_t c = 0; c < cmd_list.size() && c < set.get_pattern_code_num(); c++)
        if (buffer* code = set.get_pattern_codebuf(c))
            work += engine_work(cmd_list[c]->buf, code->size);
    return work <= kWorkBudget;
}

int home_dir = -1; // where the process started

} // namespace

// Each input changes into the scratch directory, where the player writes
// its dumps, and back: libFuzzer reads and writes corpus files by the paths
// it was given. Crash files written during a run would land in the scratch
// directory, so unless the command line says where they go, they go to the
// starting directory by its full path.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    home_dir = open(".", O_RDONLY | O_DIRECTORY);
    for (int i = 1; i < *argc; i++)
        if (strncmp((*argv)[i], "-artifact_prefix=", 17) == 0 || strncmp((*argv)[i], "-exact_artifact_path=", 21) == 0)
            return 0;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof(cwd)) == nullptr)
        return 0;
    static std::string prefix = std::string("-artifact_prefix=") + cwd + "/";
    static std::vector<char*> args;
    args.assign(*argv, *argv + *argc);
    args.insert(args.begin() + 1, &prefix[0]);
    args.push_back(nullptr);
    *argv = args.data();
    *argc += 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < kSettings)
        return 0;
    const uint8_t* s = data;
    std::vector<text_part> parts = split_parts(data + kSettings, size - kSettings);
    if (!load_is_cheap(parts, (s[0] & 1) != 0))
        return 0;
    std::vector<std::string> patterns{write_input("p.hex", parts[0].data, parts[0].size)};
    std::vector<std::string> goldens;
    for (size_t g = 1; g < parts.size(); g++) {
        std::string name = "g" + std::to_string(g - 1) + ((s[0] & 1) != 0 ? ".bin" : ".hex");
        goldens.push_back(write_input(name, parts[g].data, parts[g].size));
    }
    std::vector<uint16_t> events;
    for (uint32_t k = 0; k < (s[1] & 15u); k++)
        events.push_back(kEvents[((s[1] >> 4) + k) & 15]);
    int prio = (s[2] >> 4) - 1;
    int debug = (s[0] >> 4) & 7;
    set_model_hooks(s);
    if (chdir(fuzz_dir().c_str()) != 0)
        return 0;

    reset_pattern_load_state();
    QORAPlayer* player = new QORAPlayer(s[2] & 15, kLoops, debug, 0, 0, kBoosts[s[3] & 7], 0, 0, true,
                                        (s[0] & 8) != 0);
    qoraPattern* set = nullptr;
    try {
        set = new qoraPattern(patterns, goldens, 1);
    } catch (const std::out_of_range&) {
        // a relocation naming a missing code buffer is reported this way
    }
    if (set != nullptr) {
        if (buffers_fit(*set) &&
            player->BuildCmd(set, prio, events, (s[0] >> 1) & 1, (s[0] & 4) != 0) && work_fits(*set))
            player->Execute();
        std::vector<uint8_t*> code_bytes;
        for (uint32_t c = 0; c < set->get_pattern_code_num(); c++)
            if (buffer* code = set->get_pattern_codebuf(c))
                code_bytes.push_back(code->data);
        delete set;
        for (uint8_t* bytes : code_bytes)
            free(bytes);
    }
    delete player;
    cmd_list.clear();

    if (home_dir >= 0 && fchdir(home_dir) != 0)
        abort();
    return 0;
}
