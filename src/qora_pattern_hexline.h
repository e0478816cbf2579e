// Decoding of the sixteen-byte hex line that patterns, goldens and the
// header generators share ("00112233_44556677_8899aabb_ccddeeff").
//
// Contract: every decoder gives exactly what reading the line with
// sscanf("%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s") and
// converting each character with to_i_4bit gives, field count included;
// well-formed lines take a fast path, any other line the exact fallback.
#ifndef QORA_PATTERN_HEXLINE_H
#define QORA_PATTERN_HEXLINE_H

#include <array>
#include <cstddef>
#include <cstdint>

// The sixteen two-character tokens of a hex data line, read exactly as
// sscanf(line, "%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s", ...)
// reads them. Returns what sscanf returns (fields read, or EOF); fields that
// were not read keep their contents. Well-formed lines take a fast path.
int scan_hex_tokens(const char* line, char tok[16][3]);

// The 16 bytes of a pattern data line in memory order (the line's last token
// is byte 0), from the `n` bytes at `line` (not terminated; a NUL byte ends
// the text as it would end a C string). Tokens the line does not hold read
// as empty (bytes 0xFF). Returns the field count of the sixteen-token scan.
int decode_data_line(const char* line, size_t n, uint8_t out[16]);

// The 16 bytes and mask bytes of a golden data line in memory order: an 'x'
// nibble reads as 0 and is masked out, any other non-hex character reads as
// 15. Arguments and result as above.
int decode_golden_line(const char* line, size_t n, uint8_t data[16], uint8_t mask[16]);

// Runs of usual data lines: each 36 bytes, 32 hex digits in four groups
// joined by '_' and a line feed (goldens also take 'x' digits). Decodes up
// to `lines` of them from `text` into 16 bytes each (and, for goldens, their
// mask bytes), stopping at the first line that is not one; such a line reads
// exactly as decode_data_line / decode_golden_line would read it. Returns
// the number of lines decoded. The widest vector decoder the CPU runs is
// chosen once.
size_t decode_data_lines(const char* text, size_t lines, uint8_t* out);
size_t decode_golden_lines(const char* text, size_t lines, uint8_t* data, uint8_t* mask);

// One implementation of the run decoders above; every one the host can run
// is listed so that tests hold each against the exact rules.
struct hex_run_decoder {
    const char* name;
    size_t (*data)(const char* text, size_t lines, uint8_t* out);
    size_t (*golden)(const char* text, size_t lines, uint8_t* data, uint8_t* mask);
};
// The decoders this CPU runs, the one in use first; `count` gets how many.
const hex_run_decoder* hex_run_decoders(size_t* count);

// The portable decoder of the usual line, 32 hex digits in four groups
// joined by '_': its 16 bytes in memory order, or false for any other line.
// Hosts with a vector decoder use that one instead; tests run both.
bool decode_hex_digits_words(const char* line, size_t n, uint8_t out[16]);

#endif // QORA_PATTERN_HEXLINE_H
