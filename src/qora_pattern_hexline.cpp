// Tokenizer and decoders of the sixteen-byte hex line
// "xxxxxxxx_xxxxxxxx_xxxxxxxx_xxxxxxxx".
//
// A line of 32 hex digits (the usual case) is decoded sixteen characters at
// a time with SSE2 on x86-64 (runs of lines with AVX2 where the CPU has it)
// and NEON on AArch64, eight at a time in a 64-bit word elsewhere;
// another plain line (four groups of eight token characters joined by '_')
// in one table-driven pass; any other line is read by sscanf itself, so all
// ways give exactly what the sixteen-token format reads.
#include <cstring>
#include <vector>
#if defined(__SSE2__)
#include <immintrin.h>
#endif
#if defined(__aarch64__)
#include <arm_neon.h>
#endif

#include "qora_pattern.h"
#include "qora_pattern_hexline.h"
#include "qora_pattern_reader.h"

#define HEX_LINE_FORMAT "%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s"
#define HEX_LINE_CHARS 35 // four groups of eight characters and three '_'

static constexpr uint8_t nibble_of(int c)
{
    return c >= '0' && c <= '9' ? (uint8_t)(c - '0')
        : c >= 'a' && c <= 'f'  ? (uint8_t)(c - 'a' + 10)
        : c >= 'A' && c <= 'F'  ? (uint8_t)(c - 'A' + 10)
                                : 15;
}

// A character that %s takes into a token: not NUL and not C-locale white space.
static constexpr bool is_token_char(int c)
{
    return c != '\0' && c != ' ' && (c < '\t' || c > '\r');
}

template <typename F> static constexpr std::array<uint8_t, 256> make_table(F entry)
{
    std::array<uint8_t, 256> table {};
    for (int c = 0; c < 256; c++)
        table[c] = entry(c);
    return table;
}

// Table entries: the nibble in bits 0-3; bit 4 set when the nibble is
// compared (golden lines); bit 7 set when the character ends a token.
static const uint8_t kCompared = 0x10;
static const uint8_t kNotToken = 0x80;

static constexpr std::array<uint8_t, 256> data_code =
    make_table([](int c) { return (uint8_t)(nibble_of(c) | (is_token_char(c) ? 0 : kNotToken)); });

static constexpr std::array<uint8_t, 256> golden_code = make_table([](int c) {
    uint8_t value = c == 'x' ? 0 : (uint8_t)(nibble_of(c) | kCompared);
    return (uint8_t)(value | (is_token_char(c) ? 0 : kNotToken));
});

// Where each token of a plain line starts: two characters a token, one '_'
// after every fourth.
static constexpr uint8_t kTokenStart[16] = {0, 2, 4, 6, 9, 11, 13, 15, 18, 20, 22, 24, 27, 29, 31, 33};

static inline bool separators_in_place(const char* line)
{
    return line[8] == '_' && line[17] == '_' && line[26] == '_';
}

// The first 35 characters are there (no NUL among them), so a plain line
// can be read at fixed places.
static inline bool long_enough(const char* line)
{
    return strnlen(line, HEX_LINE_CHARS) == HEX_LINE_CHARS;
}

static bool is_plain_hex_line(const char* line)
{
    if (!long_enough(line))
        return false;
    uint8_t flags = 0;
    for (int i = 0; i < HEX_LINE_CHARS; i++)
        flags |= data_code[(unsigned char)line[i]];
    return !(flags & kNotToken) && separators_in_place(line);
}

int scan_hex_tokens(const char* line, char tok[16][3])
{
    if (!is_plain_hex_line(line)) {
        return sscanf(line, HEX_LINE_FORMAT, tok[0], tok[1], tok[2], tok[3], tok[4], tok[5], tok[6], tok[7], tok[8],
                      tok[9], tok[10], tok[11], tok[12], tok[13], tok[14], tok[15]);
    }
    for (int t = 0; t < 16; t++) {
        const unsigned char* src = (const unsigned char*)line + kTokenStart[t];
        tok[t][0] = (char)src[0];
        tok[t][1] = (char)src[1];
        tok[t][2] = '\0';
    }
    return 16;
}

