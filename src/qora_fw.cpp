// Firmware converter: a 32-bit little-endian ELF image into a C header of
// its boot section and its main sections (addresses 0x1900xxxx).
#include "qora_fw.h"

#include <elf.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qora_utils.h"

static const uint32_t kMaxSectionBytes = 0x40000; // longer sections are cut
static const char kBootName[] = ".qora_boot";

// Rows of 16 "0x%02x" items for `size` bytes from the input's position,
// then "};\n" right after the last byte.
static void convert_fw_code(FILE* input_fp, FILE* output_fp, int size)
{
    uint32_t left = size < 1 ? 0 : (uint32_t)size > kMaxSectionBytes ? kMaxSectionBytes : (uint32_t)size;
    bool first = true;
    while (left > 0) {
        if (!first)
            emit_text(output_fp, "convert_fw_code", ",\n", 2);
        first = false;
        uint8_t bytes[16] = {0};
        size_t want = left < 16 ? left : 16;
        size_t got = fread(bytes, 1, want, input_fp);
        if (got == 0)
            break;
        char row[16 * 6];
        emit_text(output_fp, "convert_fw_code", row, hex_byte_items(bytes, got, row));
        if (got < 16)
            break;
        left -= 16;
    }
    emit_text(output_fp, "convert_fw_code", "};\n", 3);
}

// "qora_fw.h" for a bare file name, else "<dir>/qora_fw_<last dir>.h" with
// every '.' of the directory's name turned into 'p'.
static std::string header_name(const std::string& file)
{
    size_t slash = file.rfind('/');
    if (slash == std::string::npos)
        return "qora_fw.h";
    std::string last = directory_name(file, slash);
    for (char& c : last)
        if (c == '.')
            c = 'p';
    return file.substr(0, slash) + "/qora_fw_" + last + ".h";
}

// The open files and the section table of one conversion.
struct fw_job {
    FILE* in;
    FILE* out;
    uint8_t* block; // e_shnum headers, then one selection flag per section
    uint16_t shnum;

    int fail()
    {
        free(block);
        close_reporting(out, "convert_fw_elf_to_hdr", __LINE__);
        close_reporting(in, "convert_fw_elf_to_hdr", __LINE__);
        return -1;
    }
    Elf32_Shdr header(uint32_t i) const
    {
        Elf32_Shdr sh;
        memcpy(&sh, block + (size_t)i * sizeof(Elf32_Shdr), sizeof(sh));
        return sh;
    }
    uint8_t* flags() const { return block + (size_t)shnum * sizeof(Elf32_Shdr); }
};

static bool seek_to(FILE* fp, uint32_t offset, int line)
{
    if (fseek(fp, (long)offset, SEEK_SET) == 0)
        return true;
    printf("Reposition fail %d\n", line);
    return false;
}

// Index of the ".qora_boot" section: the number of names before it in the
// name table (one name per section, in section order). -1 on a read error,
// -2 when no such name is within the table.
static int find_boot_section(FILE* in, uint32_t table_size)
{
    char name[32];
    size_t len = 0;
    int index = 0;
    for (uint32_t i = 0; i < table_size; i++) {
        int c = fgetc(in);
        if (c == EOF) {
            if (ferror(in)) {
                puts("fgetc error!!");
                clearerr(in);
                return -1;
            }
            break;
        }
        if (c != 0) {
            if (len < sizeof(name) - 1) // longer names are cut, never overrun
                name[len++] = (char)c;
            continue;
        }
        name[len] = '\0';
        if (strncmp(name, kBootName, sizeof(kBootName) - 1) == 0)
            return index;
        index++;
        len = 0;
    }
    return -2;
}

static void write_table(FILE* out, const fw_job& job)
{
    const char* func = "convert_fw_elf_to_hdr";
    static const char head[] = "\nstruct {\n    unsigned char *data;\n    unsigned int size;\n    unsigned int ofs;\n"
                               "} rv_main_section[] = {\n";
    emit_text(out, func, head, sizeof(head) - 1);
    for (uint32_t i = 0; i < job.shnum; i++) {
        if (!job.flags()[i])
            continue;
        uint32_t addr = job.header(i).sh_addr;
        emit(out, func, "    {rv_%08x, sizeof(rv_%08x), 0x%x},\n", addr, addr, addr & 0xFFFF);
    }
    static const char tail[] = "    {NULL, 0, 0}\n};\n";
    emit_text(out, func, tail, sizeof(tail) - 1);
}

