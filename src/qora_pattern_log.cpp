// Debug-log converter: the hex words a debug log printed after a
// "qora_dump_buf: output" line, written as a raw binary file.
#include <cstring>

#include "qora_pattern.h"
#include "qora_pattern_reader.h"
#include "qora_utils.h"

static const char kMarker[] = "qora_dump_buf: output";

int qoraPattern::dump_bin_from_ctp_log(const std::string& log)
{
    FILE* in = fopen(log.c_str(), "r");
    if (in == nullptr) {
        printf("open file(%s) error\n", log.c_str());
        return -1;
    }
    std::string bin = log + ".bin";
    FILE* out = fopen(bin.c_str(), "w");
    if (out == nullptr) {
        printf("open file(%s) error\n", bin.c_str());
        close_reporting(in, "convert_pattern_hex_to_bin", __LINE__);
        return -1;
    }
    char str[QORA_LINE_BUF];
    unsigned int words[4] = {0, 0, 0, 0}; // a short line keeps the previous line's words
    bool in_dump = false;
    while (fgets(str, sizeof(str), in) != nullptr) {
        bool marker = strncmp(str, kMarker, sizeof(kMarker) - 1) == 0;
        if (in_dump && !marker) {
            if (str[0] != '0' && str[0] != 'x')
                break; // the dump has ended
            if (sscanf(str, "0x%8x 0x%8x 0x%8x 0x%8x", &words[0], &words[1], &words[2], &words[3]) < 4)
                printf("%s():%d sscanf fail\n", "convert_pattern_hex_to_bin", __LINE__);
            uint8_t bytes[16];
            for (int w = 0; w < 4; w++)
                for (int b = 0; b < 4; b++)
                    bytes[4 * w + b] = (uint8_t)(words[w] >> (8 * b));
            if (fwrite(bytes, 1, sizeof(bytes), out) != sizeof(bytes))
                printf("%s():%d fwrite error\n", "convert_pattern_hex_to_bin", __LINE__);
        } else {
            in_dump = marker;
        }
    }
    close_reporting(in, "convert_pattern_hex_to_bin", __LINE__);
    close_reporting(out, "convert_pattern_hex_to_bin", __LINE__);
    return 0;
}
