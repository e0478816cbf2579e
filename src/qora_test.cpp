// Test driver: the option parser, the usage text and the entry point that
// picks exactly one mode per call.
#include "qora_test.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

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

// Every option once, in the order of the usage text: its long name, whether
// it takes a value, its short letter (or long-only id), and its usage lines.
// Rows without a name are usage text only. The getopt tables below are
// derived from this one.
struct option_row {
    const char* name;
    int has_arg;
    int val;
    const char* usage;
};

static const option_row option_rows[] = {
    {nullptr, 0, 0, "./qora_player [options]"},
    {"pattern", required_argument, 'f',
     "    -f, --pattern   <pattern file>: set input pattern file\n"
     "                                    [internal pattern]\n"
     "                                        -f Test     : conv2d_uint8\n"
     "                                        -f MaxPower : MaxPower"},
    {"golden", required_argument, 'g', "    -g, --golden    <golden file> : set input golden file"},
    {"loop", required_argument, 'l', "    -l, --loop      <loop count>  : set loop count"},
    {"sleep", required_argument, 's', "    -s, --sleep     <sleep time>  : set sleep time(ms) between loop"},
    {"core", required_argument, 'c',
     "    -c, --core      <core mask>   : set core id mask\n"
     "                                    <ex> set core 0 or core 1\n"
     "                                      -> mask = bit(0) + bit(1) = 3"},
    {"boost", required_argument, 'b', "    -b, --boost     <boost value> : set boost value (0~110, -1: random)"},
    {"soft", required_argument, 'o', "    -o, --soft      <limit value> : set soft limit(ms)"},
    {"hard", required_argument, 'a', "    -a, --hard      <limit value> : set hard limit(ms)"},
    {"thread", required_argument, 't', "    -t, --thread    <thread num>  : set thread number for UT"},
    {"debug", required_argument, 'd',
     "    -d, --debug     <mode mask>   : set debug mode (default:1)\n"
     "                                        bit 0: enable cmd info\n"
     "                                        bit 1: enable mem info\n"
     "                                        bit 2: enable perf info"},
    {"delay_off", required_argument, OPT_DELAY_OFF, "        --delay_off <delay time>  : set delay power off time(ms)"},
    {"dump_output", no_argument, OPT_DUMP_OUTPUT,
     "        --dump_output             : dump output data (output[0-9].bin)"},
    {"pmu", required_argument, 'p',
     "    -p, --pmu       <event>       : set pmu event(hex)\n"
     "                                    <ex>  pmu event = 0x1708\n"
     "                                          -> engine id = 0x17, event id = 0x08"},
    {"flusher", no_argument, OPT_FLUSHER, "        --flusher                 : enable pmu flusher mode"},
    {"perf_mode", no_argument, OPT_PERF_MODE, "        --perf_mode               : enable performance mode"},
    {"no_vlm", no_argument, OPT_NO_VLM, "        --no_vlm                  : access korvex tcm directly"},
    {"unittest", required_argument, 'u', "    -u, --unittest  <ip_ver>      : set ip version for unint test"},
    {nullptr, 0, 0, "---------------------------------------------------------------"},
    {"help", no_argument, 'h', "    -h, --help                    : show usage menu"},
    {"version", no_argument, 'v', "    -v, --version                 : show player version"},
    {"gen", required_argument, OPT_GEN, "        --gen             <name>  : generate {pattern_name}.h"},
    {"gen_use_dirname", no_argument, OPT_GEN_USE_DIRNAME,
     "        --gen_use_dirname         : generate {parent_dir_name}.h"},
    {"gen_fw", required_argument, OPT_GEN_FW, "        --gen_fw          <name>  : generate {fw_name}.h"},
    {"force_priority", required_argument, OPT_FORCE_PRIORITY,
     "        --force_priority  <level> : set priority level (0~7)"},
    {"hex2bin", required_argument, 'B', "    -B, --hex2bin         <file>  : convert hex (ctp log) to binary"},
};

// getopt_long's table: the named rows, then the terminating zero row.
static std::vector<struct option> long_options()
{
    std::vector<struct option> opts;
    for (const option_row& row : option_rows)
        if (row.name != nullptr)
            opts.push_back({row.name, row.has_arg, nullptr, row.val});
    opts.push_back({nullptr, 0, nullptr, 0});
    return opts;
}

// Long-only options have small ids below every letter.
static bool is_letter_option(int val)
{
    return val >= 'A';
}

// The short-option string: each letter, with ':' when it takes a value.
static std::string short_options()
{
    std::string letters;
    for (const option_row& row : option_rows) {
        if (row.name == nullptr || !is_letter_option(row.val))
            continue;
        letters += (char)row.val;
        if (row.has_arg == required_argument)
            letters += ':';
    }
    return letters;
}

void ShowHelp()
{
    for (const option_row& row : option_rows)
        puts(row.usage);
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

// Options whose value names a file or an output; a missing value shows
// the usage and ends the call with 1.
static int apply_name_option(int opt, const char* arg)
{
    if (arg == nullptr) {
        ShowHelp();
        return PARSE_RETURN_1;
    }
    switch (opt) {
    case 'f': pattern_list.emplace_back(arg); break;
    case 'g': golden_list.emplace_back(arg); break;
    case OPT_GEN: gen_hdr_name = arg; break;
    case OPT_GEN_FW: fw_elf = arg; break;
    default: hex2bin = arg; break;
    }
    return PARSE_GO_ON;
}

static void apply_core_option(const char* arg)
{
    core_id = to_int(arg);
    if (core_id < 0) {
        QORA_LOG_AT("W", "parser_options", 221, "-c QORA core id option needs to be positive\n");
        core_id = 0;
    }
}

// Stores one option's value; returns PARSE_GO_ON or the value to return now.
static int apply_option(int opt, const char* arg)
{
    switch (opt) {
    case 'f':
    case 'g':
    case OPT_GEN:
    case OPT_GEN_FW:
    case 'B': return apply_name_option(opt, arg);
    case 'l': loop = to_int(arg); break;
    case 's': sleep_time_us = (int)((uint32_t)strtol(arg, nullptr, 10) * 1000u); break;
    case 'c': apply_core_option(arg); break;
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
    static const std::vector<struct option> long_opts = long_options();
    static const std::string short_opts = short_options();
    int opt;
    while ((opt = getopt_long(argc, argv, short_opts.c_str(), long_opts.data(), nullptr)) != -1) {
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
