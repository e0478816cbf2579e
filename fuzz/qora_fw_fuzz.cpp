// Firmware converter: any bytes as a firmware ELF image.
#include "fuzz_util.h"
#include "qora_fw.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qoraFirmware fw;
    fw.convert_fw_elf_to_hdr(write_input("fw.elf", data, size));
    return 0;
}
