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

// A line of `run` characters before its line feed takes run / 119 whole
// pieces, then one more that ends with the line feed. Offsets below are
// relative to the text counted; the open line may have started before it
// (a negative start).
static const ptrdiff_t kPiece = QORA_LINE_BUF - 1;

// The whole pieces of a line that ends at `feed`, beyond the one its line
// feed ends.
static inline uint32_t whole_pieces_before(ptrdiff_t feed, ptrdiff_t line_start)
{
    ptrdiff_t run = feed - line_start;
    return run < kPiece ? 0 : (uint32_t)(run / kPiece);
}

// Blocks of text searched for line feeds a vector at a time: every line
// feed ends one piece, counted in vector lanes; a line can only be longer
// than a piece when it ends at the first line feed of its block, so only
// that one is measured. Counts up to `len` in whole blocks; `*pos` moves to
// the first byte not counted.
#if defined(__SSE2__)
static uint32_t count_pieces_in_blocks(const char* text, size_t len, size_t* pos, ptrdiff_t* line_start)
{
    const size_t block = 64;
    const size_t batch = 60; // blocks per count: a lane takes at most 4 a block
    const __m128i feed = _mm_set1_epi8('\n');
    uint32_t pieces = 0;
    while (*pos + block <= len) {
        __m128i lanes = _mm_setzero_si128();
        for (size_t n = 0; n < batch && *pos + block <= len; n++, *pos += block) {
            const char* p = text + *pos;
            __m128i f0 = _mm_cmpeq_epi8(_mm_loadu_si128((const __m128i*)p), feed);
            __m128i f1 = _mm_cmpeq_epi8(_mm_loadu_si128((const __m128i*)(p + 16)), feed);
            __m128i f2 = _mm_cmpeq_epi8(_mm_loadu_si128((const __m128i*)(p + 32)), feed);
            __m128i f3 = _mm_cmpeq_epi8(_mm_loadu_si128((const __m128i*)(p + 48)), feed);
            lanes = _mm_sub_epi8(_mm_sub_epi8(lanes, _mm_add_epi8(f0, f1)), _mm_add_epi8(f2, f3));
            uint64_t feeds = (uint64_t)(uint32_t)_mm_movemask_epi8(f0) |
                (uint64_t)(uint32_t)_mm_movemask_epi8(f1) << 16 | (uint64_t)(uint32_t)_mm_movemask_epi8(f2) << 32 |
                (uint64_t)(uint32_t)_mm_movemask_epi8(f3) << 48;
            if (feeds == 0)
                continue;
            pieces += whole_pieces_before((ptrdiff_t)*pos + __builtin_ctzll(feeds), *line_start);
            *line_start = (ptrdiff_t)*pos + 64 - __builtin_clzll(feeds);
        }
        __m128i sums = _mm_sad_epu8(lanes, _mm_setzero_si128());
        pieces += (uint32_t)(_mm_cvtsi128_si32(sums) + _mm_cvtsi128_si32(_mm_unpackhi_epi64(sums, sums)));
    }
    return pieces;
}
#elif defined(__aarch64__)
static uint32_t count_pieces_in_blocks(const char* text, size_t len, size_t* pos, ptrdiff_t* line_start)
{
    const size_t block = 16;
    const size_t batch = 255; // blocks per count: a lane takes at most 1 a block
    const uint8x16_t feed = vdupq_n_u8('\n');
    uint32_t pieces = 0;
    while (*pos + block <= len) {
        uint8x16_t lanes = vdupq_n_u8(0);
        for (size_t n = 0; n < batch && *pos + block <= len; n++, *pos += block) {
            uint8x16_t found = vceqq_u8(vld1q_u8((const uint8_t*)text + *pos), feed);
            lanes = vsubq_u8(lanes, found);
            // Narrowing each 16-bit lane by four bits keeps four bits a byte.
            uint64_t feeds = vget_lane_u64(vreinterpret_u64_u8(vshrn_n_u16(vreinterpretq_u16_u8(found), 4)), 0);
            if (feeds == 0)
                continue;
            pieces += whole_pieces_before((ptrdiff_t)*pos + __builtin_ctzll(feeds) / 4, *line_start);
            *line_start = (ptrdiff_t)*pos + 16 - __builtin_clzll(feeds) / 4;
        }
        pieces += vaddlvq_u8(lanes);
    }
    return pieces;
}
#else
static uint32_t count_pieces_in_blocks(const char*, size_t, size_t*, ptrdiff_t*)
{
    return 0; // line feeds are found by memchr alone
}
#endif

uint32_t count_line_pieces(const char* text, size_t len, size_t* tail)
{
    ptrdiff_t line_start = -(ptrdiff_t)*tail;
    size_t pos = 0;
    uint32_t pieces = count_pieces_in_blocks(text, len, &pos, &line_start);
    const char* nl;
    while ((nl = (const char*)memchr(text + pos, '\n', len - pos)) != nullptr) {
        ptrdiff_t at = nl - text;
        pieces += whole_pieces_before(at, line_start) + 1;
        line_start = at + 1;
        pos = (size_t)at + 1;
    }
    ptrdiff_t total = (ptrdiff_t)len - line_start;
    *tail = (size_t)(total % kPiece);
    return pieces + (uint32_t)(total / kPiece);
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

line_reader::line_reader(FILE* fp) : m_fp(fp), m_data(nullptr), m_size(0), m_pos(0), m_chunk((char*)malloc(kReadChunk))
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
