// Pattern text loader: any bytes as a ".hex" pattern file, built into a set
// and released again. The set keeps its code bytes on purpose; the target
// releases them itself so that memory stays flat over millions of runs.
#include <stdexcept>

#include "fuzz_util.h"
#include "qora_pattern.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> patterns {write_input("p.hex", data, size)};
    std::vector<std::string> goldens;
    std::vector<uint8_t*> code_bytes;
    try {
        qoraPattern set(patterns, goldens, 1);
        set.get_pattern_output_num();
        for (uint32_t i = 0; i < set.get_pattern_code_num(); i++)
            code_bytes.push_back(set.get_pattern_codebuf(i)->data);
    } catch (const std::out_of_range&) {
        // a relocation naming a missing code buffer is reported this way
    }
    for (uint8_t* bytes : code_bytes)
        free(bytes);
    return 0;
}
