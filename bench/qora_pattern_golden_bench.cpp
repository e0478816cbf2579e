// Peak memory of one 1 GiB output with a 32-byte text golden: the pattern
// set as loaded, against the same set with the golden bytes no line reaches
// cleared in data and mask (the straightforward way to make them compare
// equal), and a whole player run on the engine model (whose host and device
// views of the output take 1 GiB each). Each is measured in a child process.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "bench_util.h"
#include "qora_pattern.h"
#include "qora_test.h"

namespace
{

const uint32_t kOutput = (1u << 30) - 1; // the largest output a pattern may declare

std::string bench_dir()
{
    static const std::string dir = [] {
        std::string d = "/tmp/qora_golden_bench";
        (void)!system(("mkdir -p " + d).c_str());
        FILE* fp = fopen((d + "/pattern.hex").c_str(), "w");
        fprintf(fp,
                "// Output\n// @40009000 {%u}\n// Data\n@40000000\n00000000_00000000_00000000_00000001\n\n"
                "// Code\n@0\n00000000_00000000_00000000_00000000\n\n",
                kOutput);
        fclose(fp);
        fp = fopen((d + "/golden.hex").c_str(), "w");
        fputs("@40009000\n00000000_00000000_00000000_00000000\n00000000_00000000_00000000_00000000\n", fp);
        fclose(fp);
        return d;
    }();
    return dir;
}

// The set as the player loads it; `clear_unreached` then writes the golden
// bytes past the 32 the file holds, as a loader that clears them would.
void load_set(bool clear_unreached)
{
    std::vector<std::string> p {bench_dir() + "/pattern.hex"};
    std::vector<std::string> g {bench_dir() + "/golden.hex"};
    qoraPattern set(p, g, 1);
    uint32_t len = set.get_pattern_golden_size(0);
    if (clear_unreached && len > 32) {
        memset(set.get_pattern_golden_addr(0) + 32, 0, len - 32);
        memset(set.get_pattern_golden_addr_mask(0) + 32, 0, len - 32);
    }
    benchmark::DoNotOptimize(set.get_pattern_golden_addr(0));
}

void play()
{
    std::string pattern = bench_dir() + "/pattern.hex";
    std::string golden = bench_dir() + "/golden.hex";
    char* argv[] = {(char*)"qora_player", (char*)"-f",           (char*)pattern.c_str(),
                    (char*)"-g",          (char*)golden.c_str(), nullptr};
    benchmark::DoNotOptimize(execute_pattern(5, argv));
}

void report(benchmark::State& state, const std::function<void()>& fn)
{
    double peak = 0;
    for (auto _ : state)
        peak = peak_mib(fn);
    state.counters["peak_MiB"] = peak;
    state.counters["output_MiB"] = kOutput / 1048576.0;
}

void BM_LoadSet(benchmark::State& state)
{
    report(state, [] { load_set(false); });
}

void BM_BaselineSetClearingUnreachedBytes(benchmark::State& state)
{
    report(state, [] { load_set(true); });
}

void BM_PlayOnEngineModel(benchmark::State& state)
{
    report(state, play);
}

BENCHMARK(BM_LoadSet)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_BaselineSetClearingUnreachedBytes)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_PlayOnEngineModel)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace

BENCHMARK_MAIN();
