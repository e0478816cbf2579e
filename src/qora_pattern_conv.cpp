// Pattern header generator: turns a pattern text file into a C header that
// declares its code, data and output arrays, its binding table and its data
// table, in the layout the built-in patterns use.
//
// The generator's state is file-wide and never reset: one conversion per
// process is the supported use.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "qora_pattern.h"
#include "qora_pattern_conv.h"
#include "qora_pattern_hexline.h"
#include "qora_pattern_reader.h"
#include "qora_utils.h"

static int convert_sta; // 0 no array open, 1 declared but empty, 2 has data
static char last_name[QORA_LINE_BUF];
static char output_addr[16];
static int output_sz;
static bool is_tmp;
static int acx_id, qora_id;
static bool set_binding;
static int binding_num;
static int max_data_num;
// One entry per declared buffer, however many the pattern declares: the
// data table has a row for each.
static std::vector<std::string> data_name_list;
static std::vector<int> tmp_data_tag;
static bool code_declared;
bool mask_exist;

void reset_pattern_conversion_state()
{
    convert_sta = 0;
    last_name[0] = '\0';
    output_addr[0] = '\0';
    output_sz = 0;
    is_tmp = false;
    acx_id = qora_id = 0;
    set_binding = false;
    binding_num = 0;
    max_data_num = 0;
    data_name_list.clear();
    tmp_data_tag.clear();
    code_declared = false;
}

// The header path up to its last '.', at most 79 characters.
std::string header_base_name(const std::string& header)
{
    size_t dot = header.rfind('.');
    size_t len = dot == std::string::npos ? 79 : std::min<size_t>(dot, 79);
    return header.substr(0, len);
}

static bool starts_with(const char* text, const char* word)
{
    return strncmp(text, word, strlen(word)) == 0;
}

// "0x" and the token's characters for each of the 16 tokens, last token
// first, joined by ", ". `map` rewrites each character.
size_t format_items(char tok[16][3], char (*map)(char), char* out)
{
    char* p = out;
    for (int t = 15; t >= 0; t--) {
        *p++ = '0';
        *p++ = 'x';
        for (int k = 0; k < 2 && tok[t][k] != '\0'; k++)
            *p++ = map(tok[t][k]);
        if (t != 0) {
            *p++ = ',';
            *p++ = ' ';
        }
    }
    return (size_t)(p - out);
}

static char as_written(char c)
{
    return c;
}

static void convert_data(char* str, FILE* out)
{
    char tok[16][3] = {};
    if (scan_hex_tokens(str, tok) < 16)
        printf("%s():%d sscanf fail\n", "convert_data", __LINE__);
    char items[128];
    size_t n = format_items(tok, as_written, items);
    if (convert_sta == 2)
        emit_text(out, "convert_data", ",\n", 2);
    convert_sta = 2;
    emit_text(out, "convert_data", items, n);
}

static void at_parser(char* str, const std::string& name, FILE* out)
{
    bool is_code = starts_with(last_name, "Code");
    if (is_code && code_declared) {
        puts("Warning: multi code buffer??");
        return;
    }
    std::string array = name + "_";
    if (is_code) {
        array += "Command";
        code_declared = true;
    } else {
        array += std::string(str + 1, strcspn(str + 1, "\r\n"));
    }
    if (array.size() >= QORA_LINE_BUF) {
        array.resize(QORA_LINE_BUF - 1);
        puts("Warning: buf name too long");
    }
    emit(out, "at_parser", "unsigned char %s[] __attribute__ ((aligned (16))) = {\n", array.c_str());
    data_name_list.push_back(array);
    tmp_data_tag.push_back(is_tmp ? 1 : 0);
    max_data_num++;
    is_tmp = false;
    convert_sta = 1;
}

// The declared buffer a relocation to `addr` (value v) names: an exact
// match of the name's tail, else the nearest one below. Returns its index
// and sets the shift.
static int nearest_buffer(const char* addr, uint32_t v, uint32_t* shift)
{
    size_t n = strlen(addr);
    int best = 0;
    uint32_t distance = 0x40000000;
    for (int i = 0; i < max_data_num; i++) {
        const char* name = data_name_list[i].c_str();
        size_t len = strlen(name);
        const char* tail = len > n ? name + len - n : name;
        uint32_t u = hex_address(tail);
        if (u == 0)
            continue;
        if (strcmp(tail, addr) == 0) {
            *shift = 0;
            return i;
        }
        if (v > u && v - u < distance) {
            best = i;
            distance = v - u;
        }
    }
    *shift = distance;
    return best;
}

