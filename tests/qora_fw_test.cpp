// Firmware converter on real RISC-V ELF images made by binutils, checked
// against objcopy, and on hand-made headers it must refuse.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "qora_fw.h"
#include "test_util.h"

namespace
{

const std::string kTools = "riscv64-unknown-elf-";

bool have_toolchain()
{
    return system(("which " + kTools + "as >/dev/null 2>&1").c_str()) == 0;
}

// Assembles and links `sections` (name, address or -1 for none, body) into dir/name.elf.
std::string build_elf(const std::string& dir, const std::string& name,
                      const std::vector<std::tuple<std::string, long, std::string>>& sections)
{
    std::string source, script = "SECTIONS {\n";
    for (const auto& s : sections) {
        const std::string& sec = std::get<0>(s);
        bool nobits = sec.rfind(".bss", 0) == 0;
        source += ".section " + sec + (nobits ? ",\"aw\",@nobits\n" : ",\"ax\"\n") + std::get<2>(s) + "\n";
        char addr[32];
        snprintf(addr, sizeof(addr), "0x%lx", std::get<1>(s));
        script += "  " + sec + " " + addr + " : { *(" + sec + ") }\n";
    }
    script += "}\n";
    write_file(dir + "/" + name + ".s", source);
    write_file(dir + "/" + name + ".ld", script);
    std::string cmd = "cd '" + dir + "' && " + kTools + "as -march=rv32i -mabi=ilp32 " + name + ".s -o " + name +
        ".o && " + kTools + "ld -m elf32lriscv -s -T " + name + ".ld " + name + ".o -o " + name + ".elf 2>/dev/null";
    EXPECT_EQ(system(cmd.c_str()), 0) << cmd;
    return dir + "/" + name + ".elf";
}

std::string objcopy_section(const std::string& elf, const std::string& section)
{
    std::string bin = elf + section + ".bin";
    std::string cmd = kTools + "objcopy -O binary --only-section=" + section + " '" + elf + "' '" + bin + "'";
    EXPECT_EQ(system(cmd.c_str()), 0);
    return read_file(bin);
}

// The bytes of array `name` in a generated header.
std::string array_bytes(const std::string& header, const std::string& name)
{
    size_t at = header.find("unsigned char " + name + "[] = {\n");
    if (at == std::string::npos)
        return "<missing>";
    size_t end = header.find("};", at);
    std::string bytes;
    for (size_t p = header.find("0x", at); p < end; p = header.find("0x", p + 4))
        bytes.push_back((char)strtoul(header.substr(p + 2, 2).c_str(), nullptr, 16));
    return bytes;
}

// What converting `elf` returned and printed.
struct converted {
    int rc = -2;
    std::string out;
};
converted convert(const std::string& elf)
{
    converted c;
    c.out = capture_stdout([&] { c.rc = qoraFirmware().convert_fw_elf_to_hdr(elf); });
    return c;
}

class Firmware : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!have_toolchain())
            GTEST_SKIP() << "no RISC-V binutils";
        dir = make_tmp_dir(std::string("fw_") + testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    // The header a converted image in `dir` writes: named after the directory.
    std::string header() const { return dir + "/qora_fw_" + dir.substr(dir.rfind('/') + 1) + ".h"; }
    std::string dir;
};

TEST_F(Firmware, SectionsMatchObjcopy)
{
    (void)!system(("mkdir -p '" + dir + "/v1.2'").c_str());
    std::string elf = build_elf(dir + "/v1.2", "rv",
                                {{".qora_boot", 0x10000000, ".word 0x11111111, 0x22222222, 0x33333333"},
                                 {".text_a", 0x19000000, ".byte 1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18"},
                                 {".text_b", 0x19004000, ".word 0xdeadbeef, 1, 2, 3"},
                                 {".text_c", 0x19005000, ".byte 7"},
                                 {".text_out", 0x18FFFFFC, ".word 7"},
                                 {".bss_in", 0x19008000, ".skip 64"}});
    converted c = convert(elf);
    EXPECT_EQ(c.rc, 0);
    std::string hdr_path = dir + "/v1.2/qora_fw_v1p2.h";
    EXPECT_EQ(c.out, "Generate  " + hdr_path + "\n");
    std::string h = read_file(hdr_path);
    // The boot section is the one whose index is the number of names before
    // ".qora_boot" in the name table; GNU ld writes ".shstrtab" first, so
    // that is the section after it (a simplification the converter keeps).
    EXPECT_EQ(array_bytes(h, "rv_boot"), objcopy_section(elf, ".text_a"));
    EXPECT_EQ(array_bytes(h, "rv_19000000"), objcopy_section(elf, ".text_a"));
    EXPECT_EQ(array_bytes(h, "rv_19004000"), objcopy_section(elf, ".text_b"));
    EXPECT_EQ(array_bytes(h, "rv_19005000"), "\x07"); // a one-byte section
    EXPECT_EQ(h.find("rv_18fffffc"), std::string::npos);
    EXPECT_EQ(h.find("rv_19008000"), std::string::npos);
    EXPECT_NE(h.find("0x0f, 0x10,\n0x11, 0x12};\n"), std::string::npos); // 18 bytes: a full row, then two
    EXPECT_NE(h.find("0xef, 0xbe, 0xad, 0xde, 0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, "
                     "0x00};\n"),
              std::string::npos); // 16 bytes: one row, "};" right after
    EXPECT_NE(h.find("} rv_main_section[] = {\n    {rv_19000000, sizeof(rv_19000000), 0x0},\n"
                     "    {rv_19004000, sizeof(rv_19004000), 0x4000},\n"
                     "    {rv_19005000, sizeof(rv_19005000), 0x5000},\n    {NULL, 0, 0}\n};\n"),
              std::string::npos)
        << h;
    const std::string tail = "    {NULL, 0, 0}\n};\n"; // the header ends with the table
    EXPECT_EQ(h.compare(h.size() - std::min(h.size(), tail.size()), std::string::npos, tail), 0);
}

