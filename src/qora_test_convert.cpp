// Conversion modes of the entry point: firmware, then debug log, then
// header generation; the first that the settings ask for runs.
#include <cstdio>

#include "qora_fw.h"
#include "qora_pattern.h"
#include "qora_test_settings.h"
#include "qora_utils.h"

// With --gen_use_dirname the header is named after the directory of the
// first pattern (or golden) file and placed in that directory.
static void name_after_directory(std::string* header, std::string* prefix)
{
    if (!pattern_list.empty())
        *header = pattern_list.front();
    else if (!golden_list.empty())
        *header = golden_list.front();
    if (header->empty())
        return;
    size_t slash = header->rfind('/');
    if (slash == std::string::npos) {
        *prefix = "./";
        *header = "pattern";
    } else {
        *prefix = header->substr(0, slash) + "/";
        *header = directory_name(*header, slash);
    }
    for (char& c : *header) {
        if (c == '.')
            c = 'p';
    }
    for (char& c : *header) {
        if (c == '-')
            c = '_';
    }
}

static void gen_pattern_header_file()
{
    std::string header = gen_hdr_name;
    std::string prefix;
    if (folder_as_name) {
        name_after_directory(&header, &prefix);
        if (header.empty())
            return;
    }
    if (header.empty())
        return;
    qoraPattern* converter = new qoraPattern();
    header += ".h";
    std::string target = prefix + header;
    for (const std::string& pattern : pattern_list)
        converter->convert_pattern_hdr(pattern, header);
    for (const std::string& golden : golden_list)
        converter->convert_golden_hdr(golden, header);
    converter->post_convert(header);
    if (rename(header.c_str(), target.c_str()) == 0)
        printf("Generate %s\n", target.c_str());
    delete converter;
}

bool run_conversion_mode()
{
    if (!fw_elf.empty()) {
        qoraFirmware fw;
        fw.convert_fw_elf_to_hdr(fw_elf);
        return true;
    }
    if (!hex2bin.empty()) {
        qoraPattern* converter = new qoraPattern();
        converter->dump_bin_from_ctp_log(hex2bin);
        delete converter;
        return true;
    }
    if (!gen_hdr_name.empty() || folder_as_name) {
        gen_pattern_header_file();
        return true;
    }
    return false;
}
