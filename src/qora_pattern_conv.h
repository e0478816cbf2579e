// What the pattern and golden header generators share: the array names'
// base and the formatting of one data line as C array items.
//
// Contract: the generators write one header per process; `mask_exist`
// says whether a golden mask array was written and is never cleared.
#ifndef QORA_PATTERN_CONV_H
#define QORA_PATTERN_CONV_H

#include <cstddef>
#include <cstdio>
#include <string>

extern bool mask_exist;

// Clears the pattern header generator's state, as before its first
// conversion: its buffer list grows with every buffer a conversion declares,
// so a process that converts many patterns (a fuzz target) resets it.
void reset_pattern_conversion_state();

// The header path up to its last '.', at most 79 characters: the array names' base.
std::string header_base_name(const std::string& header);

// "0x" and each token's characters (rewritten by `map`), last token first,
// joined by ", "; returns the length written to `out` (at least 128 bytes).
size_t format_items(char tok[16][3], char (*map)(char), char* out);

// Opens `input` for reading and `header` with `mode`. On failure prints
// "open file(%s) error" for the file that failed, closes the input when the
// header failed (reported as `func`) and returns false.
bool open_conversion(const std::string& input, const std::string& header, const char* mode, const char* func, FILE** in,
                     FILE** out);

#endif // QORA_PATTERN_CONV_H
