// Settings of the test driver, filled by the option parser and read by the
// modes. They live for the whole life of the library and are never reset by
// the program: a second call of execute_pattern starts from what the first
// one left. Declared here so that the mode files and tests can reach them.
#ifndef QORA_TEST_SETTINGS_H
#define QORA_TEST_SETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

extern std::vector<std::string> pattern_list;
extern std::vector<std::string> golden_list;
extern std::vector<uint16_t> pmu_events;
extern std::string gen_hdr_name;
extern std::string fw_elf;
extern std::string hex2bin;
extern bool do_nothing;
extern bool folder_as_name;
extern int core_id;
extern int loop;
extern int debug_lv;
extern int sleep_time_us;
extern int delay_off_ms;
extern int boost_value;
extern int soft_limit;
extern int hard_limit;
extern int prio_lv;
extern int thrd_num;
extern int pmu_flusher;
extern bool dump_result_data;
extern bool perf_mode;
extern bool vlm_disable;

void ShowHelp();

// Runs the first conversion mode that the settings ask for (firmware, debug
// log, header generation, in that order); false when none applies.
bool run_conversion_mode();

// Runs the patterns of pattern_list on the engine; 0 when every run built,
// ran and verified, else 1.
int run_pattern_mode();

#endif // QORA_TEST_SETTINGS_H
