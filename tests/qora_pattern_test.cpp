// Accessors of the pattern set on sets built by hand.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "test_util.h"

namespace
{

using access = qora_pattern_access;

sub_golden* region(uint32_t len, bool with_mask)
{
    sub_golden* sg = new sub_golden();
    sg->len = len;
    sg->data = (uint8_t*)calloc(len + 1, 1);
    sg->mask = with_mask ? (uint8_t*)calloc(len + 1, 1) : nullptr;
    return sg;
}

golden* golden_of(std::initializer_list<uint32_t> lens)
{
    golden* g = new golden();
    for (uint32_t len : lens)
        g->sub_gdn_list.push_back(region(len, len % 2 == 0));
    return g;
}

// A loaded-looking pattern with `codes` code buffers and `bufs` data buffers.
pattern* pattern_of(uint32_t codes, uint32_t bufs)
{
    pattern* p = new pattern();
    strcpy(p->name, "data");
    p->buf = new buffer[MAX_DATA_NUM]();
    for (uint32_t i = 0; i < bufs; i++)
        p->buf[i].data = (uint8_t*)malloc(16);
    p->buf_num = bufs;
    for (uint32_t c = 0; c < codes; c++) {
        sub_pattern* sp = new sub_pattern();
        sp->binding = new binding[4]();
        sp->binding_num = (int32_t)c + 1;
        sp->codebuf.size = 16 * (c + 1);
        p->sub_ptn_list.push_back(sp);
    }
    p->code_num = codes;
    return p;
}

output* output_of(uint32_t size)
{
    output* o = new output();
    o->size = size;
    o->addr = new uint8_t[size];
    return o;
}

TEST(PatternModel, EmptySetThrowsOnPatternAccessors)
{
    qoraPattern set;
    const std::vector<std::function<void()>> calls = {
        [&] { set.get_pattern_name(); },         [&] { set.get_pattern_codebuf(0); },
        [&] { set.get_pattern_code_num(); },     [&] { set.get_pattern_data(); },
        [&] { set.get_pattern_data_num(); },     [&] { set.get_pattern_binding(0); },
        [&] { set.get_pattern_binding_num(0); },
    };
    for (const auto& call : calls) {
        try {
            call();
            ADD_FAILURE() << "no exception";
        } catch (const std::out_of_range&) {
            // the standard range-checked access reports it
        }
    }
    EXPECT_EQ(set.get_pattern_output_num(), 0u);
    EXPECT_EQ(set.get_pattern_golden_num(), 0u);
    EXPECT_EQ(set.get_pattern_output(0), nullptr);
    EXPECT_EQ(set.get_pattern_golden_addr(0), nullptr);
}

TEST(PatternModel, CodeAndBindingRangeEnds)
{
    qoraPattern set;
    access::patterns(set).push_back(pattern_of(2, 3));
    access::patterns(set).push_back(pattern_of(5, 2)); // never visible
    EXPECT_STREQ(set.get_pattern_name(), "data");
    EXPECT_EQ(set.get_pattern_code_num(), 2u);
    EXPECT_EQ(set.get_pattern_data_num(), 3u);
    EXPECT_EQ(set.get_pattern_data(), access::patterns(set)[0]->buf);
    EXPECT_EQ(set.get_pattern_codebuf(1)->size, 32u);
    EXPECT_EQ((void*)set.get_pattern_codebuf(1), (void*)access::patterns(set)[0]->sub_ptn_list[1]);
    EXPECT_EQ(set.get_pattern_codebuf(2), nullptr);
    EXPECT_EQ(set.get_pattern_binding_num(1), 2u);
    EXPECT_EQ(set.get_pattern_binding_num(2), 0u);
    EXPECT_NE(set.get_pattern_binding(1), nullptr);
    EXPECT_EQ(set.get_pattern_binding(2), nullptr);
}

TEST(PatternModel, OutputRangeEnds)
{
    qoraPattern set;
    access::outputs(set).push_back(output_of(32));
    access::outputs(set).push_back(output_of(64));
    EXPECT_EQ(set.get_pattern_output_num(), 2u);
    EXPECT_EQ(set.get_pattern_output_size(1), 64u);
    EXPECT_EQ(set.get_pattern_output(1), access::outputs(set)[1]->addr);
    EXPECT_EQ(set.get_pattern_output(2), nullptr);
    EXPECT_EQ(set.get_pattern_output_size(2), 0u);
}

TEST(PatternModel, GoldenNumberingRunsAcrossGoldens)
{
    qoraPattern set;
    access::goldens(set).push_back(golden_of({10, 20}));
    access::goldens(set).push_back(golden_of({}));
    access::goldens(set).push_back(golden_of({30, 41, 52}));
    EXPECT_EQ(set.get_pattern_golden_num(), 5u);
    const struct {
        uint32_t index;
        uint32_t len;
        bool mask;
    } cases[] = {{0, 10, true}, {1, 20, true}, {2, 30, true},         {3, 41, false},
                 {4, 52, true}, {5, 0, false}, {0xFFFFFFFF, 0, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(set.get_pattern_golden_size(c.index), c.len) << c.index;
        EXPECT_EQ(set.get_pattern_golden_addr_mask(c.index) != nullptr, c.mask) << c.index;
        EXPECT_EQ(set.get_pattern_golden_addr(c.index) != nullptr, c.len != 0) << c.index;
    }
    EXPECT_EQ(get_sub_golden(access::goldens(set), 4), access::goldens(set)[2]->sub_gdn_list[2]);
}

} // namespace
