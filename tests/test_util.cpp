#include "test_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "qora_test.h"
#include "qora_test_settings.h"
#include "qora_utils.h"

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
    std::vector<std::string> storage {"qora_player"};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& s : storage)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    int rc = -1;
    *out = capture_stdout([&] { rc = execute_pattern((int)storage.size(), argv.data()); });
    return rc;
}

int run_player(const std::string& args, std::string* out, bool with_stderr, const std::string& env)
{
#ifdef QORA_SANITIZER_ENV
    std::string settings = env + " " + std::string(QORA_SANITIZER_ENV);
#else
    const std::string& settings = env;
#endif
    std::string cmd = (settings.empty() ? "" : "env " + settings + " ") + std::string(QORA_PLAYER_PATH) + " " + args +
        (with_stderr ? " 2>&1" : " 2>/dev/null");
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

std::string hex_line(uint32_t w0, uint32_t w1, uint32_t w2, uint32_t w3)
{
    char text[40];
    snprintf(text, sizeof(text), "%08x_%08x_%08x_%08x\n", w3, w2, w1, w0);
    return text;
}

int sscanf_hex_tokens(const char* line, char tok[16][3])
{
    return sscanf(line, "%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s", tok[0], tok[1], tok[2], tok[3], tok[4],
                  tok[5], tok[6], tok[7], tok[8], tok[9], tok[10], tok[11], tok[12], tok[13], tok[14], tok[15]);
}

int sscanf_hex_line(const char* line, bool golden, uint8_t data[16], uint8_t mask[16])
{
    char t[16][3] = {};
    int fields = sscanf_hex_tokens(line, t);
    auto value = [golden](char c) { return golden && c == 'x' ? 0 : to_i_4bit(c); };
    auto kept = [golden](char c, int bits) { return golden && c == 'x' ? 0 : bits; };
    for (int k = 0; k < 16; k++) {
        data[15 - k] = (uint8_t)(value(t[k][0]) << 4 | value(t[k][1]));
        mask[15 - k] = (uint8_t)(kept(t[k][0], 0xF0) | kept(t[k][1], 0x0F));
    }
    return fields;
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

isolated_result run_isolated(const std::function<std::string()>& fn)
{
    char out_path[] = "/tmp/qora_iso_out_XXXXXX";
    char res_path[] = "/tmp/qora_iso_res_XXXXXX";
    int out_fd = mkstemp(out_path);
    int res_fd = mkstemp(res_path);
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out_fd, STDOUT_FILENO);
        std::string result = fn();
        fflush(stdout);
        if (write(res_fd, result.data(), result.size()) != (ssize_t)result.size())
            _exit(2);
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    isolated_result r {read_file(out_path), read_file(res_path)};
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        r.result += "<child failed>";
    close(out_fd);
    close(res_fd);
    unlink(out_path);
    unlink(res_path);
    return r;
}

static std::string hex_bytes(const uint8_t* p, uint32_t n)
{
    std::string s;
    char b[4];
    for (uint32_t i = 0; i < n; i++) {
        snprintf(b, sizeof(b), "%02x", p[i]);
        s += b;
    }
    return s;
}

// Names a binding target: a data buffer by address, an output by name, the
// local-memory window, or null.
static std::string target_name(qoraPattern& set, const uint8_t* data)
{
    if (data == nullptr)
        return "null";
    if (data == (const uint8_t*)(uintptr_t)0x1D900000)
        return "vlm";
    buffer* bufs = set.get_pattern_data();
    for (uint32_t i = 0; i < set.get_pattern_data_num() && i < MAX_DATA_NUM; i++)
        if (bufs[i].data == data)
            return "buf:" + std::string(bufs[i].data_addr_str, strcspn(bufs[i].data_addr_str, "\n"));
    for (output* o : qora_pattern_access::outputs(set))
        if (o->addr == data)
            return std::string("out:") + o->name;
    return "?";
}

std::string describe_set(qoraPattern& set)
{
    std::ostringstream d;
    char line[160];
    if (!qora_pattern_access::patterns(set).empty()) {
        d << "name=" << set.get_pattern_name() << "\n";
        for (uint32_t c = 0; c < set.get_pattern_code_num(); c++) {
            buffer* code = set.get_pattern_codebuf(c);
            d << "code" << c << " size=" << code->size << " tmp=" << code->is_tmp << " "
              << hex_bytes(code->data, std::min<uint32_t>(code->size, 32)) << "\n";
            binding* b = set.get_pattern_binding(c);
            for (uint32_t i = 0; i < set.get_pattern_binding_num(c) && i < MAX_NUM; i++) {
                snprintf(line, sizeof(line), "  bind ofs=%u %s shift=0x%x dev_va=0x%x\n", b[i].ofs,
                         target_name(set, b[i].data).c_str(), b[i].shift, b[i].dev_va);
                d << line;
            }
        }
        buffer* bufs = set.get_pattern_data();
        for (uint32_t i = 0; i < set.get_pattern_data_num() && i < MAX_DATA_NUM; i++)
            d << "data " << bufs[i].data_addr_str << " size=" << bufs[i].size << " tmp=" << bufs[i].is_tmp << " "
              << hex_bytes(bufs[i].data, std::min<uint32_t>(bufs[i].size, 32)) << "\n";
    }
    for (output* o : qora_pattern_access::outputs(set))
        d << "out " << o->name << " size=" << o->size << " idx=" << o->idx << "\n";
    for (uint32_t g = 0; g < set.get_pattern_golden_num(); g++) {
        uint32_t len = set.get_pattern_golden_size(g);
        uint8_t* mask = set.get_pattern_golden_addr_mask(g);
        d << "golden" << g << " " << get_sub_golden(qora_pattern_access::goldens(set), g)->name << " len=" << len << " "
          << hex_bytes(set.get_pattern_golden_addr(g), std::min<uint32_t>(len, 32));
        if (mask != nullptr)
            d << " mask=" << hex_bytes(mask, std::min<uint32_t>(len, 32));
        d << "\n";
    }
    return d.str();
}

std::string load_and_describe(const std::vector<std::string>& patterns, const std::vector<std::string>& goldens)
{
    std::vector<std::string> p = patterns;
    std::vector<std::string> g = goldens;
    qoraPattern set(p, g, 1);
    return describe_set(set);
}
