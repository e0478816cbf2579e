// Text and binary input of the pattern store's readers: a reader that hands
// out the pieces fgets with a 120-byte buffer would return, without a copy
// per line, and the progress bar every reader advances once per read.
//
// Contract: line_reader pieces are exactly fgets's (at most 119 characters,
// ending after a line feed or where the buffer filled, NUL bytes kept);
// prepare_progress_bar counts the reads a pass will make and rewinds;
// show_progress_bar prints only when the whole percentage changes.
#ifndef QORA_PATTERN_READER_H
#define QORA_PATTERN_READER_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

// Text input is read in pieces of at most this many characters (a 120-byte
// buffer with its terminator), as fgets with a 120-byte buffer would.
#define QORA_LINE_BUF 120

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

// Reads that can be counted from here on without the bar changing, and
// counting them at once: runs of lines pass the bar in one step.
inline uint32_t progress_quiet_reads()
{
    return progress_next_idx > line_idx + 1 ? progress_next_idx - line_idx - 1 : 0;
}
inline void progress_skip(uint32_t reads)
{
    line_idx += reads;
}

// Number of 120-byte line reads (pieces of at most 119 characters, a piece
// ending at each line feed) that fgets makes over `len` bytes of text.
// `tail` carries a partial line across calls; start it at 0.
uint32_t count_line_pieces(const char* text, size_t len, size_t* tail);

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
class line_reader
{
public:
    explicit line_reader(FILE* fp);
    ~line_reader();
    line_reader(const line_reader&) = delete;
    line_reader& operator=(const line_reader&) = delete;

    // The text read but not handed out yet, up to the end of the chunk in
    // hand (empty when a piece ran across chunks), and handing out its first
    // `n` bytes at once: whole lines only, so that pieces stay fgets's.
    text_piece rest() const { return {m_data + m_pos, m_size - m_pos}; }
    void skip(size_t n) { m_pos += n; }

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

#endif // QORA_PATTERN_READER_H