TEST_F(Firmware, NoBootSectionIsRefused)
{
    std::string elf = build_elf(dir, "noboot", {{".text_a", 0x19000000, ".word 1"}});
    converted c = convert(elf);
    EXPECT_EQ(c.out, "no .qora_boot section in " + elf + "\n");
    EXPECT_EQ(c.rc, -1);
    EXPECT_TRUE(std::ifstream(header()).good()); // the header is created and left empty
    EXPECT_EQ(read_file(header()), "");
}

TEST_F(Firmware, LargeSectionsAreCut)
{
    std::string elf = build_elf(
        dir, "big", {{".qora_boot", 0x10000000, ".word 1"}, {".text_big", 0x19000000, ".fill 300000, 1, 0xab"}});
    ASSERT_EQ(convert(elf).rc, 0);
    EXPECT_EQ(array_bytes(read_file(header()), "rv_19000000"), std::string(262144, '\xab'));
}

// 30 sections convert, 31 are refused: dummy sections fill the table up.
TEST_F(Firmware, SectionCountLimit)
{
    for (int wanted : {30, 31}) {
        std::vector<std::tuple<std::string, long, std::string>> sections = {{".qora_boot", 0x10000000, ".word 1"}};
        int extra = wanted - 4; // the null section, .riscv.attributes and .shstrtab come with every image
        for (int i = 0; i < extra; i++)
            sections.emplace_back(".d" + std::to_string(i), 0x20000000 + 0x100 * i, ".word " + std::to_string(i));
        std::string elf = build_elf(dir, "n" + std::to_string(wanted), sections);
        std::string bytes = read_file(elf);
        uint16_t shnum;
        memcpy(&shnum, bytes.data() + 48, 2);
        ASSERT_EQ(shnum, wanted);
        converted c = convert(elf);
        EXPECT_EQ(c.rc, wanted == 30 ? 0 : -1) << c.out;
        EXPECT_EQ(c.out == "shentsize(40) or shnum(31) value is abnormal\n", wanted == 31) << c.out;
    }
}

TEST(FirmwareHeaders, RefusedImagesAndNaming)
{
    std::string dir = make_tmp_dir("fw_refused");
    std::string elf32 = std::string("\177ELF\1\2", 6) + std::string(46, '\0'); // big-endian
    std::string elf64 = std::string("\177ELF\2\1", 6) + std::string(58, '\0'); // 64-bit, read as 32-bit
    elf64[46] = 64; // e_shentsize as the 32-bit layout sees it
    const struct {
        const char* name;
        std::string bytes;
        std::string printed;
    } cases[] = {
        {"short.elf", "\177ELF", "read header fail\n"},
        {"magic.elf", std::string(52, 'x'), "Not an ELF file - it has the wrong magic bytes at the start\n"},
        {"big.elf", elf32, "Only support LSB data!!\n"},
        {"wide.elf", elf64, "shentsize(64) or shnum(0) value is abnormal\n"},
    };
    for (const auto& c : cases) {
        write_file(dir + "/" + c.name, c.bytes);
        converted r = convert(dir + "/" + c.name);
        EXPECT_EQ(r.out, c.printed) << c.name;
        EXPECT_EQ(r.rc, -1) << c.name;
    }
    EXPECT_EQ(convert(dir + "/none.elf").out, "open file(" + dir + "/none.elf) error\n");
    // A bare file name writes qora_fw.h in the working directory.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(dir.c_str()), 0);
    convert("wide.elf");
    EXPECT_EQ(access("qora_fw.h", F_OK), 0);
    ASSERT_EQ(chdir(cwd), 0);
}

} // namespace
