// Test driver: the option parser, the usage text and the entry point that
// picks exactly one mode per call.
#include "qora_test.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "qora_test_settings.h"
#include "qora_utils.h"

#include "qora_version.h"

std::vector<std::string> pattern_list;
std::vector<std::string> golden_list;
std::vector<uint16_t> pmu_events;
#define QORA_DEFINE_SETTING(type, name, start) type name = start;
QORA_SCALAR_SETTINGS(QORA_DEFINE_SETTING)
#undef QORA_DEFINE_SETTING

void reset_settings()
{
    pattern_list.clear();
    golden_list.clear();
    pmu_events.clear();
#define QORA_RESET_SETTING(type, name, start) name = start;
    QORA_SCALAR_SETTINGS(QORA_RESET_SETTING)
#undef QORA_RESET_SETTING
}

enum long_only_opt {
    OPT_DELAY_OFF = 1,
    OPT_DUMP_OUTPUT = 2,
    OPT_FLUSHER = 3,
    OPT_GEN = 4,
    OPT_GEN_USE_DIRNAME = 5,
    OPT_GEN_FW = 6,
    OPT_NO_VLM = 7,
    OPT_PERF_MODE = 8,
    OPT_FORCE_PRIORITY = 9,
};

static const struct option long_opts[] = {
    {"pattern", required_argument, nullptr, 'f'},
    {"golden", required_argument, nullptr, 'g'},
    {"loop", required_argument, nullptr, 'l'},
    {"sleep", required_argument, nullptr, 's'},
    {"core", required_argument, nullptr, 'c'},
    {"boost", required_argument, nullptr, 'b'},
    {"delay_off", required_argument, nullptr, OPT_DELAY_OFF},
    {"soft", required_argument, nullptr, 'o'},
    {"hard", required_argument, nullptr, 'a'},
    {"thread", required_argument, nullptr, 't'},
    {"dump_output", no_argument, nullptr, OPT_DUMP_OUTPUT},
    {"debug", required_argument, nullptr, 'd'},
    {"pmu", required_argument, nullptr, 'p'},
    {"flusher", no_argument, nullptr, OPT_FLUSHER},
    {"unittest", required_argument, nullptr, 'u'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {"gen", required_argument, nullptr, OPT_GEN},
    {"gen_use_dirname", no_argument, nullptr, OPT_GEN_USE_DIRNAME},
    {"gen_fw", required_argument, nullptr, OPT_GEN_FW},
    {"force_priority", required_argument, nullptr, OPT_FORCE_PRIORITY},
    {"no_vlm", no_argument, nullptr, OPT_NO_VLM},
    {"perf_mode", no_argument, nullptr, OPT_PERF_MODE},
    {"hex2bin", required_argument, nullptr, 'B'},
    {nullptr, 0, nullptr, 0},
};

static const char* const usage_lines[] = {
    "./qora_player [options]",
    "    -f, --pattern   <pattern file>: set input pattern file",
    "                                    [internal pattern]",
    "                                        -f Test     : conv2d_uint8",
    "                                        -f MaxPower : MaxPower",
    "    -g, --golden    <golden file> : set input golden file",
    "    -l, --loop      <loop count>  : set loop count",
    "    -s, --sleep     <sleep time>  : set sleep time(ms) between loop",
    "    -c, --core      <core mask>   : set core id mask",
    "                                    <ex> set core 0 or core 1",
    "                                      -> mask = bit(0) + bit(1) = 3",
    "    -b, --boost     <boost value> : set boost value (0~110, -1: random)",
    "    -o, --soft      <limit value> : set soft limit(ms)",
    "    -a, --hard      <limit value> : set hard limit(ms)",
    "    -t, --thread    <thread num>  : set thread number for UT",
    "    -d, --debug     <mode mask>   : set debug mode (default:1)",
    "                                        bit 0: enable cmd info",
    "                                        bit 1: enable mem info",
    "                                        bit 2: enable perf info",
    "        --delay_off <delay time>  : set delay power off time(ms)",
    "        --dump_output             : dump output data (output[0-9].bin)",
    "    -p, --pmu       <event>       : set pmu event(hex)",
    "                                    <ex>  pmu event = 0x1708",
    "                                          -> engine id = 0x17, event id = 0x08",
    "        --flusher                 : enable pmu flusher mode",
    "        --perf_mode               : enable performance mode",
    "        --no_vlm                  : access korvex tcm directly",
    "    -u, --unittest  <ip_ver>      : set ip version for unint test",
    "---------------------------------------------------------------",
    "    -h, --help                    : show usage menu",
    "    -v, --version                 : show player version",
    "        --gen             <name>  : generate {pattern_name}.h",
    "        --gen_use_dirname         : generate {parent_dir_name}.h",
    "        --gen_fw          <name>  : generate {fw_name}.h",
    "        --force_priority  <level> : set priority level (0~7)",
    "    -B, --hex2bin         <file>  : convert hex (ctp log) to binary",
};

void ShowHelp()
{
    for (const char* line : usage_lines)
        puts(line);
}

// What the parser decided: return a value at once, or go on to the modes.
enum parse_outcome {
    PARSE_RETURN_0 = 0,
    PARSE_RETURN_1 = 1,
    PARSE_GO_ON = 2,
};

static int to_int(const char* arg)
{
    return (int)strtol(arg, nullptr, 10);
}

// Stores one option's value; returns PARSE_GO_ON or the value to return now.
static int apply_option(int opt, const char* arg)
{
    switch (opt) {
    case 'f': case 'g': case OPT_GEN: case OPT_GEN_FW: case 'B':
        if (arg == nullptr) {
            ShowHelp();
            return PARSE_RETURN_1;
        }
        if (opt == 'f')
            pattern_list.emplace_back(arg);
        else if (opt == 'g')
            golden_list.emplace_back(arg);
        else if (opt == OPT_GEN)
            gen_hdr_name = arg;
        else if (opt == OPT_GEN_FW)
            fw_elf = arg;
        else
            hex2bin = arg;
        break;
    case 'l': loop = to_int(arg); break;
    case 's': sleep_time_us = (int)((uint32_t)strtol(arg, nullptr, 10) * 1000u); break;
    case 'c':
        core_id = to_int(arg);
        if (core_id < 0) {
            QORA_LOG_AT("W", "parser_options", 221, "-c QORA core id option needs to be positive\n");
            core_id = 0;
        }
        break;
    case 'b': boost_value = to_int(arg); break;
    case OPT_DELAY_OFF: delay_off_ms = to_int(arg); break;
    case 'o': soft_limit = to_int(arg); break;
    case 'a': hard_limit = to_int(arg); break;
    case 't': thrd_num = to_int(arg); break;
    case OPT_DUMP_OUTPUT: dump_result_data = true; break;
    case 'd': debug_lv = to_int(arg); break;
    case 'p': pmu_events.push_back((uint16_t)strtoul(arg, nullptr, 16)); break;
    case OPT_FLUSHER: pmu_flusher = 1; break;
    case 'u':
        if (to_int(arg) != 3) {
            do_nothing = true;
            return PARSE_RETURN_0;
        }
        break;
    case 'h':
        ShowHelp();
        do_nothing = true;
        break;
    case 'v':
        printf("qora player version : %s\n", QORA_PLAYER_VERSION);
        do_nothing = true;
        break;
    case OPT_GEN_USE_DIRNAME: folder_as_name = true; break;
    case OPT_FORCE_PRIORITY: prio_lv = to_int(arg); break;
    case OPT_NO_VLM: vlm_disable = true; break;
    case OPT_PERF_MODE: perf_mode = true; break;
    default: break; // unknown options were reported by getopt_long
    }
    return PARSE_GO_ON;
}

static int parser_options(int argc, char** argv)
{
    if (argc < 2) {
        ShowHelp();
        return PARSE_RETURN_1;
    }
    // getopt_long keeps its position in globals; start each call afresh so
    // that the entry point can be called more than once in a process.
    optind = 0;
    int opt;
    while ((opt = getopt_long(argc, argv, "f:g:l:s:c:b:o:a:t:d:p:u:hvB:", long_opts, nullptr)) != -1) {
        int outcome = apply_option(opt, optarg);
        if (outcome != PARSE_GO_ON)
            return outcome;
    }
    return do_nothing ? PARSE_RETURN_0 : PARSE_GO_ON;
}

extern "C" int execute_pattern(int argc, char** argv)
{
    int outcome = parser_options(argc, argv);
    if (outcome != PARSE_GO_ON)
        return outcome;
    if (run_conversion_mode())
        return 0;
    if (pattern_list.empty()) {
        ShowHelp();
        return 0;
    }
    return run_pattern_mode();
}
