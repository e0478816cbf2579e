// Firmware ELF to C header converter (not built yet).
#include "qora_fw.h"

int qoraFirmware::convert_fw_elf_to_hdr(const std::string&)
{
    return -1;
}
