// Pattern store: construction, release and the accessors the command layer
// reads the pattern set through.
#include "qora_pattern.h"

#include <sys/mman.h>

#include <cstdlib>

#include "qora_pattern_internal.h"

#if defined(__SANITIZE_ADDRESS__)
#define QORA_LEAK_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QORA_LEAK_CHECKED 1
#endif
#endif
#ifdef QORA_LEAK_CHECKED
#include <sanitizer/lsan_interface.h>
#endif

qoraPattern::qoraPattern() : m_thrd_num(1) { }

qoraPattern::qoraPattern(std::vector<std::string>& pattern_list, std::vector<std::string>& golden_list, int thrd_num)
    : m_thrd_num(thrd_num < 1 ? 1 : thrd_num)
{
    for (const std::string& entry : pattern_list) {
        pattern* p = new pattern();
        p->file_name = entry;
        m_ptn_list.push_back(p);
        // A reserved name ends construction: later patterns and the golden
        // files are not loaded, the built-in golden stands in for them.
        const internal_tables* builtin = internal_pattern(entry);
        if (builtin != nullptr) {
            build_internal_pattern(p, *builtin);
            return;
        }
        p->use_internal_ptn = false;
        p->buf = new buffer[MAX_DATA_NUM]();
        load_pattern(p);
    }
    for (const std::string& entry : golden_list) {
        golden* g = new golden();
        g->file_name = entry;
        g->use_internal_gdn = false;
        g->idx = (uint32_t)m_gdn_list.size();
        m_gdn_list.push_back(g);
        load_golden(g);
    }
}

// Region bytes are calloc blocks (see the golden loaders).
void free_sub_golden(golden* g)
{
    for (sub_golden* sg : g->sub_gdn_list) {
        free(sg->data);
        free(sg->mask);
        delete sg;
    }
    g->sub_gdn_list.clear();
}

// A block the release rules keep on purpose. Under LeakSanitizer it is
// marked so, one by one: which blocks stay depends on the pattern's position
// or on the record's place in a list, which no allocation stack (what a
// suppression matches) shows.
static void keep_on_purpose(const void* block)
{
#ifdef QORA_LEAK_CHECKED
    __lsan_ignore_object(block);
#else
    (void)block;
#endif
}

// Releases a loaded pattern. Whether the data buffers are freed is decided
// by the buffer at the pattern's own list position, and code bytes are kept:
// both are long-standing behaviours of the player, kept as they are.
static void release_loaded_pattern(pattern* p, size_t position)
{
    bool free_data = position < MAX_DATA_NUM && p->buf[position].data != nullptr;
    for (uint32_t j = 0; j < p->buf_num && j < MAX_DATA_NUM; j++) {
        if (free_data)
            free(p->buf[j].data);
        else
            keep_on_purpose(p->buf[j].data);
    }
    delete[] p->buf;
    for (sub_pattern* sp : p->sub_ptn_list) {
        delete[] sp->binding;
        delete sp;
    }
}

// Releases a built-in pattern's first code buffer record only; the other
// copies, which share the static tables, are kept as the player always has.
static void release_builtin_pattern(pattern* p)
{
    delete p->sub_ptn_list.at(0);
    for (size_t k = 1; k < p->sub_ptn_list.size(); k++)
        keep_on_purpose(p->sub_ptn_list[k]);
}

qoraPattern::~qoraPattern()
{
    for (size_t i = 0; i < m_ptn_list.size(); i++) {
        pattern* p = m_ptn_list[i];
        if (p->use_internal_ptn)
            release_builtin_pattern(p);
        else
            release_loaded_pattern(p, i);
        delete p;
    }
    for (output* o : m_out_list) {
        if (!o->use_internal_output)
            delete[] o->addr;
        delete o;
    }
    for (golden* g : m_gdn_list) {
        if (!g->use_internal_gdn)
            free_sub_golden(g);
        for (sub_golden* sg : g->sub_gdn_list) // a built-in golden's region record is never released
            keep_on_purpose(sg);
        delete g;
    }
}

sub_golden* get_sub_golden(std::vector<golden*> gdn_list, uint32_t index)
{
    uint32_t r = index;
    for (golden* g : gdn_list) {
        uint32_t n = (uint32_t)g->sub_gdn_list.size();
        if (r < n)
            return g->sub_gdn_list[r];
        r -= n;
    }
    return nullptr;
}

char* qoraPattern::get_pattern_name()
{
    return m_ptn_list.at(0)->name;
}

buffer* qoraPattern::get_pattern_codebuf(uint32_t index)
{
    pattern* p = m_ptn_list.at(0);
    return index < p->sub_ptn_list.size() ? &p->sub_ptn_list[index]->codebuf : nullptr;
}

uint32_t qoraPattern::get_pattern_code_num()
{
    return m_ptn_list.at(0)->code_num;
}

buffer* qoraPattern::get_pattern_data()
{
    return m_ptn_list.at(0)->buf;
}

uint32_t qoraPattern::get_pattern_data_num()
{
    return m_ptn_list.at(0)->buf_num;
}

binding* qoraPattern::get_pattern_binding(uint32_t index)
{
    pattern* p = m_ptn_list.at(0);
    return index < p->sub_ptn_list.size() ? p->sub_ptn_list[index]->binding : nullptr;
}

uint32_t qoraPattern::get_pattern_binding_num(uint32_t index)
{
    pattern* p = m_ptn_list.at(0);
    return index < p->sub_ptn_list.size() ? (uint32_t)p->sub_ptn_list[index]->binding_num : 0;
}

uint8_t* qoraPattern::get_pattern_output(uint32_t index)
{
    return index < m_out_list.size() ? m_out_list[index]->addr : nullptr;
}

uint32_t qoraPattern::get_pattern_output_size(uint32_t index)
{
    return index < m_out_list.size() ? m_out_list[index]->size : 0;
}

uint32_t qoraPattern::get_pattern_output_num()
{
    return (uint32_t)m_out_list.size();
}

uint8_t* qoraPattern::get_pattern_golden_addr(uint32_t index)
{
    sub_golden* sg = get_sub_golden(m_gdn_list, index);
    return sg ? sg->data : nullptr;
}

uint8_t* qoraPattern::get_pattern_golden_addr_mask(uint32_t index)
{
    sub_golden* sg = get_sub_golden(m_gdn_list, index);
    return sg ? sg->mask : nullptr;
}

uint32_t qoraPattern::get_pattern_golden_size(uint32_t index)
{
    sub_golden* sg = get_sub_golden(m_gdn_list, index);
    return sg ? sg->len : 0;
}

uint32_t qoraPattern::get_pattern_golden_num()
{
    uint32_t n = 0;
    for (golden* g : m_gdn_list)
        n += (uint32_t)g->sub_gdn_list.size();
    return n;
}

void advise_huge_pages(void* block, size_t size)
{
    const uintptr_t huge = 2u << 20;
    uintptr_t start = ((uintptr_t)block + huge - 1) & ~(huge - 1);
    uintptr_t end = ((uintptr_t)block + size) & ~(huge - 1);
    if (end > start)
        madvise((void*)start, end - start, MADV_HUGEPAGE);
}