// Opens an ELF image and reads its file header; null (after saying why) when
// it cannot be read or is not a little-endian ELF file.
static FILE* open_elf(const std::string& file, Elf32_Ehdr* eh)
{
    FILE* in = fopen(file.c_str(), "rb");
    if (in == nullptr) {
        printf("open file(%s) error\n", file.c_str());
        return nullptr;
    }
    const char* refusal = nullptr;
    if (fread(eh, 1, sizeof(*eh), in) != sizeof(*eh))
        refusal = "read header fail";
    else if (memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0)
        refusal = "Not an ELF file - it has the wrong magic bytes at the start";
    else if (eh->e_ident[EI_DATA] != ELFDATA2LSB)
        refusal = "Only support LSB data!!";
    if (refusal == nullptr)
        return in;
    puts(refusal);
    close_reporting(in, "convert_fw_elf_to_hdr", __LINE__);
    return nullptr;
}

// Reads every section header into the job, selects the loadable sections
// of the firmware's address window and finds the section-name table.
static bool read_section_headers(fw_job& job, const Elf32_Ehdr& eh, Elf32_Shdr* names)
{
    job.block = (uint8_t*)malloc((size_t)eh.e_shnum * (sizeof(Elf32_Shdr) + 1));
    if (job.block == nullptr) {
        puts("Allocate memory fail!!");
        return false;
    }
    memset(job.flags(), 0, eh.e_shnum);
    if (!seek_to(job.in, eh.e_shoff, 154))
        return false;
    for (uint32_t i = 0; i < eh.e_shnum; i++) {
        uint8_t* slot = job.block + (size_t)i * sizeof(Elf32_Shdr);
        if (fread(slot, 1, sizeof(Elf32_Shdr), job.in) != sizeof(Elf32_Shdr)) {
            puts("read shdr fail");
            return false;
        }
        Elf32_Shdr sh = job.header(i);
        if (i == eh.e_shstrndx)
            *names = sh;
        job.flags()[i] = (sh.sh_addr >> 16) == 0x1900 && sh.sh_type != SHT_NOBITS;
    }
    return true;
}

// Writes the boot section's array, then one array per selected section.
static bool write_sections(fw_job& job, const Elf32_Shdr& boot_sh)
{
    if (!seek_to(job.in, boot_sh.sh_offset, 203))
        return false;
    static const char boot_head[] = "unsigned char rv_boot[] = {\n";
    emit_text(job.out, "convert_fw_elf_to_hdr", boot_head, sizeof(boot_head) - 1);
    convert_fw_code(job.in, job.out, (int)boot_sh.sh_size);
    for (uint32_t i = 0; i < job.shnum; i++) {
        if (!job.flags()[i])
            continue;
        Elf32_Shdr sh = job.header(i);
        if (!seek_to(job.in, sh.sh_offset, 215))
            return false;
        emit(job.out, "convert_fw_elf_to_hdr", "\nunsigned char rv_%08x[] = {\n", sh.sh_addr);
        convert_fw_code(job.in, job.out, (int)sh.sh_size);
    }
    return true;
}

int qoraFirmware::convert_fw_elf_to_hdr(const std::string& file)
{
    Elf32_Ehdr eh;
    FILE* in = open_elf(file, &eh);
    if (in == nullptr)
        return -1;
    std::string out_name = header_name(file);
    FILE* out = fopen(out_name.c_str(), "w");
    if (out == nullptr) {
        printf("open file(%s) error \n", out_name.c_str());
        close_reporting(in, "convert_fw_elf_to_hdr", __LINE__);
        return -1;
    }
    fw_job job {in, out, nullptr, eh.e_shnum};
    if (eh.e_shentsize != sizeof(Elf32_Shdr) || eh.e_shnum >= 31) {
        printf("shentsize(%d) or shnum(%d) value is abnormal\n", eh.e_shentsize, eh.e_shnum);
        return job.fail();
    }
    Elf32_Shdr names {};
    if (!read_section_headers(job, eh, &names) || !seek_to(in, names.sh_offset, 174))
        return job.fail();
    int boot = find_boot_section(in, names.sh_size);
    if (boot == -1)
        return job.fail();
    if (boot < 0 || boot >= eh.e_shnum) {
        printf("no %s section in %s\n", kBootName, file.c_str());
        return job.fail();
    }
    if (!write_sections(job, job.header((uint32_t)boot)))
        return job.fail();
    write_table(out, job);
    free(job.block);
    close_reporting(out, "convert_fw_elf_to_hdr", __LINE__);
    close_reporting(in, "convert_fw_elf_to_hdr", __LINE__);
    printf("Generate  %s\n", out_name.c_str());
    return 0;
}
