// The pattern text loader.
//
// The loader keeps its comment state, binding table counter, last comment
// and pending "Temporary" flag across files on purpose: a second pattern file
// continues where the first one stopped (its binding tables are numbered
// after the first file's).
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "qora_pattern.h"
#include "qora_pattern_hexline.h"
#include "qora_pattern_internal.h"
#include "qora_pattern_reader.h"
#include "qora_utils.h"

void* (*pattern_malloc)(size_t size) = malloc;
void* (*pattern_realloc)(void* ptr, size_t size) = realloc;

enum comment_state {
    COMMENT_STA_NONE = 0,
    COMMENT_STA_OUTPUT = 1,
    COMMENT_STA_BINDING = 2,
};

// Data after an '@' line: none yet, the buffer was opened, data lines were read.
enum block_state { BLOCK_NONE, BLOCK_OPENED, BLOCK_FILLING };

static const uint32_t kBufferStart = 16384;
static const uint32_t kNoDistance = 0x40000000;

static char last_comment[QORA_LINE_BUF];
static bool load_is_tmp;
static bool load_is_code;
static comment_state sta = COMMENT_STA_NONE;
static int32_t binding_table_num;

void reset_pattern_load_state()
{
    last_comment[0] = '\0';
    load_is_tmp = false;
    load_is_code = false;
    sta = COMMENT_STA_NONE;
    binding_table_num = 0;
}

// The buffer data lines go to. `counted` is every byte the lines brought,
// which drives growth and its messages; the buffer's `size` counts only the
// bytes its block holds, so that no reader goes past them after a failed
// allocation.
struct fill_target {
    buffer* buf;
    uint32_t capacity;
    uint32_t counted;
};

bool compare_output_addr(output* a, output* b)
{
    return strcasecmp(a->name, b->name) < 0;
}

int qoraPattern::load_pattern(pattern* p)
{
    if (hex_name_is_valid(p->file_name))
        return load_pattern_hex(p);
    if (bin_name_is_valid(p->file_name))
        return load_pattern_bin(p);
    puts("Pattern file type: Fail");
    return -1;
}

// Binary patterns are only converted, never played: the file is opened to
// check it exists and nothing is read.
int qoraPattern::load_pattern_bin(pattern* p)
{
    FILE* fp = fopen(p->file_name.c_str(), "r");
    if (fp == nullptr) {
        printf("open file(%s) error\n", p->file_name.c_str());
        return -1;
    }
    close_reporting(fp, "load_pattern_bin", 1240);
    return 0;
}

// The pattern is named after the directory that holds its file.
static void set_pattern_name(const std::string& pattern_hex, pattern* p)
{
    size_t slash = pattern_hex.rfind('/');
    // Without a directory (or with only a leading '/') the path is the name.
    std::string name = slash != std::string::npos && slash >= 1 ? directory_name(pattern_hex, slash) : pattern_hex;
    // The field keeps its terminating zero: names past 64 characters are cut.
    memcpy(p->name, name.data(), std::min(name.size(), sizeof(p->name) - 1));
}

static void remember_comment(const char* str, int str_len)
{
    memcpy(last_comment, str + 3, (size_t)(str_len - 3));
    last_comment[str_len - 3] = '\0';
}

// Where a relocation to `addr` points. Rules in order: an output by name,
// the on-chip local memory window, a data buffer by name, inside an output,
// else the nearest data buffer below the address.
// The header generator resolves relocations by rules of its own
// (binding_row in qora_pattern_conv.cpp): it knows one output, matches a
// buffer by the tail of its name, skips buffers whose address reads as 0 and
// lets an address inside its output win over a buffer of that very name.
// They stay apart: generated headers keep the tables the built-in patterns
// were made with.
static void resolve_binding(binding* b, const char* addr, pattern* p, std::vector<output*>& out_list)
{
    size_t n = strlen(addr);
    uint32_t a = hex_address(addr);
    for (output* o : out_list) {
        if (strncmp(o->name, addr, n) == 0) {
            b->data = o->addr;
            return;
        }
    }
    if (is_vlm_address(a)) {
        b->data = (uint8_t*)(uintptr_t)QORA_VLM_BASE;
        b->dev_va = QORA_VLM_BASE;
        b->shift = a - QORA_VLM_BASE;
        return;
    }
    uint32_t nearest = 0;
    uint32_t distance = kNoDistance;
    uint32_t buf_num = std::min(p->buf_num, (uint32_t)MAX_DATA_NUM);
    for (uint32_t i = 0; i < buf_num; i++) {
        const char* text = p->buf[i].data_addr_str;
        if (strncmp(text, addr, n) == 0) {
            b->data = p->buf[i].data;
            b->shift = 0;
            return;
        }
        uint32_t base = hex_address(text);
        if (base < a && a - base < distance) {
            nearest = i;
            distance = a - base;
        }
    }
    for (output* o : out_list) {
        uint32_t base = hex_address(o->name);
        if (base < a && base + o->size > a) {
            b->data = o->addr;
            b->shift = a - base;
            return;
        }
    }
    b->data = p->buf[nearest].data;
    b->shift = distance;
}

