// Firmware converter: turns a 32-bit little-endian firmware ELF image into a
// C header holding its boot section and its main sections (0x1900xxxx).
//
// Contract: convert_fw_elf_to_hdr returns 0 when the header was written and
// -1 on any failure; each call opens and closes its own files.
#ifndef QORA_FW_H
#define QORA_FW_H

#include <string>

class qoraFirmware
{
public:
    int convert_fw_elf_to_hdr(const std::string& file);
};

#endif // QORA_FW_H
