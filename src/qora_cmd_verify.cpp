// Command layer: verification of the outputs against the goldens, and
// output dumps.
#include <cstring>

#include "qora_cmd.h"
#include "qora_pattern.h"
#include "qora_utils.h"

static const uint32_t kMaxReported = 16; // more mismatches than this end the check
static const uint32_t kBlockWords = 1024;

static inline uint32_t word_at(const uint32_t* p, uint32_t i)
{
    uint32_t v;
    memcpy(&v, p + i, 4);
    return v;
}

static inline uint64_t pair_at(const uint32_t* p, uint32_t i)
{
    uint64_t v;
    memcpy(&v, p + i, 8);
    return v;
}

static inline bool word_differs(const uint32_t* out, const uint32_t* golden, const uint32_t* mask, uint32_t i)
{
    uint32_t m = mask != nullptr ? word_at(mask, i) : 0xFFFFFFFFu;
    return ((word_at(out, i) ^ word_at(golden, i)) & m) != 0;
}

// Whole blocks are compared first; words are looked at one by one only in a
// block that differs.
uint32_t next_mismatch(const uint32_t* out, const uint32_t* golden, const uint32_t* mask, uint32_t from, uint32_t words)
{
    uint32_t i = from;
    while (i < words) {
        uint32_t block_end = words - i > kBlockWords ? i + kBlockWords : words;
        bool same;
        if (mask == nullptr) {
            same = memcmp(out + i, golden + i, 4ull * (block_end - i)) == 0;
        } else {
            uint64_t diff = 0;
            uint32_t j = i;
            for (; j + 2 <= block_end; j += 2)
                diff |= (pair_at(out, j) ^ pair_at(golden, j)) & pair_at(mask, j);
            for (; j < block_end; j++)
                diff |= (word_at(out, j) ^ word_at(golden, j)) & word_at(mask, j);
            same = diff == 0;
        }
        if (!same) {
            for (uint32_t j = i; j < block_end; j++)
                if (word_differs(out, golden, mask, j))
                    return j;
        }
        i = block_end;
    }
    return words;
}

int qoraCmd::CompareResult()
{
    uint32_t n = m_ptn->get_pattern_output_num();
    uint32_t g = m_ptn->get_pattern_golden_num();
    if (g == 0) {
        QORA_LOGI("no golden data\n");
        return -1;
    }
    if (n != g) {
        QORA_LOGI("golden number(%d) dismatch (output num = %d)\n", g, n);
        return -1;
    }
    uint32_t sum = 0;
    for (uint32_t i = 0; i < n; i++) {
        sum += (uint32_t)CompareEachOutput(i);
        // The sum runs on, so every output after a failing one is reported too.
        if (n != 1 && sum != 0)
            QORA_LOGI("output-%d fail\n", i);
    }
    return (int)sum;
}

int qoraCmd::CompareEachOutput(uint32_t index)
{
    const uint32_t* out = m_result_list.at(index);
    const uint32_t* golden = (const uint32_t*)m_ptn->get_pattern_golden_addr(index);
    const uint32_t* mask = (const uint32_t*)m_ptn->get_pattern_golden_addr_mask(index);
    uint32_t gsize = m_ptn->get_pattern_golden_size(index);
    uint32_t osize = m_ptn->get_pattern_output_size(index);
    QORA_LOGI("---- start to compare result (%d) ----\n", index);
    if (golden == nullptr) {
        QORA_LOGI("no golden data\n");
        return -1;
    }
    if (out == nullptr) {
        QORA_LOGI("no output data\n");
        return -1;
    }
    if (gsize != osize)
        QORA_LOGW("golde size(0x%x) != output size(0x%x)\n", gsize, osize);
    uint32_t size = gsize < osize ? gsize : osize;
    for (size_t i = 0; i < m_mem_list.size(); i++)
        if (korvexSession_memInvalidate(m_session, m_mem_list[i]) != 0)
            QORA_LOGW("invalidate data buffer idx%d: Fail\n", (int)i);
    uint32_t words = size >> 2;
    uint32_t count = 0;
    for (uint32_t w = next_mismatch(out, golden, mask, 0, words); w < words;
         w = next_mismatch(out, golden, mask, w + 1, words)) {
        count++;
        if (mask != nullptr)
            QORA_LOGW("%3d: output = %08x, golden = %08x, mask = %08x\n", w, word_at(out, w), word_at(golden, w),
                      word_at(mask, w));
        else
            QORA_LOGW("index = %d, outout = 0x%x, golden = 0x%x\n", w, word_at(out, w), word_at(golden, w));
        if (count > kMaxReported)
            break;
    }
    return (int)count;
}

void qoraCmd::DumpResult(const std::string& name)
{
    for (size_t i = 0; i < m_result_list.size(); i++) {
        uint32_t size = m_ptn->get_pattern_output_size((uint32_t)i);
        std::string file = name + "_" + std::to_string(i) + ".bin";
        FILE* fp = fopen(file.c_str(), "w");
        if (fp == nullptr) {
            QORA_LOGE("open file(%s) error\n", file.c_str());
            return;
        }
        QORA_LOGD(m_debug_lv, QORA_DEBUG_CMD, "dump output name = \"%s\"\n", file.c_str());
        for (uint32_t w = 0; w < size >> 2; w++)
            if (fwrite(m_result_list[i] + w, 4, 1, fp) != 1)
                printf("%s():%d fwrite error\n", __func__, __LINE__);
        close_reporting(fp, __func__, __LINE__);
    }
}