static void load_binding(char* ofs, char* addr, pattern* p, unsigned index, std::vector<output*>& out_list)
{
    sub_pattern* sub = p->sub_ptn_list.at(index);
    int32_t count = sub->binding_num;
    binding scratch {};
    binding* b = count < MAX_NUM ? &sub->binding[count] : &scratch;
    resolve_binding(b, addr, p, out_list);
    b->ofs = (uint32_t)strtoul(ofs, nullptr, 10);
    sub->binding_num = count + 1;
    if (count >= MAX_NUM - 1)
        printf("binding num(%d) >= MAX_NUM(%d)\n", sub->binding_num, MAX_NUM);
}

static void load_output(char* str, std::vector<output*>& out_list)
{
    char name[17] = {0};
    int size = 0;
    if (sscanf(str, "// @%9s {%10d}", name, &size) != 2) {
        printf("%s():%d sscanf fail\n", "load_comment", 966);
        return;
    }
    if (size < 1 || size > 0x3FFFFFFF) {
        printf("%s():%d invalid out sz \n", "load_comment", 975);
        return;
    }
    output* o = new output();
    memcpy(o->name, name, sizeof(name));
    o->size = (uint32_t)size;
    o->addr = new uint8_t[size];
    o->use_internal_output = false;
    o->idx = (uint32_t)out_list.size();
    out_list.push_back(o);
}

static void load_comment(char* str, int str_len, pattern* p, std::vector<output*>& out_list)
{
    if (str_len < 4) {
        puts("Warning: comment length < 4");
        return;
    }
    const char* word = str + 3;
    if (strncmp(word, "Temporary", 9) == 0) {
        load_is_tmp = true;
    } else if (strncmp(word, "Binding", 7) == 0) {
        sta = COMMENT_STA_BINDING;
        binding_table_num += 1;
    } else if (strncmp(word, "Output", 6) == 0) {
        sta = COMMENT_STA_OUTPUT;
    } else if (sta == COMMENT_STA_OUTPUT) {
        if (*word == '@')
            load_output(str, out_list);
    } else if (sta == COMMENT_STA_BINDING) {
        char ofs[32] = {0};
        char addr[16] = {0};
        if (sscanf(str, "// %31s @%15s", ofs, addr) != 2)
            printf("%s():%d sscanf fail\n", "load_comment", 955);
        if (binding_table_num != 0 && (uint32_t)binding_table_num <= p->code_num)
            load_binding(ofs, addr, p, (unsigned)(binding_table_num - 1), out_list);
        return; // relocation lines are not remembered
    }
    remember_comment(str, str_len);
}

// First blocks of buffers. Code bytes are never released by the pattern
// set (as the player has always done); a function of their own lets the
// leak checker tell them apart.
__attribute__((noinline)) static uint8_t* alloc_code_block()
{
    uint8_t* block = (uint8_t*)pattern_malloc(kBufferStart);
    asm volatile("" ::: "memory"); // no tail call: the frame stays visible to the leak checker
    return block;
}

__attribute__((noinline)) static uint8_t* alloc_data_block()
{
    return (uint8_t*)pattern_malloc(kBufferStart);
}

// Opens the buffer an '@' line starts: a code buffer after a "Code" comment,
// else the next data buffer. Returns where its data lines go.
static fill_target load_at(char* str, int len, pattern* ptn)
{
    size_t text_len = std::min(len - 1, 15);
    bool is_code = strncmp(last_comment, "Code", 4) == 0;
    buffer* b = nullptr;
    if (is_code) {
        sub_pattern* sub = new sub_pattern();
        sub->binding = new binding[MAX_NUM]();
        ptn->sub_ptn_list.push_back(sub);
        ptn->code_num += 1;
        b = &sub->codebuf;
    } else {
        uint32_t index = ptn->buf_num;
        ptn->buf_num += 1;
        if (ptn->buf_num >= MAX_DATA_NUM)
            printf("data buf num >= MAX_DATA_NUM(%d)\n", MAX_DATA_NUM);
        if (index < MAX_DATA_NUM) {
            b = &ptn->buf[index];
            b->data_addr_str = ptn->const_addr_str[index];
            memcpy(b->data_addr_str, str + 1, text_len);
            b->data_addr_str[text_len] = '\0';
        }
    }
    load_is_code = is_code;
    bool is_tmp = load_is_tmp;
    load_is_tmp = false;
    uint8_t* data = is_code ? alloc_code_block() : alloc_data_block();
    if (data == nullptr)
        puts("Allocate memory FAIL");
    else if (is_tmp)
        memset(data, 0, kBufferStart);
    if (b == nullptr) { // past the last data buffer record: nowhere to keep it
        free(data);
        return {nullptr, 0, 0};
    }
    b->data = data;
    b->size = 0;
    b->is_tmp = is_tmp;
    return {b, data != nullptr ? kBufferStart : 0, 0};
}