// The sixteen tokens of any line (at most 119 bytes) as table entries, read
// through the scan; tokens the scan does not fill stay empty (NUL characters).
static int scanned_codes(const char* line, size_t n, const std::array<uint8_t, 256>& table, uint8_t hi[16],
                         uint8_t lo[16])
{
    char text[QORA_LINE_BUF];
    terminate_piece({line, n < QORA_LINE_BUF ? n : QORA_LINE_BUF - 1}, text);
    char tok[16][3] = {};
    int fields = scan_hex_tokens(text, tok);
    for (int t = 0; t < 16; t++) {
        hi[t] = table[(unsigned char)tok[t][0]];
        lo[t] = table[(unsigned char)tok[t][1]];
    }
    return fields;
}

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "word-wise decoding assumes a little-endian host");

// Decodes whole 36-byte lines, the i-th with `line(text, i)`, until one is
// not a usual data line; returns how many were decoded.
template <typename Line> static inline size_t decode_usual_lines(const char* text, size_t lines, Line line)
{
    size_t i = 0;
    for (; i < lines; i++, text += 36) {
        if (text[35] != '\n' || !line(text, i))
            break;
    }
    return i;
}

// The vector decoders read a line at four fixed places, eight digits each.
// Every lane is classified at once: a hex digit gives its value; for goldens
// an 'x' gives 0 and a cleared mask nibble ("keep" holds 0x0F per compared
// digit); any other character rejects the line.

#if defined(__SSE2__)

template <bool kGolden> static inline bool sse2_nibbles(__m128i chars, __m128i* value, __m128i* keep)
{
    __m128i digit = _mm_sub_epi8(chars, _mm_set1_epi8('0'));
    __m128i is_digit = _mm_cmpeq_epi8(_mm_min_epu8(digit, _mm_set1_epi8(9)), digit);
    __m128i alpha = _mm_sub_epi8(_mm_or_si128(chars, _mm_set1_epi8(0x20)), _mm_set1_epi8('a'));
    __m128i is_alpha = _mm_cmpeq_epi8(_mm_min_epu8(alpha, _mm_set1_epi8(5)), alpha);
    __m128i valid = _mm_or_si128(is_digit, is_alpha);
    // A digit's low four bits are its value; a letter's are 1-6, so add 9.
    __m128i v = _mm_add_epi8(_mm_and_si128(chars, _mm_set1_epi8(0x0F)), _mm_and_si128(is_alpha, _mm_set1_epi8(9)));
    if constexpr (kGolden) {
        __m128i is_x = _mm_cmpeq_epi8(chars, _mm_set1_epi8('x'));
        valid = _mm_or_si128(valid, is_x);
        v = _mm_andnot_si128(is_x, v);
        *keep = _mm_andnot_si128(is_x, _mm_set1_epi8(0x0F));
    }
    *value = v;
    return _mm_movemask_epi8(valid) == 0xFFFF;
}

// Nibble pairs to bytes, one per 16-bit lane: the even character is the
// high nibble.
static inline __m128i pair_bytes(__m128i nibbles)
{
    return _mm_or_si128(_mm_slli_epi16(_mm_and_si128(nibbles, _mm_set1_epi16(0x0F)), 4), _mm_srli_epi16(nibbles, 8));
}

static inline __m128i two_groups(const char* first, const char* second)
{
    return _mm_unpacklo_epi64(_mm_loadl_epi64((const __m128i*)first), _mm_loadl_epi64((const __m128i*)second));
}

