// Golden header generator: appends a pattern's expected output (and, for
// the two recognised text goldens, its compare mask) to a generated header;
// post-conversion supplies a null mask when none was written.
#include <cstring>

#include "qora_pattern.h"
#include "qora_pattern_conv.h"
#include "qora_pattern_hexline.h"
#include "qora_pattern_reader.h"
#include "qora_utils.h"

static char mask_char(char c)
{
    return c == 'x' ? '0' : 'f';
}

static char data_char(char c)
{
    return c == 'x' ? '0' : c;
}

// One array of a text golden: every data line as items rewritten by `map`.
// Returns false on a line that filled the read buffer.
static bool golden_array(FILE* in, FILE* out, char (*map)(char))
{
    const char* func = "convert_golden_hex_to_hdr";
    prepare_progress_bar(in, false); // counts the lines again; no bar is shown
    line_reader reader(in);
    char str[QORA_LINE_BUF];
    text_piece line;
    bool first = true;
    while ((line = reader.next()).n > 0) {
        terminate_piece(line, str);
        size_t len = strlen(str);
        if (len < 32 || str[0] == '/' || str[0] == '@')
            continue;
        if (len >= QORA_LINE_BUF - 1) {
            puts("Warning : len >= 120");
            return false;
        }
        char tok[16][3] = {};
        if (scan_hex_tokens(str, tok) < 16)
            printf("%s():%d sscanf fail\n", func, __LINE__);
        char items[128];
        size_t n = format_items(tok, map, items);
        emit_text(out, func, first ? "\n" : ",\n", first ? 1 : 2);
        emit_text(out, func, items, n);
        first = false;
    }
    return true;
}

static int convert_golden_hex_to_hdr(FILE* in, FILE* out, const std::string& golden, const std::string& name)
{
    const char* func = "convert_golden_hex_to_hdr";
    std::string base = golden.substr(golden.rfind('/') == std::string::npos ? 0 : golden.rfind('/') + 1);
    if (base == "raw_qora_output.hex" || base == "cmodel_output.hex") {
        emit(out, func, "unsigned char %s_golden_mask[] __attribute__ ((aligned (16))) = {", name.c_str());
        if (!golden_array(in, out, mask_char)) {
            close_reporting(out, func, __LINE__);
            close_reporting(in, func, __LINE__);
            return -1;
        }
        emit(out, func, "};\n");
        emit(out, func, "unsigned char %s_golden[] __attribute__ ((aligned (16))) = {", name.c_str());
        if (!golden_array(in, out, data_char)) {
            close_reporting(out, func, __LINE__); // only the header, as it always was
            return -1;
        }
        emit(out, func, "};\n");
        emit(out, func, "unsigned int %s_golden_len = sizeof(%s_golden);\n", name.c_str(), name.c_str());
        mask_exist = true;
    }
    emit(out, func, "\n");
    close_reporting(out, func, __LINE__);
    close_reporting(in, func, __LINE__);
    return 0;
}

static int convert_golden_bin_to_hdr(FILE* in, FILE* out, const std::string& name)
{
    const char* func = "convert_golden_bin_to_hdr";
    emit(out, func, "unsigned char %s_golden[] __attribute__ ((aligned (16))) = {\n", name.c_str());
    prepare_progress_bar(in, true);
    uint32_t total = 0;
    uint8_t chunk[16];
    char row[16 * 6];
    for (;;) {
        show_progress_bar();
        size_t got = fread(chunk, 1, sizeof(chunk), in);
        if (got == 0)
            break;
        if (total != 0)
            emit_text(out, func, ",\n", 2);
        emit_text(out, func, row, hex_byte_items(chunk, got, row));
        total += (uint32_t)got;
        if (got < sizeof(chunk))
            break;
    }
    emit(out, func, "};\n");
    printf("\n");
    emit(out, func, "unsigned int %s_golden_len = %u;\n", name.c_str(), total);
    emit(out, func, "\n");
    close_reporting(out, func, __LINE__);
    close_reporting(in, func, __LINE__);
    return 0;
}

int qoraPattern::convert_golden_hdr(const std::string& golden, const std::string& header)
{
    bool text = hex_name_is_valid(golden);
    if (!text && !bin_name_is_valid(golden)) {
        puts("Golden file type: Fail");
        return -1;
    }
    FILE *in, *out;
    if (!open_conversion(golden, header, "a+", text ? "convert_golden_hex_to_hdr" : "convert_golden_bin_to_hdr", &in,
                         &out))
        return -1;
    std::string name = header_base_name(header);
    return text ? convert_golden_hex_to_hdr(in, out, golden, name) : convert_golden_bin_to_hdr(in, out, name);
}

int qoraPattern::post_convert(const std::string& header)
{
    if (mask_exist)
        return 0;
    FILE* out = fopen(header.c_str(), "a+");
    if (out == nullptr) {
        printf("open file(%s) error\n", header.c_str());
        return -1;
    }
    emit(out, "post_convert", "unsigned char *%s_golden_mask = NULL;", header_base_name(header).c_str());
    emit(out, "post_convert", "\n");
    close_reporting(out, "post_convert", __LINE__);
    return 0;
}