// One row of the binding table. The loader resolves the same relocation
// lines by rules of its own (resolve_binding in qora_pattern_load.cpp): any
// number of outputs, buffer names matched by their start, and a buffer of
// that very name winning over an address inside an output. The rules here
// are those the built-in pattern headers were generated with, and stay so.
static void binding_row(const char* ofs, const char* addr, const std::string& name, FILE* out)
{
    uint32_t v = hex_address(addr);
    uint32_t out_base = hex_address(output_addr);
    if (strncmp(addr, output_addr, strlen(addr)) == 0) {
        emit(out, "binding_parser", "    {%s, %s_%s, 0, 0x0}", ofs, name.c_str(), "Output");
        return;
    }
    if (is_vlm_address(v)) {
        emit(out, "binding_parser", "    {%s, (unsigned char *)0x%x, 0x%x, 0x%x}", ofs, QORA_VLM_BASE, QORA_VLM_BASE,
             v - QORA_VLM_BASE);
        return;
    }
    uint32_t shift = 0;
    int index = nearest_buffer(addr, v, &shift);
    if (v > out_base && v < out_base + (uint32_t)output_sz) {
        emit(out, "binding_parser", "    {%s, %s_Output, 0, 0x%x}", ofs, name.c_str(), v - out_base);
        return;
    }
    const char* target = index < max_data_num ? data_name_list[index].c_str() : "NULL";
    emit(out, "binding_parser", "    {%s, %s, 0, 0x%x}", ofs, target, shift);
    if (index == 0)
        printf("binding warning (addr=%x)\n", v);
}

static void binding_parser(char* str, const std::string& name, FILE* out)
{
    char ofs[32] = {0};
    char addr[10] = {0};
    sscanf(str, "// %31s @%9s", ofs, addr);
    if (!set_binding) {
        emit(out, "binding_parser",
             "struct {\n    unsigned int ofs;\n    unsigned char *data;\n    unsigned int dev_va;\n"
             "    unsigned int shift;\n} %s_binding[] = {\n",
             name.c_str());
        set_binding = true;
    } else {
        emit_text(out, "binding_parser", ",\n", 2);
    }
    binding_row(ofs, addr, name, out);
    binding_num++;
}

// "// acx%d_qora%d_cmda_length_" then hex digits after at least one '0'.
static bool is_cmd_length(const char* str, size_t len)
{
    return len >= 26 && strncmp(str + 14, "cmda_length", 11) == 0;
}

static void comment_parser(char* str, size_t len, const std::string& name, FILE* out)
{
    if (len <= 3)
        puts("Warning: comment length < 4");
    if (starts_with(last_name, "Output")) {
        if (sscanf(str, "// @%9s {%10d}", output_addr, &output_sz) != 2)
            printf("%s():%d sscanf fail\n", "comment_parser", __LINE__);
        emit(out, "comment_parser", "#define %s_output_size %d\n", name.c_str(), output_sz);
        emit(out, "comment_parser", "unsigned char %s_Output[%s_output_size] __attribute__ ((aligned (16)));\n",
             name.c_str(), name.c_str());
        last_name[0] = '\0';
        return;
    }
    if (starts_with(last_name, "Binding")) {
        binding_parser(str, name, out);
        return;
    }
    size_t keep = len > 3 ? len - 3 : 0;
    memcpy(last_name, str + (len > 3 ? 3 : len), keep);
    last_name[keep] = '\0';
    emit_text(out, "comment_parser", str, len);
    if (len >= 12 && strncmp(str + 3, "Temporary", 9) == 0) {
        is_tmp = true;
    } else if (is_cmd_length(str, len)) {
        char digits[QORA_LINE_BUF] = {0};
        if (sscanf(str, "// acx%d_qora%d_cmda_length_%*[0]%[0-9a-fA-F]", &acx_id, &qora_id, digits) != 3)
            printf("%s():%d sscanf fail\n", "comment_parser", __LINE__);
        emit(out, "comment_parser", "\nunsigned int %s_cmd_len = 0x%s;\n", name.c_str(), digits);
    }
}

