// Debug-log converter: any bytes as a log holding a buffer dump.
#include "fuzz_util.h"
#include "qora_pattern.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qoraPattern converter;
    converter.dump_bin_from_ctp_log(write_input("run.log", data, size));
    return 0;
}
