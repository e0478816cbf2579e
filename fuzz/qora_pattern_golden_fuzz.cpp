// Golden loaders: any bytes as a text or binary golden (chosen by the first
// byte) against a pattern that declares three outputs. The pattern has no
// code buffer: the set keeps code bytes on purpose, which would pile up
// over millions of runs.
#include "fuzz_util.h"
#include "qora_pattern.h"

static const char kPattern[] = "// Output\n"
                               "// @40009000 {64}\n"
                               "// @4000A000 {20}\n"
                               "// @40000000 {4096}\n";

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    static const std::string pattern = write_input("p.hex", (const uint8_t*)kPattern, sizeof(kPattern) - 1);
    const char* name = data[0] & 1 ? "g.bin" : "g.hex";
    std::vector<std::string> patterns {pattern};
    std::vector<std::string> goldens {write_input(name, data + 1, size - 1)};
    qoraPattern set(patterns, goldens, 1);
    for (uint32_t i = 0; i < set.get_pattern_golden_num(); i++)
        set.get_pattern_golden_size(i);
    return 0;
}
