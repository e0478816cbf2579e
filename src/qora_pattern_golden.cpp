// Golden loaders: the expected output regions of a pattern, from a text file
// (regions tied to outputs by name, with "x" nibbles masked out) or from a
// raw binary file (one region for the output at the golden's index).
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <strings.h>

#include "qora_pattern.h"
#include "qora_pattern_hexline.h"
#include "qora_pattern_internal.h"
#include "qora_pattern_reader.h"
#include "qora_utils.h"

// Room for `len` bytes in whole 16 KiB blocks, always at least one byte more.
static uint32_t golden_block_size(uint32_t len)
{
    return (len + 16384) & ~16383u;
}

// Golden blocks come zeroed from calloc: a byte no line reaches reads as
// data 0 under mask 0, so the checker never counts it, and it costs no
// memory until written (a large block is fresh pages from the system, which
// calloc does not clear again). free_sub_golden gives them back with free.
static uint8_t* new_golden_block(uint32_t len)
{
    return (uint8_t*)calloc(golden_block_size(len), 1);
}

static bool compare_golden_addr(sub_golden* a, sub_golden* b)
{
    return strcasecmp(a->name, b->name) < 0;
}

// Closes the file and drops every region loaded so far; the load fails.
static int fail_golden(FILE* fp, golden* g, int line)
{
    close_reporting(fp, "load_golden_hex", line);
    free_sub_golden(g);
    return -1;
}

int qoraPattern::load_golden(golden* g)
{
    if (hex_name_is_valid(g->file_name))
        return load_golden_hex(g);
    if (bin_name_is_valid(g->file_name))
        return load_golden_bin(g);
    puts("Golden file type: Fail");
    return -1;
}

// Opens a region for an '@' line: sized by the first output whose name
// begins with the region's name. Returns false when the load must fail.
static bool open_region(const char* str, golden* g, std::vector<output*>& out_list, int* fail_line)
{
    sub_golden* sg = new (std::nothrow) sub_golden();
    if (sg == nullptr) {
        *fail_line = __LINE__;
        return false;
    }
    g->sub_gdn_list.push_back(sg);
    if (sscanf(str, "@%9s", sg->name) != 1) {
        printf("%s():%d sscanf fail\n", "load_golden_hex", __LINE__);
        *fail_line = __LINE__;
        return false;
    }
    size_t n = strlen(sg->name);
    for (output* o : out_list) {
        if (strncmp(o->name, sg->name, n) == 0) {
            sg->len = o->size;
            break;
        }
    }
    if (sg->len == 0) {
        printf("%s():%d get invalid out sz \n", "load_golden_hex", __LINE__);
        *fail_line = __LINE__;
        return false;
    }
    sg->data = new_golden_block(sg->len);
    if (sg->data != nullptr)
        sg->mask = new_golden_block(sg->len);
    if (sg->mask == nullptr) {
        *fail_line = __LINE__;
        return false;
    }
    advise_huge_pages(sg->data, sg->len);
    advise_huge_pages(sg->mask, sg->len);
    return true;
}

// Whether the piece's text (up to its first NUL) is shorter than `len`.
static inline bool text_shorter_than(text_piece line, size_t len)
{
    if (line.n < len)
        return true;
    for (size_t i = 0; i < len; i++)
        if (line.data[i] == '\0')
            return true;
    return false;
}

// A run of usual data lines decoded straight into the open region: as many
// as the chunk in hand holds, whole lines that fit the region, with the bar
// not changing on the way. Any other line is read one at a time.
static void load_golden_run(line_reader* reader, sub_golden* region, uint32_t* offset)
{
    if (region == nullptr)
        return;
    size_t lines = reader->rest().n / 36;
    lines = std::min<size_t>(lines, progress_quiet_reads());
    lines = std::min<size_t>(lines, (region->len - *offset) / 16);
    size_t done = decode_golden_lines(reader->rest().data, lines, region->data + *offset, region->mask + *offset);
    reader->skip(36 * done);
    progress_skip((uint32_t)done);
    *offset += (uint32_t)(16 * done);
}