// Buffers grow in granules by size class so that large dumps are not
// reallocated on every line.
static void grow_for_line(fill_target* t)
{
    uint32_t s = t->counted;
    uint32_t granule = s <= 49152 ? 16384 : s <= 245760 ? 65536 : 262144;
    uint32_t used = s & (granule - 1); // granules are powers of two
    if (used + 16 < granule)
        return;
    uint32_t want = s - used + 2 * granule;
    uint8_t* grown = (uint8_t*)pattern_realloc(t->buf->data, want);
    if (grown == nullptr) {
        puts("Realloc Fail!!");
        return;
    }
    t->buf->data = grown;
    t->capacity = want;
    if (granule == 262144)
        advise_huge_pages(grown + s, want - s);
}

static void load_data(text_piece line, fill_target* t)
{
    uint8_t bytes[16];
    if (t->buf == nullptr) {
        if (decode_data_line(line.data, line.n, bytes) < 16)
            printf("%s():%d sscanf fail\n", "load_data", 1084);
        return;
    }
    grow_for_line(t);
    if (decode_data_line(line.data, line.n, bytes) < 16)
        printf("%s():%d sscanf fail\n", "load_data", 1084);
    uint32_t s = t->buf->size;
    if (t->buf->data != nullptr && s == t->counted && s + 16 <= t->capacity) {
        memcpy(t->buf->data + s, bytes, 16);
        t->buf->size = s + 16;
    }
    t->counted += 16;
}

// Lines a buffer of `counted` bytes takes before the next one that may
// grow it: growth is tested where (size mod granule) + 16 reaches the
// granule. The smallest granule is used, whose test points include those of
// the larger ones.
static uint32_t lines_before_growth(uint32_t counted)
{
    const uint32_t granule = 16384;
    return (granule - 16 - (counted & (granule - 1))) / 16;
}

// A run of usual data lines decoded straight into the buffer: as many as the
// chunk in hand holds, with neither the bar changing nor the buffer growing
// on the way. Any other line is left to load_data. Returns the lines taken.
static size_t load_data_run(line_reader* reader, fill_target* t)
{
    buffer* b = t->buf;
    if (b == nullptr || b->data == nullptr || b->size != t->counted)
        return 0;
    size_t lines = reader->rest().n / 36;
    lines = std::min<size_t>(lines, progress_quiet_reads());
    lines = std::min<size_t>(lines, lines_before_growth(t->counted));
    lines = std::min<size_t>(lines, (t->capacity - b->size) / 16);
    size_t done = decode_data_lines(reader->rest().data, lines, b->data + b->size);
    reader->skip(36 * done);
    progress_skip((uint32_t)done);
    b->size += (uint32_t)(16 * done);
    t->counted += (uint32_t)(16 * done);
    return done;
}

// Two leading characters that start neither a comment nor an '@' line.
static inline bool is_data_line(text_piece line)
{
    const char* d = line.data;
    return line.n >= 2 && d[0] != '\0' && d[1] != '\0' && d[0] != '@' && !(d[0] == '/' && d[1] == '/');
}

int qoraPattern::load_pattern_hex(pattern* p)
{
    FILE* fp = fopen(p->file_name.c_str(), "r");
    if (fp == nullptr) {
        printf("open file(%s) \\n", p->file_name.c_str());
        return -1;
    }
    p->buf_num = 0;
    p->code_num = 0;
    set_pattern_name(p->file_name, p);
    prepare_progress_bar(fp, false);

    line_reader reader(fp);
    char str[QORA_LINE_BUF];
    block_state block = BLOCK_NONE;
    fill_target target {nullptr, 0, 0};
    text_piece line;
    for (;;) {
        if (block != BLOCK_NONE && load_data_run(&reader, &target) > 0)
            block = BLOCK_FILLING;
        if ((line = reader.next()).n == 0)
            break;
        show_progress_bar();
        // Most lines are data, decoded where they were read; only the other
        // lines are copied out and need their length.
        if (is_data_line(line) && block != BLOCK_NONE) {
            block = BLOCK_FILLING;
            load_data(line, &target);
            continue;
        }
        terminate_piece(line, str);
        int len = (int)strlen(str);
        if (len < 2) {
            if (block == BLOCK_FILLING)
                block = BLOCK_NONE;
        } else if (len >= QORA_LINE_BUF) {
            puts("Warning : len >= 120");
            close_reporting(fp, "load_pattern_hex", 1194);
            return -1;
        } else if (str[0] == '/' && str[1] == '/') {
            load_comment(str, len, p, m_out_list);
            if (block == BLOCK_FILLING)
                block = BLOCK_NONE;
        } else if (str[0] == '@') {
            target = load_at(str, len, p);
            block = BLOCK_OPENED;
        } else {
            puts("Warning: No '@' keyword before data");
        }
    }
    close_reporting(fp, "load_pattern_hex", 1220);
    std::sort(m_out_list.begin(), m_out_list.end(), compare_output_addr);
    return 0;
}
