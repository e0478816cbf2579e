// Loading a 64 MiB data buffer (about 150 MB of text) and a text golden of
// the same size, in one run on the same files: reading the file only, a
// straightforward read-and-decode floor (one pass, a vector decode of every
// 36-byte line, no rules), the loaders, and a per-line fgets + sscanf
// loader. Prints each ratio and each load's peak memory (measured in a
// child process).
//
// `qora_pattern_load_bench --instructions` counts instead, under valgrind's
// callgrind, the instructions one load of a 16 MiB payload takes per byte of
// text (the device's gain can be judged from the host this way).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>

#include "bench_util.h"
#include "qora_pattern.h"
#include "qora_utils.h"

namespace
{

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

// A pattern with one data buffer of `payload` bytes and an output of that
// size, and a text golden for that output; file names end in `suffix`.
void make_files_of(uint32_t payload, const std::string& suffix)
{
    FILE* fp = fopen((bench_dir() + "/pattern" + suffix + ".hex").c_str(), "w");
    fprintf(fp, "// Output\n// @60000000 {%u}\n// Data\n@40000000\n", payload);
    write_lines(fp, payload);
    fclose(fp);
    fp = fopen((bench_dir() + "/outputs" + suffix + ".hex").c_str(), "w");
    fprintf(fp, "// Output\n// @60000000 {%u}\n", payload);
    fclose(fp);
    fp = fopen((bench_dir() + "/golden" + suffix + ".hex").c_str(), "w");
    fprintf(fp, "@60000000\n");
    write_lines(fp, payload);
    fclose(fp);
}

// Files of an earlier run are used again: their content is always the same.
bool made_before(const std::string& suffix, uint32_t payload)
{
    struct stat st;
    return stat((bench_dir() + "/golden" + suffix + ".hex").c_str(), &st) == 0 &&
        (uint64_t)st.st_size == payload / 16 * 36 + 10;
}

void make_files()
{
    static bool made = false;
    if (!made && !made_before("", kPayload))
        make_files_of(kPayload, "");
    made = true;
}

void load_pattern_set(const std::string& pattern, const std::string& golden)
{
    std::vector<std::string> p {bench_dir() + "/" + pattern};
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
        sscanf(line, "%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s_%2s%2s%2s%2s", t[0], t[1], t[2], t[3], t[4], t[5], t[6],
               t[7], t[8], t[9], t[10], t[11], t[12], t[13], t[14], t[15]);
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

// Reading the file only, in the floor's 1 MiB reads.
const size_t kFloorRead = 1 << 20;

void read_only(const std::string& file)
{
    static char chunk[kFloorRead];
    FILE* fp = fopen((bench_dir() + "/" + file).c_str(), "r");
    while (fread(chunk, 1, sizeof(chunk), fp) > 0)
        benchmark::DoNotOptimize(chunk[0]);
    fclose(fp);
}

// The floor's decode of one 36-byte line, without a single check: the four
// groups of eight digits, a letter's low four bits plus 9, pairs to bytes,
// stored last pair first; for goldens the mask clears 'x' nibbles.
#if defined(__SSE2__)
inline __m128i floor_nibbles(__m128i c)
{
    __m128i letter = _mm_and_si128(_mm_cmpgt_epi8(c, _mm_set1_epi8('9')), _mm_set1_epi8(9));
    return _mm_add_epi8(_mm_and_si128(c, _mm_set1_epi8(0x0F)), letter);
}

inline void floor_store(__m128i front, __m128i back, uint8_t* out)
{
    auto pairs = [](__m128i n) {
        return _mm_or_si128(_mm_slli_epi16(_mm_and_si128(n, _mm_set1_epi16(0x0F)), 4), _mm_srli_epi16(n, 8));
    };
    __m128i spelled = _mm_packus_epi16(pairs(front), pairs(back));
    __m128i words = _mm_shuffle_epi32(spelled, _MM_SHUFFLE(0, 1, 2, 3));
    words = _mm_shufflehi_epi16(_mm_shufflelo_epi16(words, _MM_SHUFFLE(2, 3, 0, 1)), _MM_SHUFFLE(2, 3, 0, 1));
    _mm_storeu_si128((__m128i*)out, _mm_or_si128(_mm_slli_epi16(words, 8), _mm_srli_epi16(words, 8)));
}

inline void floor_decode(const char* line, uint8_t* data, uint8_t* mask)
{
    auto groups = [](const char* a, const char* b) {
        return _mm_unpacklo_epi64(_mm_loadl_epi64((const __m128i*)a), _mm_loadl_epi64((const __m128i*)b));
    };
    __m128i front = groups(line, line + 9), back = groups(line + 18, line + 27);
    floor_store(floor_nibbles(front), floor_nibbles(back), data);
    if (mask != nullptr) {
        __m128i x = _mm_set1_epi8('x'), keep = _mm_set1_epi8(0x0F);
        floor_store(_mm_andnot_si128(_mm_cmpeq_epi8(front, x), keep), _mm_andnot_si128(_mm_cmpeq_epi8(back, x), keep),
                    mask);
    }
}
#elif defined(__aarch64__)
inline uint8x16_t floor_nibbles(uint8x16_t c)
{
    uint8x16_t letter = vandq_u8(vcgtq_u8(c, vdupq_n_u8('9')), vdupq_n_u8(9));
    return vaddq_u8(vandq_u8(c, vdupq_n_u8(0x0F)), letter);
}

inline void floor_store(uint8x16_t front, uint8x16_t back, uint8_t* out)
{
    uint8x16_t spelled = vsliq_n_u8(vuzp2q_u8(front, back), vuzp1q_u8(front, back), 4);
    uint8x16_t reversed = vrev64q_u8(spelled);
    vst1q_u8(out, vextq_u8(reversed, reversed, 8));
}

inline void floor_decode(const char* line, uint8_t* data, uint8_t* mask)
{
    auto groups = [](const char* a, const char* b) {
        return vcombine_u8(vld1_u8((const uint8_t*)a), vld1_u8((const uint8_t*)b));
    };
    uint8x16_t front = groups(line, line + 9), back = groups(line + 18, line + 27);
    floor_store(floor_nibbles(front), floor_nibbles(back), data);
    if (mask != nullptr) {
        uint8x16_t x = vdupq_n_u8('x'), keep = vdupq_n_u8(0x0F);
        floor_store(vbicq_u8(keep, vceqq_u8(front, x)), vbicq_u8(keep, vceqq_u8(back, x)), mask);
    }
}
#else
inline void floor_decode(const char* line, uint8_t* data, uint8_t* mask)
{
    static const int kStart[16] = {0, 2, 4, 6, 9, 11, 13, 15, 18, 20, 22, 24, 27, 29, 31, 33};
    for (int t = 0; t < 16; t++) {
        char hi = line[kStart[t]], lo = line[kStart[t] + 1];
        data[15 - t] = (uint8_t)(to_i_4bit(hi) << 4 | to_i_4bit(lo));
        if (mask != nullptr)
            mask[15 - t] = (uint8_t)((hi == 'x' ? 0 : 0xF0) | (lo == 'x' ? 0 : 0x0F));
    }
}
#endif

// The floor: one pass of 1 MiB reads; every line of 36 bytes that starts
// neither '@' nor '/' is decoded where it lies, any other line skipped.
// The output is one block sized from the file.
void floor_load(const std::string& file, bool golden)
{
    static char chunk[kFloorRead + 64];
    std::string path = bench_dir() + "/" + file;
    struct stat st;
    stat(path.c_str(), &st);
    size_t room = (size_t)st.st_size / 36 * 16 + 16;
    uint8_t* data = (uint8_t*)malloc(room);
    uint8_t* mask = golden ? (uint8_t*)malloc(room) : nullptr;
    FILE* fp = fopen(path.c_str(), "r");
    size_t have = 0, out = 0, got;
    while ((got = fread(chunk + have, 1, kFloorRead - have, fp)) > 0) {
        have += got;
        size_t pos = 0;
        while (have - pos >= 36) {
            const char* line = chunk + pos;
            if (line[35] == '\n' && line[0] != '@' && line[0] != '/') {
                floor_decode(line, data + out, golden ? mask + out : nullptr);
                out += 16;
                pos += 36;
                continue;
            }
            const char* nl = (const char*)memchr(line, '\n', have - pos);
            if (nl == nullptr)
                break;
            pos = (size_t)(nl + 1 - chunk);
        }
        memmove(chunk, chunk + pos, have - pos);
        have -= pos;
    }
    fclose(fp);
    benchmark::DoNotOptimize(data[out / 2]);
    free(data);
    free(mask);
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

void BM_ReadPattern(benchmark::State& state)
{
    static double peak = 0;
    report(state, &peak, [] { read_only("pattern.hex"); });
}

void BM_FloorPattern(benchmark::State& state)
{
    static double peak = 0;
    report(state, &peak, [] { floor_load("pattern.hex", false); });
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

void BM_ReadGoldenHex(benchmark::State& state)
{
    static double peak = 0;
    report(state, &peak, [] { read_only("golden.hex"); });
}

void BM_FloorGoldenHex(benchmark::State& state)
{
    static double peak = 0;
    report(state, &peak, [] { floor_load("golden.hex", true); });
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
#define LOAD_BENCHMARK(fn, reps)                                                                                       \
    BENCHMARK(fn)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(reps)->ReportAggregatesOnly(true)
LOAD_BENCHMARK(BM_ReadPattern, 7);
LOAD_BENCHMARK(BM_FloorPattern, 7);
LOAD_BENCHMARK(BM_LoadPattern, 7);
LOAD_BENCHMARK(BM_BaselinePattern, 3);
LOAD_BENCHMARK(BM_ReadGoldenHex, 7);
LOAD_BENCHMARK(BM_FloorGoldenHex, 7);
LOAD_BENCHMARK(BM_LoadGoldenHex, 7);
LOAD_BENCHMARK(BM_BaselineGoldenHex, 3);

// The console report, keeping each benchmark's median and peak memory for
// the ratios printed at the end. The ratios use CPU time (the process's,
// system time included): on a shared machine it moves far less than
// elapsed time does.
class ratio_reporter : public benchmark::ConsoleReporter
{
public:
    ratio_reporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) { }

    void ReportRuns(const std::vector<Run>& reports) override
    {
        ConsoleReporter::ReportRuns(reports);
        for (const Run& run : reports) {
            if (run.aggregate_name != "median")
                continue;
            m_ms[run.run_name.function_name] = run.GetAdjustedCPUTime();
            auto peak = run.counters.find("peak_MiB");
            if (peak != run.counters.end())
                m_peak[run.run_name.function_name] = peak->second.value;
        }
    }

    void print_ratios(const char* what, const std::string& kind)
    {
        double read = m_ms["BM_Read" + kind], floor = m_ms["BM_Floor" + kind];
        double load = m_ms["BM_Load" + kind], base = m_ms["BM_Baseline" + kind];
        if (read == 0 || floor == 0 || load == 0 || base == 0)
            return; // not all four ran (a filter)
        printf("%s, CPU time: read %.1f ms, floor %.1f ms (%.2fx read), load %.1f ms (%.2fx floor), "
               "sscanf baseline %.1f ms (%.1fx load, %.1fx floor); peak memory: load %.1f MiB, floor %.1f MiB, "
               "baseline %.1f MiB\n",
               what, read, floor, floor / read, load, load / floor, base, base / load, base / floor,
               m_peak["BM_Load" + kind], m_peak["BM_Floor" + kind], m_peak["BM_Baseline" + kind]);
    }

private:
    std::map<std::string, double> m_ms;
    std::map<std::string, double> m_peak;
};

// One load of the 16 MiB payload files, standard output dropped; the set is
// built in the constructor callgrind is told to count.
const uint32_t kCountedPayload = 16u << 20;

int load_once(const std::string& kind)
{
    if (kind == "pattern")
        quietly([] { load_pattern_set("pattern16.hex", ""); });
    else
        quietly([] { load_pattern_set("outputs16.hex", "golden16.hex"); });
    return 0;
}

// Instructions of one load under callgrind, counted inside the pattern
// set's constructor only, divided by the bytes of text loaded.
int count_instructions(const char* self)
{
    if (!made_before("16", kCountedPayload))
        make_files_of(kCountedPayload, "16");
    for (std::string kind : {"pattern", "golden"}) {
        std::string file = bench_dir() + "/" + kind + "16.hex";
        struct stat st;
        stat(file.c_str(), &st);
        std::string cmd = "valgrind --tool=callgrind --callgrind-out-file=/dev/null "
                          "--toggle-collect='qoraPattern::qoraPattern*' " +
            std::string(self) + " --load-once " + kind + " 2>&1";
        FILE* run = popen(cmd.c_str(), "r");
        char line[256];
        unsigned long long collected = 0;
        while (fgets(line, sizeof(line), run) != nullptr) {
            const char* at = strstr(line, "Collected : ");
            if (at != nullptr)
                collected = strtoull(at + 12, nullptr, 10);
        }
        if (pclose(run) != 0 || collected == 0) {
            fprintf(stderr, "valgrind --tool=callgrind did not run: %s\n", cmd.c_str());
            return 1;
        }
        printf("%s load of a 16 MiB payload: %llu instructions for %lld bytes of text, %.2f per byte\n", kind.c_str(),
               collected, (long long)st.st_size, (double)collected / (double)st.st_size);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], "--instructions") == 0)
        return count_instructions(argv[0]);
    if (argc == 3 && strcmp(argv[1], "--load-once") == 0)
        return load_once(argv[2]);
    benchmark::Initialize(&argc, argv);
    ratio_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios("pattern", "Pattern");
    reporter.print_ratios("text golden", "GoldenHex");
    return 0;
}