// The bytes the two halves spell, stored last pair first.
static inline void sse2_store_reversed(__m128i front, __m128i back, uint8_t* out)
{
    __m128i spelled = _mm_packus_epi16(pair_bytes(front), pair_bytes(back));
    // Reverse the sixteen bytes: words, then the bytes within each word.
    __m128i words = _mm_shuffle_epi32(spelled, _MM_SHUFFLE(0, 1, 2, 3));
    words = _mm_shufflehi_epi16(_mm_shufflelo_epi16(words, _MM_SHUFFLE(2, 3, 0, 1)), _MM_SHUFFLE(2, 3, 0, 1));
    _mm_storeu_si128((__m128i*)out, _mm_or_si128(_mm_slli_epi16(words, 8), _mm_srli_epi16(words, 8)));
}

// A line of 32 digits in four groups joined by '_' (its first 35 bytes are
// readable): its bytes and, for goldens, mask bytes; false for any other line.
template <bool kGolden> static inline bool sse2_line(const char* line, uint8_t* data, uint8_t* mask)
{
    __m128i front, back, front_keep, back_keep;
    if (!separators_in_place(line) || !sse2_nibbles<kGolden>(two_groups(line, line + 9), &front, &front_keep) ||
        !sse2_nibbles<kGolden>(two_groups(line + 18, line + 27), &back, &back_keep))
        return false;
    sse2_store_reversed(front, back, data);
    if constexpr (kGolden)
        sse2_store_reversed(front_keep, back_keep, mask);
    return true;
}

template <bool kGolden> static size_t sse2_run(const char* text, size_t lines, uint8_t* data, uint8_t* mask)
{
    return decode_usual_lines(text, lines, [&](const char* line, size_t i) {
        return sse2_line<kGolden>(line, data + 16 * i, kGolden ? mask + 16 * i : nullptr);
    });
}

// AVX2 classifies the whole line in one register and pairs the digits with
// one multiply-add. The constants are made once per run and held in
// registers: left to itself the compiler rebuilds each one on every line.
struct avx2_consts {
    __m256i zero, nine, lower, a, five, low4, x, weights;
    __m128i reverse;
};

__attribute__((target("avx2"))) static inline avx2_consts avx2_make_consts()
{
    avx2_consts k {_mm256_set1_epi8('0'),
                   _mm256_set1_epi8(9),
                   _mm256_set1_epi8(0x20),
                   _mm256_set1_epi8('a'),
                   _mm256_set1_epi8(5),
                   _mm256_set1_epi8(0x0F),
                   _mm256_set1_epi8('x'),
                   _mm256_set1_epi16(0x0110),
                   _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15)};
    asm(""
        : "+x"(k.zero), "+x"(k.nine), "+x"(k.lower), "+x"(k.a), "+x"(k.five), "+x"(k.low4), "+x"(k.x), "+x"(k.weights),
          "+x"(k.reverse));
    return k;
}

// Pair byte = high * 16 + low; the packed halves sit in the low quarter of
// each lane; then the sixteen bytes are reversed.
__attribute__((target("avx2"))) static inline void avx2_store_reversed(__m256i nibbles, const avx2_consts& k,
                                                                       uint8_t* out)
{
    __m256i pairs = _mm256_maddubs_epi16(nibbles, k.weights);
    __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(pairs, pairs), 0x08);
    _mm_storeu_si128((__m128i*)out, _mm_shuffle_epi8(_mm256_castsi256_si128(packed), k.reverse));
}

