// Progress bar and line reading shared by every reader of pattern, golden
// and log files.
#include <cstdlib>
#include <cstring>

#include "qora_pattern_reader.h"

uint32_t line_num = 0;
uint32_t line_idx = 0;
uint32_t last_progress = 0xFFFFFFFF;
char bar[51];
uint32_t progress_next_idx = 0;

// The percentage is line_idx * 100 / line_num in 32-bit arithmetic; up to
// this count the product cannot wrap, past it every read is worked out.
static const uint32_t kNoWrapIdx = 0xFFFFFFFFu / 100;

// First count after line_idx at which the percentage can differ.
static uint32_t next_change_idx(uint32_t percentage)
{
    if (line_num == 0 || percentage >= 100)
        return line_idx + 1;
    uint64_t first = ((uint64_t)(percentage + 1) * line_num + 99) / 100;
    return first < kNoWrapIdx ? (uint32_t)first : kNoWrapIdx;
}

uint32_t count_line_pieces(const char* text, size_t len, size_t* tail)
{
    const size_t piece = QORA_LINE_BUF - 1;
    uint32_t pieces = 0;
    const char* end = text + len;
    while (text < end) {
        if (*tail == 0 && is_usual_line(text, (size_t)(end - text))) {
            pieces++;
            text += 36;
            continue;
        }
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

static const size_t kReadChunk = 1 << 16;

static uint32_t count_text_reads(FILE* fp)
{
    static char chunk[1 << 16];
    size_t tail = 0;
    uint32_t pieces = 0;
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), fp)) > 0)
        pieces += count_line_pieces(chunk, n, &tail);
    return pieces + (tail > 0 ? 1 : 0);
}

// The 16-byte reads a binary file takes, counted by reading it: pipes and
// files under /proc have no size to ask for.
static uint32_t count_bin_reads(FILE* fp)
{
    static char chunk[1 << 20];
    uint64_t bytes = 0;
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), fp)) > 0)
        bytes += n;
    return (uint32_t)((bytes + 15) / 16);
}

void prepare_progress_bar(FILE* fp, bool is_bin)
{
    progress_next_idx = 0;
    last_progress = 0xFFFFFFFF;
    line_num = 0;
    line_idx = 0;
    memset(bar, 0, sizeof(bar));
    line_num = is_bin ? count_bin_reads(fp) : count_text_reads(fp);
    if (fseek(fp, 0, SEEK_SET) != 0)
        printf("%s() seek fail\n", "prepare_progress_bar");
    clearerr(fp);
}

void show_progress_bar_update()
{
    line_idx += 1;
    uint32_t percentage = line_num == 0 ? 0 : line_idx * 100 / line_num;
    progress_next_idx = next_change_idx(percentage);
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

line_reader::line_reader(FILE* fp)
    : m_fp(fp), m_data(nullptr), m_size(0), m_pos(0), m_chunk((char*)malloc(kReadChunk))
{
}

line_reader::~line_reader()
{
    free(m_chunk);
}

bool line_reader::refill()
{
    if (m_chunk == nullptr)
        return false;
    m_data = m_chunk;
    m_size = fread(m_chunk, 1, kReadChunk, m_fp);
    m_pos = 0;
    return m_size > 0;
}

text_piece line_reader::next_searched()
{
    const size_t room = QORA_LINE_BUF - 1;
    if (m_pos == m_size && !refill())
        return {nullptr, 0};
    const char* src = m_data + m_pos;
    size_t left = m_size - m_pos;
    size_t want = left < room ? left : room;
    const char* nl = (const char*)memchr(src, '\n', want);
    size_t take = nl != nullptr ? (size_t)(nl - src) + 1 : want;
    m_pos += take;
    if (nl != nullptr || take == room)
        return {src, take};
    // The chunk ended inside a piece: carry it over into the next chunk.
    memcpy(m_carry, src, take);
    size_t n = take;
    while (n < room && refill()) {
        src = m_data;
        want = m_size < room - n ? m_size : room - n;
        nl = (const char*)memchr(src, '\n', want);
        take = nl != nullptr ? (size_t)(nl - src) + 1 : want;
        memcpy(m_carry + n, src, take);
        n += take;
        m_pos = take;
        if (nl != nullptr)
            break;
    }
    return {m_carry, n};
}
