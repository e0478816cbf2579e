// Helpers shared by the pattern store's source files (not part of its API):
// region release, the progress bar that every reader advances, and the
// tokenizer of the sixteen-byte hex line common to patterns, goldens and
// the header generators.
#ifndef QORA_PATTERN_INTERNAL_H
#define QORA_PATTERN_INTERNAL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "qora_pattern.h"

// Text input is read in pieces of at most this many characters (a 120-byte
// buffer with its terminator), as fgets with a 120-byte buffer would.
#define QORA_LINE_BUF 120

// Releases every region of the golden (data, mask, record) and empties its list.
void free_sub_golden(golden* g);

// Progress state shared by all readers; reset by prepare_progress_bar.
extern uint32_t line_num;
extern uint32_t line_idx;
extern uint32_t last_progress;
extern char bar[51];

// Resets the progress state and counts the reads a pass over the file will
// make: 120-byte line reads for text, 16-byte reads for binary. Rewinds the
// file; a failed rewind prints "prepare_progress_bar() seek fail".
void prepare_progress_bar(FILE* fp, bool is_bin);

// Counts one read and prints the bar when the whole percentage changes.
// Between two changes only the count moves, so most calls stop inline.
extern uint32_t progress_next_idx;
void show_progress_bar_update();
inline void show_progress_bar()
{
    if (line_idx + 1 < progress_next_idx) {
        line_idx += 1;
        return;
    }
    show_progress_bar_update();
}

// Number of 120-byte line reads (pieces of at most 119 characters, a piece
// ending at each line feed) that fgets makes over `len` bytes of text.
// `tail` carries a partial line across calls; start it at 0.
uint32_t count_line_pieces(const char* text, size_t len, size_t* tail);

// The sixteen two-character tokens of a hex data line, read exactly as
// sscanf(line, "%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s", ...)
// reads them. Returns what sscanf returns (fields read, or EOF); fields that
// were not read keep their contents. Well-formed lines take a fast path.
int scan_hex_tokens(const char* line, char tok[16][3]);

// Value of one hex digit; any other character reads as 15 (table form of
// to_i_4bit for the hot paths).
extern const std::array<uint8_t, 256> hex_nibble;

// The 16 bytes of a pattern data line in memory order (the line's last token
// is byte 0), from the `n` bytes at `line` (not terminated; a NUL byte ends
// the text as it would end a C string). Tokens the line does not hold read
// as empty (bytes 0xFF). Returns the field count of the sixteen-token scan.
int decode_data_line(const char* line, size_t n, uint8_t out[16]);

// The 16 bytes and mask bytes of a golden data line in memory order: an 'x'
// nibble reads as 0 and is masked out, any other non-hex character reads as
// 15. Arguments and result as above.
int decode_golden_line(const char* line, size_t n, uint8_t data[16], uint8_t mask[16]);

// The portable decoder of the usual line, 32 hex digits in four groups
// joined by '_': its 16 bytes in memory order, or false for any other line.
// Hosts with a vector decoder use that one instead; tests run both.
bool decode_hex_digits_words(const char* line, size_t n, uint8_t out[16]);

// Whether the 35 bytes at p hold no line feed (tested a word at a time).
inline bool no_line_feed_in_35(const char* p)
{
    const uint64_t each = 0x0101010101010101ull;
    uint64_t found = 0;
    for (int i = 0; i < 32; i += 8) {
        uint64_t x;
        memcpy(&x, p + i, 8);
        x ^= '\n' * each;
        found |= (x - each) & ~x & (0x80 * each);
    }
    return found == 0 && p[32] != '\n' && p[33] != '\n' && p[34] != '\n';
}

// The usual line of a dump: 35 characters and a line feed.
inline bool is_usual_line(const char* p, size_t left)
{
    return left >= 36 && p[35] == '\n' && no_line_feed_in_35(p);
}

// `n` bytes of text, not terminated.
struct text_piece {
    const char* data;
    size_t n;
};

// The piece as a C string in a 120-byte buffer, as fgets would leave it.
inline void terminate_piece(text_piece piece, char out[QORA_LINE_BUF])
{
    memcpy(out, piece.data, piece.n);
    out[piece.n] = '\0';
}

// Reads a text file as fgets with a 120-byte buffer would: pieces of at most
// 119 characters, each ending after a line feed or where the buffer filled.
// The file is read in large chunks and pieces are handed out where they lie.
class line_reader {
public:
    explicit line_reader(FILE* fp);
    ~line_reader();
    line_reader(const line_reader&) = delete;
    line_reader& operator=(const line_reader&) = delete;

    // The next piece, valid until the next call; n is 0 at end of file.
    text_piece next()
    {
        const char* src = m_data + m_pos;
        // The usual line, 35 characters and its line feed, takes no search.
        if (is_usual_line(src, m_size - m_pos)) {
            m_pos += 36;
            return {src, 36};
        }
        return next_searched();
    }

private:
    text_piece next_searched();
    bool refill();

    FILE* m_fp;
    const char* m_data; // the current chunk
    size_t m_size;
    size_t m_pos;
    char* m_chunk;
    char m_carry[QORA_LINE_BUF]; // a piece that runs across two chunks
};

// Header generators: whether a golden mask array was written (never cleared).
extern bool mask_exist;
// Formats into a header; formatting and write failures are reported for `func`.
void emit(FILE* fp, const char* func, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
void emit_text(FILE* fp, const char* func, const char* text, size_t n);
// The header path up to its last '.', at most 79 characters: the array names' base.
std::string header_base_name(const std::string& header);
// "0x" and each token's characters (rewritten by `map`), last token first,
// joined by ", "; returns the length written to `out` (at least 128 bytes).
size_t format_items(char tok[16][3], char (*map)(char), char* out);

// The tables of the built-in pattern a reserved name ("Test", "MaxPower")
// selects; null for any other name.
const internal_tables* internal_pattern(const std::string& name);

// Asks for huge pages under a large block about to be filled: fewer page
// faults while loading hundreds of megabytes. Only advice; failures are ignored.
void advise_huge_pages(void* block, size_t size);

// Allocation seam of the loaders, so tests can make allocations fail.
extern void* (*pattern_malloc)(size_t size);
extern void* (*pattern_realloc)(void* ptr, size_t size);

// Puts the state the text loader keeps across files back to where a process
// starts, for fuzz targets that load many unrelated files in one process.
void reset_pattern_load_state();

#endif // QORA_PATTERN_INTERNAL_H
