// Pattern header generator: any bytes as a ".hex" pattern converted to a header.
#include "fuzz_util.h"
#include "qora_pattern.h"
#include "qora_pattern_conv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    reset_pattern_conversion_state(); // one conversion per input, as per process in the player
    std::string pattern = write_input("p.hex", data, size);
    qoraPattern converter;
    converter.convert_pattern_hdr(pattern, fuzz_dir() + "/p.h");
    return 0;
}
