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
//   bytes 4 and 5 are not read (the kept corpus has them)
//
// The player keeps some state for the life of the process on purpose (one
// run per process): the text loader's cross-file state, the command layer's
// list of command-buffer records, and the code bytes of every loaded
// pattern. Each input puts them back, so that memory stays flat and every
// input starts where a process starts.
//
// Cost grows with what the text declares, not with its length: every buffer
// may take a 768 KiB binding table, every golden region is as long as its
// output (data and mask), and the model backs every output. Inputs that
// declare more than kBudget bytes are not loaded. The model runs the code as
// it is, and a convolution over the on-chip memory alone can take minutes:
// the model is given a work limit of kWorkLimit steps a run
// (KVX_MODEL_WORK_LIMIT), and the instruction that would pass it faults
// before doing its work. So one input takes milliseconds; the loaders have
// targets of their own for large files.
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "qora_pattern.h"
#include "qora_pattern_internal.h"
#include "qora_pattern_reader.h"
#include "qora_player.h"

namespace
{

const size_t kSettings = 6;
const size_t kMaxGoldens = 4;
const int kLoops = 2;
// Bytes the binding tables, outputs and golden regions an input declares
// may take.
const uint64_t kBudget = 32u << 20;
const uint64_t kBindingTable = 768u << 10;
// Steps of engine work one run may take: about 50 ms of the sanitized model.
const char kWorkLimit[] = "2000000";

// The events the model counts, then some it does not.
const uint16_t kEvents[16] = {0x0101, 0x0102, 0x0103, 0x1001, 0x1002, 0x1003, 0x1701, 0x1708,
                              0x2001, 0x2002, 0x0000, 0x0104, 0x1709, 0x2003, 0xFFFF, 0x1708};
// Not given, the range's ends, inside it, turbo; never random, so that a
// run does the same every time.
const int kBoosts[8] = {-2, -2, 0, 1, 57, 100, 101, 110};
const char* const kCores[4] = {"2", "1", "4", "0"};

// The pattern text, then one part per golden.
std::vector<std::string> split_parts(const std::string& text)
{
    std::vector<std::string> parts(1);
    for (size_t at = 0, next; at < text.size(); at = next) {
        next = std::min(text.find('\n', at), text.size() - 1) + 1;
        if (parts.size() <= kMaxGoldens && text.compare(at, next - at, "#golden\n") == 0)
            parts.emplace_back();
        else
            parts.back().append(text, at, next - at);
    }
    return parts;
}

// Pieces the loaders read that start with `c`: text is read as fgets with a
// 120-byte buffer reads it, at most 119 characters ending after a line feed.
size_t pieces_starting_with(const std::string& text, char c)
{
    size_t count = 0;
    size_t column = 0;
    for (char t : text) {
        count += column == 0 && t == c;
        column = t == '\n' ? 0 : (column + 1) % (QORA_LINE_BUF - 1);
    }
    return count;
}

// At most the output size the text from `p` on declares: the loader reads
// "{%10d}" into an int and keeps 1 to 0x3FFFFFFF.
uint64_t declared_size(const std::string& t, size_t p)
{
    uint64_t value = 0;
    p = std::min(t.find_first_not_of(" \t\n\v\f\r+", p), t.size());
    for (size_t end = std::min(p + 10, t.size()); p < end && isdigit((unsigned char)t[p]); p++)
        value = value * 10 + (uint64_t)(t[p] - '0');
    return std::min<uint64_t>(value, 0x3FFFFFFF);
}

// What loading and the device may cost, bounded from the text alone: a
// binding table for every buffer the pattern can open, the outputs it can
// declare (in the player's 4 KiB allocations), and the golden regions (one
// per '@' piece of a text golden, one per binary golden), each as long as
// the longest output.
bool load_is_cheap(const std::vector<std::string>& parts, bool binary_goldens)
{
    uint64_t bytes = pieces_starting_with(parts[0], '@') * kBindingTable;
    uint64_t longest = 0;
    for (size_t at = parts[0].find('{'); at != std::string::npos; at = parts[0].find('{', at + 1)) {
        uint64_t size = declared_size(parts[0], at + 1);
        bytes += (size + 4095) & ~(uint64_t)4095;
        longest = std::max(longest, size);
    }
    uint64_t regions = 0;
    for (size_t g = 1; g < parts.size(); g++)
        regions += binary_goldens ? 1 : pieces_starting_with(parts[g], '@');
    return bytes + regions * 2 * (longest + 16384) <= kBudget;
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
    std::vector<std::string> parts = split_parts(std::string((const char*)data + kSettings, size - kSettings));
    if (!load_is_cheap(parts, (s[0] & 1) != 0))
        return 0;
    std::vector<std::string> patterns {write_input("p.hex", (const uint8_t*)parts[0].data(), parts[0].size())};
    std::vector<std::string> goldens;
    for (size_t g = 1; g < parts.size(); g++) {
        std::string name = "g" + std::to_string(g - 1) + ((s[0] & 1) != 0 ? ".bin" : ".hex");
        goldens.push_back(write_input(name, (const uint8_t*)parts[g].data(), parts[g].size()));
    }
    std::vector<uint16_t> events;
    for (uint32_t k = 0; k < (s[1] & 15u); k++)
        events.push_back(kEvents[((s[1] >> 4) + k) & 15]);
    // The model reads these at every new session.
    setenv("KVX_MODEL_NO_VLM", (s[0] & 0x80) != 0 ? "1" : "0", 1);
    setenv("KVX_MODEL_CORES", kCores[(s[3] >> 3) & 3], 1);
    setenv("KVX_MODEL_WORK_LIMIT", kWorkLimit, 1);
    if (chdir(fuzz_dir().c_str()) != 0)
        return 0;

    reset_pattern_load_state();
    QORAPlayer* player =
        new QORAPlayer(s[2] & 15, kLoops, (s[0] >> 4) & 7, 0, 0, kBoosts[s[3] & 7], 0, 0, true, (s[0] & 8) != 0);
    qoraPattern* set = nullptr;
    try {
        set = new qoraPattern(patterns, goldens, 1);
    } catch (const std::out_of_range&) {
        // a relocation naming a missing code buffer is reported this way
    }
    if (set != nullptr) {
        if (player->BuildCmd(set, (s[2] >> 4) - 1, events, (s[0] >> 1) & 1, (s[0] & 4) != 0))
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
