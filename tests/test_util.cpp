#include "test_util.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "qora_test.h"
#include "qora_test_settings.h"

std::string capture_stdout(const std::function<void()>& fn)
{
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

int call_entry(const std::vector<std::string>& args, std::string* out)
{
    std::vector<std::string> storage{"qora_player"};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& s : storage)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    int rc = -1;
    *out = capture_stdout([&] { rc = execute_pattern((int)storage.size(), argv.data()); });
    return rc;
}

int run_player(const std::string& args, std::string* out, bool with_stderr)
{
    std::string cmd = std::string(QORA_PLAYER_PATH) + " " + args + (with_stderr ? " 2>&1" : " 2>/dev/null");
    FILE* fp = popen(cmd.c_str(), "r");
    if (fp == nullptr)
        return -1;
    out->clear();
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), fp)) > 0)
        out->append(chunk, n);
    int status = pclose(fp);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void reset_settings()
{
    pattern_list.clear();
    golden_list.clear();
    pmu_events.clear();
    gen_hdr_name.clear();
    fw_elf.clear();
    hex2bin.clear();
    do_nothing = false;
    folder_as_name = false;
    core_id = 0;
    loop = 1;
    debug_lv = 1;
    sleep_time_us = 0;
    delay_off_ms = 0;
    boost_value = -2;
    soft_limit = 0;
    hard_limit = 0;
    prio_lv = -1;
    thrd_num = 1;
    pmu_flusher = 0;
    dump_result_data = false;
    perf_mode = false;
    vlm_disable = false;
}

std::string make_tmp_dir(const std::string& name)
{
    std::string dir = std::string(QORA_TEST_TMPDIR) + "/" + name;
    std::string cmd = "rm -rf '" + dir + "' && mkdir -p '" + dir + "'";
    if (system(cmd.c_str()) != 0)
        ADD_FAILURE() << "cannot make " << dir;
    return dir;
}

void write_file(const std::string& path, const std::string& content)
{
    std::ofstream f(path, std::ios::binary);
    f << content;
}

std::string read_file(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}
