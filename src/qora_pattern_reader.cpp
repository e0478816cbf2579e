// Progress bar and line reading shared by every reader of pattern, golden
// and log files.
#include <cstdlib>
#include <cstring>

#include "qora_pattern_reader.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

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

// Line feeds of a block of text as a bit mask, found a vector at a time:
// kFeedBits bits per byte, byte 0 in the lowest bits.
#if defined(__SSE2__)
static const size_t kScanBlock = 64;
static const int kFeedBits = 1;
static inline uint64_t line_feed_mask(const char* p)
{
    const __m128i feed = _mm_set1_epi8('\n');
    uint64_t mask = 0;
    for (int i = 0; i < 4; i++) {
        __m128i chars = _mm_loadu_si128((const __m128i*)(p + 16 * i));
        mask |= (uint64_t)(uint32_t)_mm_movemask_epi8(_mm_cmpeq_epi8(chars, feed)) << (16 * i);
    }
    return mask;
}
#elif defined(__aarch64__)
static const size_t kScanBlock = 16;
static const int kFeedBits = 4;
static inline uint64_t line_feed_mask(const char* p)
{
    uint8x16_t found = vceqq_u8(vld1q_u8((const uint8_t*)p), vdupq_n_u8('\n'));
    // Narrowing each 16-bit lane by four bits keeps four bits of each byte.
    return vget_lane_u64(vreinterpret_u64_u8(vshrn_n_u16(vreinterpretq_u16_u8(found), 4)), 0);
}
#else
static const size_t kScanBlock = 0; // line feeds are found by memchr alone
static const int kFeedBits = 1;
static inline uint64_t line_feed_mask(const char*)
{
    return 0;
}
#endif

// A line of `total` characters before its line feed takes total / 119
// whole pieces, then one more that ends with the line feed.
uint32_t count_line_pieces(const char* text, size_t len, size_t* tail)
{
    const size_t piece = QORA_LINE_BUF - 1;
    uint32_t pieces = 0;
    size_t carry = *tail;   // characters of the open line before `text`
    size_t line_start = 0;  // where the open line continues in `text`
    size_t pos = 0;
    // Lines between two line feeds of one block are shorter than a piece;
    // only the line that ends at the block's first line feed can be longer.
    for (; kScanBlock != 0 && pos + kScanBlock <= len; pos += kScanBlock) {
        uint64_t feeds = line_feed_mask(text + pos);
        if (feeds == 0)
            continue;
        size_t first = pos + (size_t)__builtin_ctzll(feeds) / kFeedBits;
        pieces += (uint32_t)((carry + first - line_start) / piece);
        pieces += (uint32_t)(__builtin_popcountll(feeds) / kFeedBits);
        carry = 0;
        line_start = pos + (size_t)(63 - __builtin_clzll(feeds)) / kFeedBits + 1;
    }
    const char* nl;
    while ((nl = (const char*)memchr(text + pos, '\n', len - pos)) != nullptr) {
        size_t at = (size_t)(nl - text);
        pieces += (uint32_t)((carry + at - line_start) / piece) + 1;
        carry = 0;
        line_start = pos = at + 1;
    }
    size_t total = carry + (len - line_start);
    *tail = total % piece;
    return pieces + (uint32_t)(total / piece);
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
