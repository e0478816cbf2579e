// Helpers shared by every unit: the bracketed log prefixes of the command
// layer, player and entry point, the debug mask bits, and the small text
// tests used by the loaders and converters.
//
// Contract: I, W and E lines always print; D lines print only when their bit
// is set in the debug level handed in. All logs go to standard output.
#ifndef QORA_UTILS_H
#define QORA_UTILS_H

#include <cstdio>
#include <string>

enum QORA_DEBUG_MASK {
    QORA_DEBUG_CMD = 1,
    QORA_DEBUG_MEM = 2,
    QORA_DEBUG_PERF = 4,
};

// Prefix with an explicit function name and line, for messages whose line
// number is part of the output.
#define QORA_LOG_AT(lv, func, line, fmt, ...) \
    printf("[" lv ":%s:%d] " fmt, func, line, ##__VA_ARGS__)

#define QORA_LOGI(fmt, ...) QORA_LOG_AT("I", __func__, __LINE__, fmt, ##__VA_ARGS__)
#define QORA_LOGW(fmt, ...) QORA_LOG_AT("W", __func__, __LINE__, fmt, ##__VA_ARGS__)
#define QORA_LOGE(fmt, ...) QORA_LOG_AT("E", __func__, __LINE__, fmt, ##__VA_ARGS__)
#define QORA_LOGD(debug_lv, bit, fmt, ...)                                    \
    do {                                                                      \
        if ((debug_lv) & (bit))                                               \
            QORA_LOG_AT("D", __func__, __LINE__, fmt, ##__VA_ARGS__);         \
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

#endif // QORA_UTILS_H
