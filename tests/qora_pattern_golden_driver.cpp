// Loads one golden against a pattern with the player's own loader and writes
// what the comparison would see, one line per region: its length, then its
// data and mask bytes in hex ("-" for no mask), or "fail" when the load
// fails. The report tool's golden reader is checked against it.
// Usage: qora_pattern_golden_driver <pattern.hex> <golden> <result file>
#include <cstdio>
#include <string>
#include <vector>

#include "qora_pattern.h"

static void write_hex(FILE* out, const uint8_t* bytes, uint32_t len)
{
    for (uint32_t i = 0; i < len; i++)
        fprintf(out, "%02x", bytes[i]);
}

int main(int argc, char** argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: %s <pattern.hex> <golden> <result file>\n", argv[0]);
        return 2;
    }
    std::vector<std::string> patterns {argv[1]};
    std::vector<std::string> goldens {argv[2]};
    qoraPattern set(patterns, goldens, 1);
    FILE* out = fopen(argv[3], "w");
    if (out == nullptr)
        return 2;
    uint32_t n = set.get_pattern_golden_num();
    if (n == 0)
        fputs("fail\n", out);
    for (uint32_t i = 0; i < n; i++) {
        uint32_t len = set.get_pattern_golden_size(i);
        fprintf(out, "%u ", len);
        write_hex(out, set.get_pattern_golden_addr(i), len);
        fputc(' ', out);
        const uint8_t* mask = set.get_pattern_golden_addr_mask(i);
        if (mask == nullptr)
            fputc('-', out);
        else
            write_hex(out, mask, len);
        fputc('\n', out);
    }
    return fclose(out) == 0 ? 0 : 2;
}
