// Pattern text loader: any bytes as a ".hex" pattern file, built into a set
// and released again.
#include <stdexcept>

#include "fuzz_util.h"
#include "qora_pattern.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> patterns{write_input("p.hex", data, size)};
    std::vector<std::string> goldens;
    try {
        qoraPattern set(patterns, goldens, 1);
        set.get_pattern_output_num();
    } catch (const std::out_of_range&) {
        // a relocation naming a missing code buffer is reported this way
    }
    return 0;
}