template <bool kGolden>
__attribute__((target("avx2"))) static inline bool avx2_line(const char* line, const avx2_consts& k, uint8_t* data,
                                                             uint8_t* mask)
{
    if (!separators_in_place(line))
        return false;
    __m256i chars = _mm256_inserti128_si256(_mm256_castsi128_si256(two_groups(line, line + 9)),
                                            two_groups(line + 18, line + 27), 1);
    __m256i digit = _mm256_sub_epi8(chars, k.zero);
    __m256i is_digit = _mm256_cmpeq_epi8(_mm256_min_epu8(digit, k.nine), digit);
    __m256i alpha = _mm256_sub_epi8(_mm256_or_si256(chars, k.lower), k.a);
    __m256i is_alpha = _mm256_cmpeq_epi8(_mm256_min_epu8(alpha, k.five), alpha);
    __m256i valid = _mm256_or_si256(is_digit, is_alpha);
    __m256i value = _mm256_add_epi8(_mm256_and_si256(chars, k.low4), _mm256_and_si256(is_alpha, k.nine));
    __m256i keep = k.low4;
    if constexpr (kGolden) {
        __m256i is_x = _mm256_cmpeq_epi8(chars, k.x);
        valid = _mm256_or_si256(valid, is_x);
        value = _mm256_andnot_si256(is_x, value);
        keep = _mm256_andnot_si256(is_x, k.low4);
    }
    if (_mm256_movemask_epi8(valid) != -1)
        return false;
    avx2_store_reversed(value, k, data);
    if constexpr (kGolden)
        avx2_store_reversed(keep, k, mask);
    return true;
}

template <bool kGolden>
__attribute__((target("avx2"))) static size_t avx2_run(const char* text, size_t lines, uint8_t* data, uint8_t* mask)
{
    const avx2_consts k = avx2_make_consts();
    size_t i = 0;
    for (; i < lines; i++, text += 36) {
        if (text[35] != '\n' || !avx2_line<kGolden>(text, k, data + 16 * i, kGolden ? mask + 16 * i : nullptr))
            break;
    }
    return i;
}

#endif

#if defined(__aarch64__)

// The nibbles of sixteen characters; `valid` is all ones in the lanes that
// hold a digit.
template <bool kGolden> static inline uint8x16_t neon_nibbles(uint8x16_t chars, uint8x16_t* valid, uint8x16_t* keep)
{
    uint8x16_t digit = vsubq_u8(chars, vdupq_n_u8('0'));
    uint8x16_t is_digit = vcleq_u8(digit, vdupq_n_u8(9));
    uint8x16_t alpha = vsubq_u8(vorrq_u8(chars, vdupq_n_u8(0x20)), vdupq_n_u8('a'));
    uint8x16_t is_alpha = vcleq_u8(alpha, vdupq_n_u8(5));
    *valid = vorrq_u8(is_digit, is_alpha);
    uint8x16_t value = vaddq_u8(vandq_u8(chars, vdupq_n_u8(0x0F)), vandq_u8(is_alpha, vdupq_n_u8(9)));
    if constexpr (kGolden) {
        uint8x16_t is_x = vceqq_u8(chars, vdupq_n_u8('x'));
        *valid = vorrq_u8(*valid, is_x);
        value = vbicq_u8(value, is_x);
        *keep = vbicq_u8(vdupq_n_u8(0x0F), is_x);
    }
    return value;
}

// Even characters are the high nibbles; the sixteen bytes are stored last
// pair first.
static inline void neon_store_reversed(uint8x16_t front, uint8x16_t back, uint8_t* out)
{
    uint8x16_t spelled = vsliq_n_u8(vuzp2q_u8(front, back), vuzp1q_u8(front, back), 4);
    uint8x16_t reversed = vrev64q_u8(spelled);
    vst1q_u8(out, vextq_u8(reversed, reversed, 8));
}

static inline uint8x16_t neon_groups(const char* first, const char* second)
{
    return vcombine_u8(vld1_u8((const uint8_t*)first), vld1_u8((const uint8_t*)second));
}

