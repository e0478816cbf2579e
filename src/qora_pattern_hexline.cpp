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
#undef ROW
#undef N

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
