// Tokenizer of the sixteen-byte hex line "xxxxxxxx_xxxxxxxx_xxxxxxxx_xxxxxxxx".
#include <cstring>

#include "qora_pattern_internal.h"

#define HEX_LINE_FORMAT "%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s"
#define HEX_LINE_CHARS 35 // four groups of eight characters and three '_'

static constexpr uint8_t nibble_of(int c)
{
    return c >= '0' && c <= '9'   ? (uint8_t)(c - '0')
           : c >= 'a' && c <= 'f' ? (uint8_t)(c - 'a' + 10)
           : c >= 'A' && c <= 'F' ? (uint8_t)(c - 'A' + 10)
                                  : 15;
}

#define N(c) nibble_of(c)
#define ROW(r) N(r + 0), N(r + 1), N(r + 2), N(r + 3), N(r + 4), N(r + 5), N(r + 6), N(r + 7), \
               N(r + 8), N(r + 9), N(r + 10), N(r + 11), N(r + 12), N(r + 13), N(r + 14), N(r + 15)
const uint8_t hex_nibble[256] = {
    ROW(0), ROW(16), ROW(32), ROW(48), ROW(64), ROW(80), ROW(96), ROW(112),
    ROW(128), ROW(144), ROW(160), ROW(176), ROW(192), ROW(208), ROW(224), ROW(240),
};
#undef N

static constexpr uint8_t golden_nibble_of(int c)
{
    return c == 'x' ? 0 : nibble_of(c);
}

#define N(c) golden_nibble_of(c)
static const uint8_t golden_nibble[256] = {
    ROW(0), ROW(16), ROW(32), ROW(48), ROW(64), ROW(80), ROW(96), ROW(112),
    ROW(128), ROW(144), ROW(160), ROW(176), ROW(192), ROW(208), ROW(224), ROW(240),
};
#undef N
#undef ROW

// A character that %s takes into a token: not NUL and not C-locale white space.
static inline bool is_token_char(char c)
{
    return c != '\0' && c != ' ' && (c < '\t' || c > '\r');
}

// Four groups of eight token characters with '_' between them: every %2s
// then reads exactly two characters and every '_' matches where it stands.
static bool is_plain_hex_line(const char* line)
{
    for (int i = 0; i < HEX_LINE_CHARS; i++) {
        bool separator = i == 8 || i == 17 || i == 26;
        if (separator ? line[i] != '_' : !is_token_char(line[i]))
            return false;
    }
    return true;
}

int scan_hex_tokens(const char* line, char tok[16][3])
{
    if (!is_plain_hex_line(line)) {
        return sscanf(line, HEX_LINE_FORMAT, tok[0], tok[1], tok[2], tok[3], tok[4], tok[5], tok[6],
                      tok[7], tok[8], tok[9], tok[10], tok[11], tok[12], tok[13], tok[14], tok[15]);
    }
    for (int t = 0; t < 16; t++) {
        const char* src = line + 2 * t + t / 4; // skip one '_' per finished group
        tok[t][0] = src[0];
        tok[t][1] = src[1];
        tok[t][2] = '\0';
    }
    return 16;
}

// The two characters of token t: straight from a plain line, else from the scan.
// Tokens the scan does not fill stay empty.
struct token_source {
    explicit token_source(const char* l) : line(l), plain(is_plain_hex_line(l)), tok{}, fields(16)
    {
        if (!plain)
            fields = scan_hex_tokens(l, tok);
    }
    const char* at(int t) const { return plain ? line + 2 * t + t / 4 : tok[t]; }

    const char* line;
    bool plain;
    char tok[16][3];
    int fields;
};

int decode_data_line(const char* line, uint8_t out[16])
{
    token_source src(line);
    for (int t = 0; t < 16; t++) {
        const unsigned char* c = (const unsigned char*)src.at(t);
        out[15 - t] = (uint8_t)(hex_nibble[c[0]] << 4 | hex_nibble[c[1]]);
    }
    return src.fields;
}

int decode_golden_line(const char* line, uint8_t data[16], uint8_t mask[16])
{
    token_source src(line);
    for (int t = 0; t < 16; t++) {
        const unsigned char* c = (const unsigned char*)src.at(t);
        data[15 - t] = (uint8_t)(golden_nibble[c[0]] << 4 | golden_nibble[c[1]]);
        mask[15 - t] = (uint8_t)((c[0] == 'x' ? 0 : 0xF0) | (c[1] == 'x' ? 0 : 0x0F));
    }
    return src.fields;
}