template <bool kGolden> static inline bool neon_line(const char* line, uint8_t* data, uint8_t* mask)
{
    if (!separators_in_place(line))
        return false;
    uint8x16_t front_valid, back_valid, front_keep = vdupq_n_u8(0), back_keep = vdupq_n_u8(0);
    uint8x16_t front = neon_nibbles<kGolden>(neon_groups(line, line + 9), &front_valid, &front_keep);
    uint8x16_t back = neon_nibbles<kGolden>(neon_groups(line + 18, line + 27), &back_valid, &back_keep);
    if (vminvq_u8(vandq_u8(front_valid, back_valid)) != 0xFF)
        return false;
    neon_store_reversed(front, back, data);
    if constexpr (kGolden)
        neon_store_reversed(front_keep, back_keep, mask);
    return true;
}

template <bool kGolden> static size_t neon_run(const char* text, size_t lines, uint8_t* data, uint8_t* mask)
{
    return decode_usual_lines(text, lines, [&](const char* line, size_t i) {
        return neon_line<kGolden>(line, data + 16 * i, kGolden ? mask + 16 * i : nullptr);
    });
}

#endif

static const uint64_t kEachByte = 0x0101010101010101ull;

// Eight hex digits ([0-9a-fA-F] only) as one word, decoded eight at a time:
// the four bytes they spell go to `out` in memory order (last pair first).
// False when any character is not a hex digit.
static inline bool decode_hex_group(const char* chars, uint8_t out[4])
{
    uint64_t x;
    memcpy(&x, chars, 8);
    if (x & (0x80 * kEachByte))
        return false;
    // Per byte, bit 7 of (c + 0x80 - k) is set exactly when c >= k (c < 0x80).
    uint64_t digit = (x + (0x80 - '0') * kEachByte) & ~(x + (0x80 - '9' - 1) * kEachByte);
    uint64_t lower = x | (0x20 * kEachByte);
    uint64_t alpha = (lower + (0x80 - 'a') * kEachByte) & ~(lower + (0x80 - 'f' - 1) * kEachByte);
    if (((digit | alpha) & (0x80 * kEachByte)) != 0x80 * kEachByte)
        return false;
    uint64_t nibbles = (x & (0x0F * kEachByte)) + ((alpha >> 7) & kEachByte) * 9;
    // Pair the characters: high nibble from the even one, low from the odd one.
    uint64_t pairs = ((nibbles & 0x000F000F000F000Full) << 4) | ((nibbles >> 8) & 0x000F000F000F000Full);
    uint32_t spelled = (uint32_t)((pairs & 0xFF) | ((pairs >> 8) & 0xFF00) | ((pairs >> 16) & 0xFF0000) |
                                  ((pairs >> 24) & 0xFF000000));
    uint32_t in_memory = __builtin_bswap32(spelled);
    memcpy(out, &in_memory, 4);
    return true;
}

bool decode_hex_digits_words(const char* line, size_t n, uint8_t out[16])
{
    return n >= HEX_LINE_CHARS && separators_in_place(line) && decode_hex_group(line, out + 12) &&
        decode_hex_group(line + 9, out + 8) && decode_hex_group(line + 18, out + 4) && decode_hex_group(line + 27, out);
}

// The vector decoder where the host has one, the word one elsewhere.
static inline bool decode_hex_digits(const char* line, size_t n, uint8_t out[16])
{
    if (n < HEX_LINE_CHARS)
        return false;
#if defined(__SSE2__)
    return sse2_line<false>(line, out, nullptr);
#elif defined(__aarch64__)
    return neon_line<false>(line, out, nullptr);
#else
    return decode_hex_digits_words(line, n, out);
#endif
}

// The portable run decoders: a golden line with an 'x' digit is left to
// the exact per-line reading.
static size_t words_data_run(const char* text, size_t lines, uint8_t* out)
{
    return decode_usual_lines(
        text, lines, [&](const char* line, size_t i) { return decode_hex_digits_words(line, 36, out + 16 * i); });
}

static size_t words_golden_run(const char* text, size_t lines, uint8_t* data, uint8_t* mask)
{
    size_t done = words_data_run(text, lines, data);
    memset(mask, 0xFF, 16 * done);
    return done;
}

