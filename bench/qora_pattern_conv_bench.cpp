// Header generation from a 64 MiB payload (a pattern data buffer, and a
// binary golden), against `xxd -i` on the raw 64 MiB in the same run.
// Each conversion runs in a child process: the generator keeps file-wide
// state by design, one conversion per process.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <string>

#include "qora_pattern.h"

namespace
{

const uint32_t kPayload = 64u << 20;
const std::string kDir = "/tmp/qora_conv_bench";

void make_files()
{
    static bool made = false;
    if (made)
        return;
    (void)!system(("mkdir -p " + kDir).c_str());
    std::mt19937 rng(3);
    std::string raw(kPayload, '\0');
    for (char& c : raw)
        c = (char)rng();
    FILE* fp = fopen((kDir + "/raw.bin").c_str(), "wb");
    fwrite(raw.data(), 1, raw.size(), fp);
    fclose(fp);
    fp = fopen((kDir + "/pattern.hex").c_str(), "w");
    fputs("// Data\n@40000000\n", fp);
    static const char digits[] = "0123456789abcdef";
    char line[37];
    line[35] = '\n';
    line[36] = '\0';
    for (uint32_t at = 0; at < kPayload; at += 16) {
        int c = 0;
        for (int i = 15; i >= 0; i--) {
            uint8_t b = (uint8_t)raw[at + (uint32_t)i];
            line[c++] = digits[b >> 4];
            line[c++] = digits[b & 15];
            if (i % 4 == 0 && i != 0)
                line[c++] = '_';
        }
        fputs(line, fp);
    }
    fclose(fp);
    made = true;
}

// Runs fn in a child with standard output sent to /dev/null.
void in_child(const std::function<void()>& fn)
{
    pid_t pid = fork();
    if (pid == 0) {
        int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, STDOUT_FILENO);
        fn();
        _exit(0);
    }
    int status;
    waitpid(pid, &status, 0);
}

void run(benchmark::State& state, const std::function<void()>& fn)
{
    make_files();
    for (auto _ : state)
        in_child(fn);
    state.SetBytesProcessed((int64_t)state.iterations() * kPayload);
}

void BM_PatternHeader(benchmark::State& state)
{
    run(state, [] { qoraPattern().convert_pattern_hdr(kDir + "/pattern.hex", kDir + "/p.h"); });
}

void BM_GoldenHeaderBinary(benchmark::State& state)
{
    run(state, [] {
        (void)!system(("rm -f " + kDir + "/g.h").c_str());
        qoraPattern().convert_golden_hdr(kDir + "/raw.bin", kDir + "/g.h");
    });
}

void BM_XxdInclude(benchmark::State& state)
{
    run(state, [] { (void)!system(("xxd -i " + kDir + "/raw.bin > " + kDir + "/xxd.h").c_str()); });
}

BENCHMARK(BM_PatternHeader)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_GoldenHeaderBinary)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_XxdInclude)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
