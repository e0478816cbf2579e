// Helpers shared by every unit: the bracketed log prefixes of the command
// layer, player and entry point, the debug mask bits, the small text tests
// used by the loaders and converters, and the converters' file writing.
//
// Contract: I, W and E lines always print; D lines print only when their bit
// is set in the debug level handed in. All logs go to standard output. File
// helpers report a failure as "%s():%d ..." for the function named by the
// caller and never change a result.
#ifndef QORA_UTILS_H
#define QORA_UTILS_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

enum QORA_DEBUG_MASK {
    QORA_DEBUG_CMD = 1,
    QORA_DEBUG_MEM = 2,
    QORA_DEBUG_PERF = 4,
};

// The function name and line number in each prefix are part of the output:
// users and scripts read them ("[W:RunCmd:...]"). Code split out of an
// operation keeps printing as that operation (QORA_LOG_AS), and the few
// messages whose line number is fixed give it literally (QORA_LOG_AT).
// The report tool reads these texts back from captured logs: the messages
// it keys on are listed by their opening text in
// tools/qora_report/qora_report/runlog.py; changing one here means changing
// it there too.
#define QORA_LOG_AT(lv, func, line, fmt, ...) printf("[" lv ":%s:%d] " fmt, func, line, ##__VA_ARGS__)
#define QORA_LOG_AS(lv, func, fmt, ...) QORA_LOG_AT(lv, func, __LINE__, fmt, ##__VA_ARGS__)

#define QORA_LOGI(fmt, ...) QORA_LOG_AT("I", __func__, __LINE__, fmt, ##__VA_ARGS__)
#define QORA_LOGW(fmt, ...) QORA_LOG_AT("W", __func__, __LINE__, fmt, ##__VA_ARGS__)
#define QORA_LOGE(fmt, ...) QORA_LOG_AT("E", __func__, __LINE__, fmt, ##__VA_ARGS__)
#define QORA_LOGD(debug_lv, bit, fmt, ...)                                                                             \
    do {                                                                                                               \
        if ((debug_lv) & (bit))                                                                                        \
            QORA_LOG_AT("D", __func__, __LINE__, fmt, ##__VA_ARGS__);                                                  \
    } while (0)

// One hexadecimal digit to its value; any other character reads as 15.
inline int to_i_4bit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 15;
}

inline bool name_has_suffix(const std::string& name, const char* suffix4)
{
    return name.size() >= 4 && name.compare(name.size() - 4, 4, suffix4) == 0;
}

// At least four characters, the last four exactly ".hex" (case-sensitive).
inline bool hex_name_is_valid(const std::string& hex)
{
    return name_has_suffix(hex, ".hex");
}

// At least four characters, the last four exactly ".bin" (case-sensitive).
inline bool bin_name_is_valid(const std::string& bin)
{
    return name_has_suffix(bin, ".bin");
}

// Where the loaders and the header generator place every relocation into the
// on-chip local memory: its binding row names this base and keeps the rest
// of the address as its shift.
#define QORA_VLM_BASE 0x1D900000u

// An address text's value, read as hexadecimal up to its first other
// character ("40000000\n" is 0x40000000).
inline uint32_t hex_address(const char* text)
{
    return (uint32_t)strtoul(text, nullptr, 16);
}

// Device addresses 0x1D800000 to 0x1DFFFFFF are the engine's on-chip local memory.
inline bool is_vlm_address(uint32_t dev_va)
{
    return (dev_va >> 23) == 59;
}

// The last component of the directory that holds `path`, whose last '/' is
// at `slash`: "a/b/c.hex" and "b/c.hex" both give "b".
inline std::string directory_name(const std::string& path, size_t slash)
{
    std::string dir = path.substr(0, slash);
    size_t parent = dir.rfind('/');
    return parent == std::string::npos ? dir : dir.substr(parent + 1);
}

inline void close_reporting(FILE* fp, const char* func, int line)
{
    if (fclose(fp) != 0)
        printf("%s():%d fclose error\n", func, line);
}

inline void emit_text(FILE* fp, const char* func, const char* text, size_t n)
{
    if (fwrite(text, 1, n, fp) != n)
        printf("%s():%d fwrite error\n", func, __LINE__);
}

// Formats at most 511 characters into the file.
__attribute__((format(printf, 3, 4))) inline void emit(FILE* fp, const char* func, const char* fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    if (n < 0 || (size_t)n >= sizeof(text)) {
        printf("%s():%d snprintf fail\n", func, __LINE__);
        return;
    }
    emit_text(fp, func, text, (size_t)n);
}

// `n` bytes as "0x%02x" items joined by ", " (no separator after the last);
// returns the length written to `out`, which has room for 6 * n characters.
inline size_t hex_byte_items(const uint8_t* bytes, size_t n, char* out)
{
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < n; i++) {
        char* item = out + 6 * i;
        item[0] = '0';
        item[1] = 'x';
        item[2] = digits[bytes[i] >> 4];
        item[3] = digits[bytes[i] & 15];
        item[4] = ',';
        item[5] = ' ';
    }
    return n == 0 ? 0 : 6 * n - 2;
}

#endif // QORA_UTILS_H
