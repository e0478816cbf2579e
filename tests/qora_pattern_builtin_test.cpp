// The built-in patterns "Test" and "MaxPower": every fixed fact of their
// generated headers (names, sizes, counts, binding rows, data rows, golden
// and mask), read from the compiled tables themselves and from the pattern
// sets the reserved names build; and both verify on the engine model under
// the run options that stress them, each code buffer running its
// convolutions to the end without reaching the on-chip memory, as the
// model's own call and instruction traces show.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "test_util.h"

// The headers define their tables; a namespace of their own keeps them
// apart from the library's copies.
namespace hdr
{
#include "pattern/conv2d_uint8.h"
#include "pattern/max_pwr4_pi_test.h"
} // namespace hdr

namespace
{

// A header's tables in text: binding rows "ofs target dev_va shift", data
// rows "addr size dev_va is_tmp"; targets named by their data row's address
// text, "Output", or else their pointer.
struct header_facts {
    unsigned cmd_len;
    size_t command_size, output_size;
    unsigned binding_num, data_num;
    std::vector<std::string> bindings, data;
    bool tables_end_with_zero_rows;
    size_t golden_size;
    unsigned golden_len;
    size_t mask_size; // 0: the mask is a null pointer
};

template <class B, class D> header_facts read_tables(const B* binding, const D* data, const unsigned char* output)
{
    header_facts f {};
    std::map<const unsigned char*, std::string> names = {{output, "Output"}};
    for (const D* d = data; d->data != NULL; d++) {
        names[d->data] = d->data_addr_str;
        f.data.push_back(std::string(d->data_addr_str) + " " + std::to_string(d->size) + " " +
                         std::to_string(d->dev_va) + " " + std::to_string(d->is_tmp));
    }
    const B* b = binding;
    for (; b->data != NULL; b++) {
        char pointer[32];
        snprintf(pointer, sizeof(pointer), "%p", (void*)b->data);
        std::string target = names.count(b->data) ? names[b->data] : pointer;
        f.bindings.push_back(std::to_string(b->ofs) + " " + target + " " + std::to_string(b->dev_va) + " " +
                             std::to_string(b->shift));
    }
    const D* end = data + f.data.size();
    f.tables_end_with_zero_rows = b->ofs == 0 && b->dev_va == 0 && b->shift == 0 && end->data_addr_str == NULL &&
        end->size == 0 && end->dev_va == 0 && end->is_tmp == 0;
    return f;
}

// A null mask has no bytes; a mask array, its size.
template <class T> size_t mask_bytes(const T& mask)
{
    if constexpr (std::is_array_v<T>)
        return sizeof(mask);
    else
        return mask == NULL ? 0 : 1;
}

// The facts of the tables a header generated under NAME declares.
#define HEADER_FACTS(NAME)                                                                                             \
    [] {                                                                                                               \
        header_facts f = read_tables(hdr::NAME##_binding, hdr::NAME##_data, hdr::NAME##_Output);                       \
        f.cmd_len = hdr::NAME##_cmd_len;                                                                               \
        f.command_size = sizeof(hdr::NAME##_Command);                                                                  \
        f.output_size = sizeof(hdr::NAME##_Output);                                                                    \
        f.binding_num = hdr::NAME##_binding_num;                                                                       \
        f.data_num = hdr::NAME##_data_num;                                                                             \
        f.golden_size = sizeof(hdr::NAME##_golden);                                                                    \
        f.golden_len = hdr::NAME##_golden_len;                                                                         \
        f.mask_size = mask_bytes(hdr::NAME##_golden_mask);                                                             \
        return f;                                                                                                      \
    }

const struct builtin {
    const char* reserved;
    const char* name;
    header_facts (*facts)();
    header_facts expected;
    int convolutions; // CONV instructions each code buffer runs
} kBuiltins[] = {
    {"Test",
     "conv2d_uint8",
     HEADER_FACTS(conv2d_uint8),
     {0x20,
      320,
      51200,
      4,
      4,
      {"68 40000000 0 0", "112 40001000 0 0", "148 40005000 0 0", "272 Output 0 0"},
      {"Command 320 0 0", "40000000 128 0 0", "40005000 230400 0 0", "40001000 9216 0 0"},
      true,
      51200,
      51200,
      0},
     1},
    {"MaxPower",
     "max_pwr4_pi",
     HEADER_FACTS(max_pwr4_pi_test),
     {0x41,
      672,
      294912,
      6,
      5,
      {"72 40000000 0 0", "168 40008000 0 0", "228 40001000 0 0", "432 40006000 0 0", "436 40006000 0 0",
       "604 Output 0 0"},
      {"Command 672 0 0", "40000000 512 0 0", "40008000 663552 0 0", "40001000 18432 0 0", "40006000 256 0 0"},
      true,
      294912,
      294912,
      294912},
     2},
};

TEST(BuiltinPattern, HeadersHoldTheFixedTables)
{
    for (const builtin& b : kBuiltins) {
        header_facts f = b.facts();
        const header_facts& e = b.expected;
        EXPECT_EQ(f.cmd_len, e.cmd_len) << b.name;
        EXPECT_EQ(f.command_size, e.command_size) << b.name;
        EXPECT_EQ(f.output_size, e.output_size) << b.name;
        EXPECT_EQ(f.binding_num, e.binding_num) << b.name;
        EXPECT_EQ(f.data_num, e.data_num) << b.name;
        EXPECT_EQ(f.bindings, e.bindings) << b.name;
        EXPECT_EQ(f.data, e.data) << b.name;
        EXPECT_TRUE(f.tables_end_with_zero_rows) << b.name;
        EXPECT_EQ(f.golden_size, e.golden_size) << b.name;
        EXPECT_EQ(f.golden_len, e.golden_len) << b.name;
        EXPECT_EQ(f.mask_size, e.mask_size) << b.name;
    }
}

// What a pattern set built from the reserved name gives the command layer.
std::string describe_builtin(const char* reserved, int threads)
{
    std::vector<std::string> patterns = {reserved}, goldens;
    qoraPattern set(patterns, goldens, threads);
    std::ostringstream d;
    d << set.get_pattern_name() << " code_num=" << set.get_pattern_code_num();
    for (uint32_t c = 0; c < set.get_pattern_code_num(); c++)
        d << " code" << c << "=" << set.get_pattern_codebuf(c)->size << "/" << set.get_pattern_binding_num(c);
    d << " data_num=" << set.get_pattern_data_num() << " first_data=" << set.get_pattern_data()[0].data_addr_str
      << " outputs=" << set.get_pattern_output_num() << " output=" << set.get_pattern_output_size(0)
      << " goldens=" << set.get_pattern_golden_num() << " golden=" << set.get_pattern_golden_size(0)
      << " mask=" << (set.get_pattern_golden_addr_mask(0) != nullptr);
    return d.str();
}

TEST(BuiltinPattern, ReservedNamesBuildSetsFromTheTables)
{
    for (const builtin& b : kBuiltins) {
        const header_facts& e = b.expected;
        std::ostringstream want;
        want << b.name << " code_num=3";
        for (int c = 0; c < 3; c++)
            want << " code" << c << "=" << e.command_size << "/" << e.binding_num;
        want << " data_num=" << e.data_num - 1 << " first_data=" << e.data[1].substr(0, 8) << " outputs=1"
             << " output=" << e.output_size << " goldens=1 golden=" << e.golden_len << " mask=" << (e.mask_size != 0);
        EXPECT_EQ(run_isolated([&] { return describe_builtin(b.reserved, 3); }).result, want.str());
    }
}

// The engine model's traces of one run: the sub-commands that finished, the
// cores they ran on, the CONV instructions each ran and whether anything
// reached the on-chip memory.
struct model_view {
    int finished = 0;
    std::set<int> cores;
    std::map<std::string, int> convolutions; // per sub-command
    bool on_chip = false;
};

model_view read_traces(const std::string& calls, const std::string& instructions)
{
    model_view v;
    std::istringstream c(calls);
    for (std::string line; std::getline(c, line);) {
        int core = -1;
        if (sscanf(line.c_str(), "engine_run(subcmd#%*d, core %d", &core) == 1 &&
            line.find("= cause 0x00,") != std::string::npos) {
            v.finished++;
            v.cores.insert(core);
        }
        if (line.find("KORVEX_MEM_TYPE_VLM") != std::string::npos || line.find("vlm_usage") != std::string::npos)
            v.on_chip = true;
    }
    std::istringstream i(instructions);
    for (std::string line; std::getline(i, line);) {
        std::string subcmd = line.substr(0, line.find(' '));
        if (line.find(" CONV ") != std::string::npos)
            v.convolutions[subcmd]++;
        // The memory it read and wrote: "read=0xADDR+N", "write=0xADDR+N".
        std::istringstream words(line);
        for (std::string w; words >> w;) {
            size_t eq = w.find('=');
            std::string key = w.substr(0, eq == std::string::npos ? 0 : eq);
            unsigned long addr = (key == "read" || key == "write") ? strtoul(w.c_str() + eq + 1, nullptr, 16) : 0;
            if (addr >= 0x1D800000 && addr <= 0x1DFFFFFF)
                v.on_chip = true;
        }
    }
    return v;
}

const struct run_case {
    const char* options;
    int threads, loops, cores; // cores: KVX_MODEL_CORES
} kRuns[] = {
    {"-t 1", 1, 1, 2},
    {"-t 2", 2, 1, 2},
    {"-t 3", 3, 1, 4},
    {"-t 4", 4, 1, 4},
    {"-l 3", 1, 3, 2},
    {"-p 0x0101 -p 0x0103 -p 0x1701", 1, 1, 2},
    {"--flusher -p 0x0103 -p 0x1701", 1, 1, 2},                                                   // burst 2
    {"--flusher -p 0x0101 -p 0x0102 -p 0x0103 -p 0x1001 -p 0x1002 -p 0x1003 -p 0x1701", 1, 1, 2}, // burst 4
    {"-t 4 -l 3 --flusher -p 0x0103 -p 0x1708", 4, 3, 4},
};

TEST(BuiltinPattern, BothVerifyOnTheModelWithoutOnChipMemory)
{
    std::string dir = make_tmp_dir("builtin_runs");
    for (const builtin& b : kBuiltins)
        for (const run_case& r : kRuns) {
            std::string what = std::string(b.reserved) + " " + r.options;
            std::string calls = dir + "/calls", instructions = dir + "/instructions", out;
            remove(calls.c_str());
            remove(instructions.c_str());
            std::string env = "KVX_MODEL_CORES=" + std::to_string(r.cores) + " KVX_MODEL_TRACE=" + calls +
                " KVX_MODEL_ITRACE=" + instructions;
            ASSERT_EQ(run_player("-f " + std::string(b.reserved) + " " + r.options, &out, false, env), 0) << what;
            EXPECT_NE(out.find("Verify pattern " + std::to_string(r.loops) + " times : success\n"), std::string::npos)
                << what;
            model_view v = read_traces(read_file(calls), read_file(instructions));
            EXPECT_EQ(v.finished, r.threads * r.loops) << what;
            EXPECT_EQ((int)v.cores.size(), std::min(r.threads, r.cores)) << what;
            EXPECT_EQ((int)v.convolutions.size(), r.threads * r.loops) << what;
            for (const auto& sub : v.convolutions)
                EXPECT_EQ(sub.second, b.convolutions) << what << " " << sub.first;
            EXPECT_FALSE(v.on_chip) << what;
        }
}

} // namespace
