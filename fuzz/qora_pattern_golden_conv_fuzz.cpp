// Golden header generator: any bytes as a text golden with a recognised name
// or a binary golden (chosen by the first byte), then post-conversion.
#include "fuzz_util.h"
#include "qora_pattern.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const char* name = data[0] & 1 ? "g.bin" : "cmodel_output.hex";
    std::string golden = write_input(name, data + 1, size - 1);
    std::string header = fuzz_dir() + "/g.h";
    qoraPattern converter;
    converter.convert_golden_hdr(golden, header);
    converter.post_convert(header);
    return 0;
}
