// The bulk compare against a word-by-word reading of the same buffers,
// where its blocks and word pairs end: every mismatch is found once, in
// order, and masked bits never count.
#include <gtest/gtest.h>

#include <vector>

#include "qora_cmd.h"

namespace
{

struct VerifyCase {
    const char* what;
    uint32_t words;
    std::vector<uint32_t> flipped; // words whose bit 4 differs
    bool masked;                   // the mask clears bit 4 of the odd words
};

std::vector<uint32_t> expected_mismatches(const VerifyCase& c)
{
    std::vector<uint32_t> found;
    for (uint32_t w : c.flipped)
        if (!(c.masked && (w & 1)))
            found.push_back(w);
    return found;
}

TEST(Verify, MismatchesAtBlockAndPairEnds)
{
    const std::vector<VerifyCase> cases = {
        {"the words either side of the first block end", 3000, {1023, 1024}, false},
        {"the last word of a block and of the buffer", 2048, {0, 1023, 2047}, false},
        {"an odd count: the word after the last pair", 1025, {1024}, false},
        {"a masked odd tail word is not a mismatch", 1025, {1023, 1024}, true},
        {"masked and compared words side by side", 2051, {1, 2, 1023, 1024, 2049, 2050}, true},
        {"a short buffer, within one pair", 1, {0}, false},
        {"no difference at all", 4096, {}, true},
    };
    for (const VerifyCase& c : cases) {
        std::vector<uint32_t> out(c.words, 0x5A5A5A5A), golden(c.words, 0x5A5A5A5A), mask(c.words, 0xFFFFFFFF);
        for (uint32_t w : c.flipped)
            golden[w] ^= 0x10;
        for (uint32_t w = 1; w < c.words; w += 2)
            mask[w] = 0xFFFFFFEF;
        const uint32_t* m = c.masked ? mask.data() : nullptr;
        std::vector<uint32_t> found;
        for (uint32_t w = next_mismatch(out.data(), golden.data(), m, 0, c.words); w < c.words;
             w = next_mismatch(out.data(), golden.data(), m, w + 1, c.words))
            found.push_back(w);
        EXPECT_EQ(found, expected_mismatches(c)) << c.what;
    }
}

} // namespace
