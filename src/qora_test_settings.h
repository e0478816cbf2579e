// Settings of the test driver, filled by the option parser and read by the
// modes. They live for the whole life of the library and are never reset by
// the program: a second call of execute_pattern starts from what the first
// one left. Declared here so that the mode files, tests and fuzz targets can
// reach them.
#ifndef QORA_TEST_SETTINGS_H
#define QORA_TEST_SETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

// The lists start empty; every other setting is named once here with its
// type and the value a process starts with.
#define QORA_SCALAR_SETTINGS(X)                                                                                        \
    X(std::string, gen_hdr_name, "")                                                                                   \
    X(std::string, fw_elf, "")                                                                                         \
    X(std::string, hex2bin, "")                                                                                        \
    X(bool, do_nothing, false)                                                                                         \
    X(bool, folder_as_name, false)                                                                                     \
    X(int, core_id, 0)                                                                                                 \
    X(int, loop, 1)                                                                                                    \
    X(int, debug_lv, 1)                                                                                                \
    X(int, sleep_time_us, 0)                                                                                           \
    X(int, delay_off_ms, 0)                                                                                            \
    X(int, boost_value, -2)                                                                                            \
    X(int, soft_limit, 0)                                                                                              \
    X(int, hard_limit, 0)                                                                                              \
    X(int, prio_lv, -1)                                                                                                \
    X(int, thrd_num, 1)                                                                                                \
    X(int, pmu_flusher, 0)                                                                                             \
    X(bool, dump_result_data, false)                                                                                   \
    X(bool, perf_mode, false)                                                                                          \
    X(bool, vlm_disable, false)

extern std::vector<std::string> pattern_list;
extern std::vector<std::string> golden_list;
extern std::vector<uint16_t> pmu_events;
#define QORA_DECLARE_SETTING(type, name, start) extern type name;
QORA_SCALAR_SETTINGS(QORA_DECLARE_SETTING)
#undef QORA_DECLARE_SETTING

// Puts every setting back to the value a process starts with. The program
// never calls it (settings persist across calls on purpose); tests and fuzz
// targets do, between independent calls.
void reset_settings();

void ShowHelp();

// Runs the first conversion mode that the settings ask for (firmware, debug
// log, header generation, in that order); false when none applies.
bool run_conversion_mode();

// Runs the patterns of pattern_list on the engine; 0 when every run built,
// ran and verified, else 1.
int run_pattern_mode();

#endif // QORA_TEST_SETTINGS_H
