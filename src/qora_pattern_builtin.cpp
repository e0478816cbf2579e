// Built-in patterns "Test" (conv2d_uint8) and "MaxPower" (max_pwr4_pi),
// compiled in from headers made by the pattern and golden header generators.
#include <cstring>

#include "qora_pattern.h"
#include "qora_pattern_internal.h"

#include "pattern/conv2d_uint8.h"
#include "pattern/max_pwr4_pi_test.h"

// The generated tables have the row layouts of binding and buffer.
static_assert(sizeof(conv2d_uint8_binding[0]) == sizeof(binding), "binding rows");
static_assert(sizeof(conv2d_uint8_data[0]) == sizeof(buffer), "data rows");

// The code and output sizes are fixed here, not read from the tables.
static const internal_tables kTest = {
    "conv2d_uint8",
    conv2d_uint8_Command,
    320,
    (binding*)conv2d_uint8_binding,
    (int32_t)conv2d_uint8_binding_num,
    (buffer*)&conv2d_uint8_data[1],
    conv2d_uint8_data_num,
    conv2d_uint8_Output,
    51200,
    conv2d_uint8_golden,
    conv2d_uint8_golden_mask,
    conv2d_uint8_golden_len,
};

static const internal_tables kMaxPower = {
    "max_pwr4_pi",
    max_pwr4_pi_test_Command,
    672,
    (binding*)max_pwr4_pi_test_binding,
    (int32_t)max_pwr4_pi_test_binding_num,
    (buffer*)&max_pwr4_pi_test_data[1],
    max_pwr4_pi_test_data_num,
    max_pwr4_pi_test_Output,
    0x48000,
    max_pwr4_pi_test_golden,
    max_pwr4_pi_test_golden_mask,
    max_pwr4_pi_test_golden_len,
};

const internal_tables* internal_pattern(const std::string& name)
{
    if (name == "Test")
        return &kTest;
    if (name == "MaxPower")
        return &kMaxPower;
    return nullptr;
}

// Wires pattern p to the static tables: one output, one golden, and
// m_thrd_num code buffers that share the code and binding tables.
void qoraPattern::build_internal_pattern(pattern* p, const internal_tables& t)
{
    strncpy(p->name, t.name, sizeof(p->name) - 1);
    output* o = new output();
    o->addr = t.output;
    o->size = t.output_size;
    o->use_internal_output = true;
    m_out_list.push_back(o);
    golden* g = new golden();
    g->use_internal_gdn = true;
    m_gdn_list.push_back(g);
    p->code_num = (uint32_t)m_thrd_num;
    p->buf = t.data;
    p->buf_num = t.data_num - 1;
    for (int i = 0; i < m_thrd_num; i++) {
        sub_pattern* sp = new sub_pattern();
        sp->codebuf.data = t.code;
        sp->codebuf.size = t.code_size;
        sp->binding = t.binding;
        sp->binding_num = t.binding_num;
        p->sub_ptn_list.push_back(sp);
    }
    p->use_internal_ptn = true;
    sub_golden* sg = new sub_golden();
    sg->data = t.golden;
    sg->mask = t.golden_mask;
    sg->len = t.golden_len;
    g->sub_gdn_list.push_back(sg);
}