#if defined(__SSE2__)
static size_t sse2_data_run(const char* text, size_t lines, uint8_t* out)
{
    return sse2_run<false>(text, lines, out, nullptr);
}

__attribute__((target("avx2"))) static size_t avx2_data_run(const char* text, size_t lines, uint8_t* out)
{
    return avx2_run<false>(text, lines, out, nullptr);
}
#endif

#if defined(__aarch64__)
static size_t neon_data_run(const char* text, size_t lines, uint8_t* out)
{
    return neon_run<false>(text, lines, out, nullptr);
}
#endif

// The decoders this CPU runs, widest first.
static std::vector<hex_run_decoder> usable_run_decoders()
{
    std::vector<hex_run_decoder> list;
#if defined(__SSE2__)
    if (__builtin_cpu_supports("avx2"))
        list.push_back({"avx2", avx2_data_run, avx2_run<true>});
    list.push_back({"sse2", sse2_data_run, sse2_run<true>});
#endif
#if defined(__aarch64__)
    list.push_back({"neon", neon_data_run, neon_run<true>});
#endif
    list.push_back({"words", words_data_run, words_golden_run});
    return list;
}

const hex_run_decoder* hex_run_decoders(size_t* count)
{
    static const std::vector<hex_run_decoder> list = usable_run_decoders();
    *count = list.size();
    return list.data();
}

static const hex_run_decoder& run_decoder()
{
    static const hex_run_decoder* chosen = [] {
        size_t count;
        return hex_run_decoders(&count);
    }();
    return *chosen;
}

size_t decode_data_lines(const char* text, size_t lines, uint8_t* out)
{
    return run_decoder().data(text, lines, out);
}

size_t decode_golden_lines(const char* text, size_t lines, uint8_t* data, uint8_t* mask)
{
    return run_decoder().golden(text, lines, data, mask);
}

// The bytes (and, for goldens, the mask) of the 16 tokens, given each token's
// two table entries.
static void bytes_from_codes(const uint8_t hi[16], const uint8_t lo[16], uint8_t data[16], uint8_t* mask)
{
    for (int t = 0; t < 16; t++) {
        data[15 - t] = (uint8_t)((hi[t] & 0x0F) << 4 | (lo[t] & 0x0F));
        if (mask != nullptr)
            mask[15 - t] = (uint8_t)((hi[t] & kCompared ? 0xF0 : 0) | (lo[t] & kCompared ? 0x0F : 0));
    }
}

// A line of `n` bytes, decoded through `table` (mask only when asked):
// 32 hex digits word by word, other plain lines in one table pass, the
// rest through the scan. Returns the field count.
static int decode_line(const char* line, size_t n, const std::array<uint8_t, 256>& table, uint8_t data[16],
                       uint8_t* mask)
{
    if (decode_hex_digits(line, n, data)) {
        if (mask != nullptr)
            memset(mask, 0xFF, 16);
        return 16;
    }
    uint8_t hi[16], lo[16];
    int fields = 16;
    if (n >= HEX_LINE_CHARS) {
        const unsigned char* p = (const unsigned char*)line;
        uint8_t flags = 0;
        for (int t = 0; t < 16; t++) {
            hi[t] = table[p[kTokenStart[t]]];
            lo[t] = table[p[kTokenStart[t] + 1]];
            flags |= hi[t] | lo[t];
        }
        if ((flags & kNotToken) || !separators_in_place(line))
            fields = scanned_codes(line, n, table, hi, lo);
    } else {
        fields = scanned_codes(line, n, table, hi, lo);
    }
    bytes_from_codes(hi, lo, data, mask);
    return fields;
}

int decode_data_line(const char* line, size_t n, uint8_t out[16])
{
    return decode_line(line, n, data_code, out, nullptr);
}

int decode_golden_line(const char* line, size_t n, uint8_t data[16], uint8_t mask[16])
{
    return decode_line(line, n, golden_code, data, mask);
}
