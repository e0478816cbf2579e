// Loading a 64 MiB data buffer (about 150 MB of text) and a golden of the
// same size, against a straightforward fgets + sscanf loader of the same
// lines, in the same run. Peak memory is measured in a child process.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "qora_pattern.h"
#include "qora_utils.h"

namespace {

const uint32_t kPayload = 64u << 20;

std::string bench_dir()
{
    static const std::string dir = [] {
        std::string d = "/tmp/qora_load_bench";
        (void)!system(("mkdir -p " + d).c_str());
        return d;
    }();
    return dir;
}

void write_lines(FILE* fp, uint32_t bytes)
{
    std::mt19937 rng(1);
    static const char digits[] = "0123456789abcdef";
    char line[37];
    line[35] = '\n';
    line[36] = '\0';
    for (uint32_t i = 0; i < bytes / 16; i++) {
        for (int c = 0; c < 35; c++)
            line[c] = c == 8 || c == 17 || c == 26 ? '_' : digits[rng() & 15];
        fputs(line, fp);
    }
}

// A pattern with one 64 MiB data buffer and a 64 MiB output, and a text
// golden for that output.
void make_files()
{
    static bool made = false;
    if (made)
        return;
    FILE* fp = fopen((bench_dir() + "/pattern.hex").c_str(), "w");
    fprintf(fp, "// Output\n// @60000000 {%u}\n// Data\n@40000000\n", kPayload);
    write_lines(fp, kPayload);
    fclose(fp);
    fp = fopen((bench_dir() + "/outputs.hex").c_str(), "w");
    fprintf(fp, "// Output\n// @60000000 {%u}\n", kPayload);
    fclose(fp);
    fp = fopen((bench_dir() + "/golden.hex").c_str(), "w");
    fprintf(fp, "@60000000\n");
    write_lines(fp, kPayload);
    fclose(fp);
    made = true;
}

// Runs fn with standard output sent to /dev/null (the progress bar).
void quietly(const std::function<void()>& fn)
{
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, STDOUT_FILENO);
    fn();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(null_fd);
}

// Peak resident memory of fn, run in a child process, in MiB.
double peak_mib(const std::function<void()>& fn)
{
    pid_t pid = fork();
    if (pid == 0) {
        quietly(fn);
        _exit(0);
    }
    int status;
    struct rusage usage;
    wait4(pid, &status, 0, &usage);
    return usage.ru_maxrss / 1024.0;
}

void load_pattern_set(const std::string& pattern, const std::string& golden)
{
    std::vector<std::string> p{bench_dir() + "/" + pattern};
    std::vector<std::string> g;
    if (!golden.empty())
        g.push_back(bench_dir() + "/" + golden);
    qoraPattern set(p, g, 1);
    benchmark::DoNotOptimize(set.get_pattern_golden_num());
}

// The straightforward loader: one fgets and one sscanf per line, one
// realloc per granule, as a first implementation would read the data lines.
uint8_t* baseline_load(const std::string& file, uint32_t* size, uint8_t** mask)
{
    FILE* fp = fopen((bench_dir() + "/" + file).c_str(), "r");
    char line[120];
    char t[16][3];
    uint32_t cap = 16384, n = 0;
    uint8_t* data = (uint8_t*)malloc(cap);
    uint8_t* m = mask ? (uint8_t*)malloc(cap) : nullptr;
    while (fgets(line, sizeof(line), fp)) {
        if (line[0] == '/' || line[0] == '@' || strlen(line) < 2)
            continue;
        sscanf(line, "%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s", t[0], t[1], t[2], t[3], t[4], t[5],
               t[6], t[7], t[8], t[9], t[10], t[11], t[12], t[13], t[14], t[15]);
        if (n + 16 > cap) {
            cap *= 2;
            data = (uint8_t*)realloc(data, cap);
            if (m)
                m = (uint8_t*)realloc(m, cap);
        }
        for (int k = 0; k < 16; k++) {
            data[n + 15 - k] = (uint8_t)(to_i_4bit(t[k][0]) << 4 | to_i_4bit(t[k][1]));
            if (m)
                m[n + 15 - k] = (uint8_t)((t[k][0] == 'x' ? 0 : 0xF0) | (t[k][1] == 'x' ? 0 : 0x0F));
        }
        n += 16;
    }
    fclose(fp);
    *size = n;
    if (mask)
        *mask = m;
    return data;
}

// One untimed load first, so every timed load (ours and the baseline's)
// finds the file in the page cache and the process's memory already
// obtained from the system; cold first loads vary by hundreds of ms here.
void report(benchmark::State& state, double* peak, const std::function<void()>& fn)
{
    make_files();
    quietly(fn);
    for (auto _ : state)
        quietly(fn);
    state.SetBytesProcessed((int64_t)state.iterations() * kPayload);
    if (*peak == 0) // once per benchmark, not per repetition
        *peak = peak_mib(fn);
    state.counters["peak_MiB"] = *peak;
}

void BM_LoadPattern(benchmark::State& state)
{
    static double peak = 0;
    report(state, &peak, [] { load_pattern_set("pattern.hex", ""); });
}

void BM_BaselinePattern(benchmark::State& state)
{
    static double peak = 0;
    report(state, &peak, [] {
        uint32_t size;
        free(baseline_load("pattern.hex", &size, nullptr));
    });
}

void BM_LoadGoldenHex(benchmark::State& state)
{
    static double peak = 0;
    report(state, &peak, [] { load_pattern_set("outputs.hex", "golden.hex"); });
}

void BM_BaselineGoldenHex(benchmark::State& state)
{
    static double peak = 0;
    report(state, &peak, [] {
        uint32_t size;
        uint8_t* mask;
        free(baseline_load("golden.hex", &size, &mask));
        free(mask);
    });
}

// Medians of single loads, so one disturbed load does not move the figure.
#define LOAD_BENCHMARK(fn, reps) \
    BENCHMARK(fn)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(reps)->ReportAggregatesOnly(true)
LOAD_BENCHMARK(BM_LoadPattern, 7);
LOAD_BENCHMARK(BM_BaselinePattern, 3);
LOAD_BENCHMARK(BM_LoadGoldenHex, 7);
LOAD_BENCHMARK(BM_BaselineGoldenHex, 3);

} // namespace

BENCHMARK_MAIN();