// One data line of a golden region, at `*offset`: its bytes and mask go in
// place (a line past the region's end keeps only the bytes that fit).
// Returns 0, or the source line of the refusal that ends the load.
static int read_golden_data_line(const text_piece& line, sub_golden* region, uint32_t* offset)
{
    if (!text_shorter_than(line, QORA_LINE_BUF - 1)) { // the line filled the 120-byte buffer
        puts("Warning : len >= 120");
        return __LINE__;
    }
    uint32_t take = 16;
    if (*offset + 16 > region->len) {
        take = region->len - *offset;
        if (take >= 16) {
            printf("Warning : read golden size(0x%x) > output size(0x%x)\n", *offset + 16, region->len);
            return __LINE__;
        }
        printf("Warning : read golden last line not 16 bytes align (0x%x)\n", take);
    }
    // A whole line decodes in place; a partial one keeps its last bytes.
    uint8_t data[16];
    uint8_t mask[16];
    bool whole = take == 16;
    uint8_t* to_data = whole ? region->data + *offset : data;
    uint8_t* to_mask = whole ? region->mask + *offset : mask;
    if (decode_golden_line(line.data, line.n, to_data, to_mask) < 16)
        printf("%s():%d sscanf fail\n", "load_golden_hex", __LINE__);
    if (!whole) {
        memcpy(region->data + *offset, data, take);
        memcpy(region->mask + *offset, mask, take);
    }
    *offset += take;
    return 0;
}

int qoraPattern::load_golden_hex(golden* g)
{
    if (g->idx >= m_out_list.size()) {
        puts("No pattern data");
        return -1;
    }
    FILE* fp = fopen(g->file_name.c_str(), "r");
    if (fp == nullptr) {
        printf("open file(%s) error\n", g->file_name.c_str());
        return -1;
    }
    prepare_progress_bar(fp, false);

    line_reader reader(fp);
    char str[QORA_LINE_BUF];
    sub_golden* region = nullptr;
    uint32_t offset = 0;
    text_piece line;
    for (;;) {
        load_golden_run(&reader, region, &offset);
        if ((line = reader.next()).n == 0)
            break;
        show_progress_bar();
        if (text_shorter_than(line, 8) || line.data[0] == '/')
            continue;
        if (line.data[0] == '@') {
            int fail_line = 0;
            terminate_piece(line, str);
            if (!open_region(str, g, m_out_list, &fail_line))
                return fail_golden(fp, g, fail_line);
            region = g->sub_gdn_list.back();
            offset = 0;
            continue;
        }
        if (region == nullptr)
            continue;
        int fail_line = read_golden_data_line(line, region, &offset);
        if (fail_line != 0)
            return fail_golden(fp, g, fail_line);
    }
    close_reporting(fp, "load_golden_hex", __LINE__);
    if (g->sub_gdn_list.size() >= 2)
        std::sort(g->sub_gdn_list.begin(), g->sub_gdn_list.end(), compare_golden_addr);
    return 0;
}

int qoraPattern::load_golden_bin(golden* g)
{
    if (g->idx >= m_out_list.size()) {
        puts("No pattern data");
        return -1;
    }
    FILE* fp = fopen(g->file_name.c_str(), "r");
    if (fp == nullptr) {
        printf("open file(%s) error \n", g->file_name.c_str());
        return -1;
    }
    sub_golden* sg = new sub_golden();
    g->sub_gdn_list.push_back(sg);
    sg->len = m_out_list.at(g->idx)->size;
    sg->data = new_golden_block(sg->len);
    if (sg->data == nullptr) {
        close_reporting(fp, "load_golden_bin", __LINE__);
        free_sub_golden(g);
        return -1;
    }
    prepare_progress_bar(fp, true);

    // Large reads, handled in the 16-byte steps the progress bar counts.
    static uint8_t chunk[1 << 20];
    uint32_t offset = 0;
    size_t got;
    while (show_progress_bar(), (got = fread(chunk, 1, sizeof(chunk), fp)) > 0) {
        for (size_t pos = 0; pos < got; pos += 16) {
            if (pos != 0)
                show_progress_bar();
            uint32_t step = (uint32_t)std::min<size_t>(16, got - pos);
            if (offset + step > sg->len) {
                printf("\nWarning : read golden size(0x%x) > output size(0x%x)\n", offset + step, sg->len);
                printf("free golden(%d) data\n", g->idx);
                close_reporting(fp, "load_golden_bin", __LINE__);
                free_sub_golden(g);
                return -1;
            }
            memcpy(sg->data + offset, chunk + pos, step);
            offset += step;
        }
    }
    if (offset < sg->len)
        sg->len = offset;
    close_reporting(fp, "load_golden_bin", __LINE__);
    return 0;
}
