// Comparing 256 MiB outputs with their goldens, unmasked and masked, against
// memcmp of the same buffers in the same run.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "qora_cmd.h"

namespace
{

const uint32_t kBytes = 256u << 20;
const uint32_t kWords = kBytes / 4;

struct buffers {
    std::vector<uint32_t> out, golden, mask;
    buffers() : out(kWords), golden(kWords), mask(kWords, 0xFFFF0FFFu)
    {
        for (uint32_t i = 0; i < kWords; i++)
            out[i] = golden[i] = i * 2654435761u;
    }
};

buffers& shared()
{
    static buffers b;
    return b;
}

void BM_Memcmp(benchmark::State& state)
{
    buffers& b = shared();
    for (auto _ : state)
        benchmark::DoNotOptimize(memcmp(b.out.data(), b.golden.data(), kBytes));
    state.SetBytesProcessed((int64_t)state.iterations() * kBytes);
}

void BM_VerifyUnmasked(benchmark::State& state)
{
    buffers& b = shared();
    for (auto _ : state)
        benchmark::DoNotOptimize(next_mismatch(b.out.data(), b.golden.data(), nullptr, 0, kWords));
    state.SetBytesProcessed((int64_t)state.iterations() * kBytes);
}

void BM_VerifyMasked(benchmark::State& state)
{
    buffers& b = shared();
    for (auto _ : state)
        benchmark::DoNotOptimize(next_mismatch(b.out.data(), b.golden.data(), b.mask.data(), 0, kWords));
    state.SetBytesProcessed((int64_t)state.iterations() * kBytes);
}

BENCHMARK(BM_Memcmp)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VerifyUnmasked)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VerifyMasked)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