static void write_tables(const std::string& name, FILE* out)
{
    const char* func = "convert_pattern_hex_to_hdr";
    emit(out, func, ",\n    {0, NULL, 0, 0x0}\n};\n");
    emit(out, func,
         "struct {\n    unsigned char *data;\n    const char *data_addr_str;\n    unsigned int size;\n"
         "    unsigned int dev_va;\n    unsigned int is_tmp;\n} %s_data[] = {\n",
         name.c_str());
    for (int i = 0; i < max_data_num; i++) {
        const char* array = data_name_list[i].c_str();
        const char* addr = strrchr(array, '_');
        emit(out, func, "    {%s, \"%s\", sizeof(%s), 0, %d},\n", array, addr ? addr + 1 : array, array,
             tmp_data_tag[i]);
    }
    emit(out, func, "    {NULL, NULL, 0, 0, 0}\n};\n");
    emit(out, func, "\n");
    emit(out, func, "unsigned int %s_binding_num = %d;\n", name.c_str(), binding_num);
    emit(out, func, "unsigned int %s_data_num = %d;\n", name.c_str(), max_data_num);
}

bool open_conversion(const std::string& input, const std::string& header, const char* mode, const char* func, FILE** in,
                     FILE** out)
{
    *in = fopen(input.c_str(), "r");
    if (*in == nullptr) {
        printf("open file(%s) error\n", input.c_str());
        return false;
    }
    *out = fopen(header.c_str(), mode);
    if (*out == nullptr) {
        printf("open file(%s) error\n", header.c_str());
        close_reporting(*in, func, __LINE__);
        return false;
    }
    return true;
}

static int convert_pattern_hex_to_hdr(const std::string& pattern, const std::string& header)
{
    FILE *in, *out;
    if (!open_conversion(pattern, header, "w", "convert_pattern_hex_to_hdr", &in, &out))
        return -1;
    std::string name = header_base_name(header);
    prepare_progress_bar(in, false);
    line_reader reader(in);
    char str[QORA_LINE_BUF];
    text_piece line;
    while ((line = reader.next()).n > 0) {
        show_progress_bar();
        terminate_piece(line, str);
        size_t len = strlen(str);
        if (str[0] == '/' && str[1] == '/')
            comment_parser(str, len, name, out);
        else if (str[0] == '@')
            at_parser(str, name, out);
        else if (len > 1 && convert_sta == 0)
            puts("Warning: No '@' keyword before data");
        else if (len > 1)
            convert_data(str, out);
        else if (convert_sta == 2) {
            emit_text(out, "convert_pattern_hex_to_hdr", "};\n", 3);
            convert_sta = 0;
        } else
            emit_text(out, "convert_pattern_hex_to_hdr", str, len);
    }
    printf("\n");
    if (set_binding)
        write_tables(name, out);
    emit_text(out, "convert_pattern_hex_to_hdr", "\n", 1);
    close_reporting(out, "convert_pattern_hex_to_hdr", __LINE__);
    close_reporting(in, "convert_pattern_hex_to_hdr", __LINE__);
    return 0;
}

// Binary patterns are not converted: both files are opened and closed.
static int convert_pattern_bin_to_hdr(const std::string& pattern, const std::string& header)
{
    FILE *in, *out;
    if (!open_conversion(pattern, header, "a+", "convert_pattern_hex_to_hdr", &in, &out))
        return -1;
    close_reporting(out, "convert_pattern_hex_to_hdr", __LINE__);
    close_reporting(in, "convert_pattern_hex_to_hdr", __LINE__);
    return 0;
}

int qoraPattern::convert_pattern_hdr(const std::string& pattern, const std::string& header)
{
    if (hex_name_is_valid(pattern))
        return convert_pattern_hex_to_hdr(pattern, header);
    if (bin_name_is_valid(pattern))
        return convert_pattern_bin_to_hdr(pattern, header);
    puts("Pattern file type: Fail");
    return -1;
}
