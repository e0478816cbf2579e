// Progress bar and line reading shared by every reader of pattern, golden
// and log files.
#include <cstdlib>
#include <cstring>

#include "qora_pattern_internal.h"

uint32_t line_num = 0;
uint32_t line_idx = 0;
uint32_t last_progress = 0xFFFFFFFF;
char bar[51];

uint32_t count_line_pieces(const char* text, size_t len, size_t* tail)
{
    const size_t piece = QORA_LINE_BUF - 1;
    uint32_t pieces = 0;
    const char* end = text + len;
    while (text < end) {
        const char* nl = (const char*)memchr(text, '\n', (size_t)(end - text));
        size_t run = (size_t)((nl ? nl : end) - text);
        size_t total = *tail + run;
        if (nl == nullptr) {
            pieces += (uint32_t)(total / piece);
            *tail = total % piece;
            break;
        }
        // The line feed belongs to the piece it falls in, or starts a new one
        // when the text before it filled a whole piece.
        pieces += (uint32_t)(total / piece) + 1;
        *tail = 0;
        text = nl + 1;
    }
    return pieces;
}

static uint32_t count_text_reads(FILE* fp)
{
    static char chunk[1 << 16];
    uint32_t pieces = 0;
    size_t tail = 0;
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), fp)) > 0)
        pieces += count_line_pieces(chunk, n, &tail);
    return pieces + (tail > 0 ? 1 : 0);
}

static uint32_t count_bin_reads(FILE* fp)
{
    if (fseek(fp, 0, SEEK_END) != 0)
        return 0;
    long size = ftell(fp);
    return size > 0 ? (uint32_t)((size + 15) / 16) : 0;
}

void prepare_progress_bar(FILE* fp, bool is_bin)
{
    last_progress = 0xFFFFFFFF;
    line_num = 0;
    line_idx = 0;
    memset(bar, 0, sizeof(bar));
    line_num = is_bin ? count_bin_reads(fp) : count_text_reads(fp);
    if (fseek(fp, 0, SEEK_SET) != 0)
        printf("%s() seek fail\n", "prepare_progress_bar");
    clearerr(fp);
}

void show_progress_bar()
{
    line_idx += 1;
    uint32_t percentage = line_num == 0 ? 0 : line_idx * 100 / line_num;
    if (percentage > 100)
        return;
    if (percentage != last_progress) {
        bar[percentage / 2] = '#';
        printf("\r[%-50.51s][%u%%]", bar, percentage);
        last_progress = percentage;
    }
    if (percentage == 100)
        printf("\n");
}

static const size_t kReadChunk = 1 << 20;

line_reader::line_reader(FILE* fp) : m_fp(fp), m_buf((char*)malloc(kReadChunk)), m_pos(0), m_end(0) {}

line_reader::~line_reader()
{
    free(m_buf);
}

bool line_reader::next(char piece[QORA_LINE_BUF])
{
    const size_t room = QORA_LINE_BUF - 1;
    size_t n = 0;
    while (n < room && m_buf != nullptr) {
        if (m_pos == m_end) {
            m_pos = 0;
            m_end = fread(m_buf, 1, kReadChunk, m_fp);
            if (m_end == 0)
                break;
        }
        const char* src = m_buf + m_pos;
        size_t want = m_end - m_pos < room - n ? m_end - m_pos : room - n;
        const char* nl = (const char*)memchr(src, '\n', want);
        size_t take = nl != nullptr ? (size_t)(nl - src) + 1 : want;
        memcpy(piece + n, src, take);
        n += take;
        m_pos += take;
        if (nl != nullptr)
            break;
    }
    piece[n] = '\0';
    return n > 0;
}
