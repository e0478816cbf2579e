// Pattern store: the in-memory model of patterns, goldens and outputs, the
// loaders that fill it from pattern and golden files or built-in tables, and
// the offline converters that read the same formats.
//
// Contract: the command layer reads a pattern set only through the
// get_pattern_* accessors, which always read the first pattern of the list
// (a range-checked access that throws std::out_of_range when there is none).
// Loaders and converters return 0 on success and -1 on failure; callers
// often ignore the result. Outputs and golden regions are each kept in
// case-insensitive order of their address text; golden region k is checked
// against output k.
#ifndef QORA_PATTERN_H
#define QORA_PATTERN_H

#include <cstdint>
#include <string>
#include <vector>

#include "qora_cmd.h"

#define MAX_DATA_NUM 8192 // data buffers per pattern
#define MAX_NUM 32768     // bindings per code buffer

// One command-code buffer with its relocations; a pointer to it doubles as a
// pointer to its codebuf.
struct sub_pattern {
    buffer codebuf;
    struct binding* binding;
    int32_t binding_num;
};

struct output {
    uint32_t idx;
    bool use_internal_output;
    uint8_t* addr;
    uint32_t size;
    char name[17];
};

struct pattern {
    std::string file_name;
    char name[64 + 1]; // up to 64 characters and their terminator
    bool use_internal_ptn;
    buffer* buf;
    uint32_t buf_num;
    char const_addr_str[MAX_DATA_NUM][17];
    std::vector<sub_pattern*> sub_ptn_list;
    uint32_t code_num;
};

struct sub_golden {
    uint8_t* data;
    uint8_t* mask;
    uint32_t len;
    char name[17];
};

struct golden {
    uint32_t idx;
    std::string file_name;
    bool use_internal_gdn;
    std::vector<sub_golden*> sub_gdn_list;
};

// Output order: a before b when their names compare below 0, ignoring case.
bool compare_output_addr(output* a, output* b);

// Sub-golden number `index` across all goldens, golden by golden; null past the end.
sub_golden* get_sub_golden(std::vector<golden*> gdn_list, uint32_t index);

// The static tables of a built-in pattern (generated headers in inc/pattern/).
struct internal_tables {
    const char* name;
    uint8_t* code;
    uint32_t code_size;
    struct binding* binding;
    int32_t binding_num;
    buffer* data;      // the data table's row 1 (row 0 is the code)
    uint32_t data_num; // rows in use, the code row included
    uint8_t* output;
    uint32_t output_size;
    uint8_t* golden;
    uint8_t* golden_mask; // null when the golden has no mask
    uint32_t golden_len;
};

class qoraPattern
{
public:
    qoraPattern();
    qoraPattern(std::vector<std::string>& pattern_list, std::vector<std::string>& golden_list, int thrd_num);
    ~qoraPattern();

    char* get_pattern_name();
    buffer* get_pattern_codebuf(uint32_t index);
    uint32_t get_pattern_code_num();
    buffer* get_pattern_data();
    uint32_t get_pattern_data_num();
    binding* get_pattern_binding(uint32_t index);
    uint32_t get_pattern_binding_num(uint32_t index);
    uint8_t* get_pattern_output(uint32_t index);
    uint32_t get_pattern_output_size(uint32_t index);
    uint32_t get_pattern_output_num();
    uint8_t* get_pattern_golden_addr(uint32_t index);
    uint8_t* get_pattern_golden_addr_mask(uint32_t index);
    uint32_t get_pattern_golden_size(uint32_t index);
    uint32_t get_pattern_golden_num();

    int convert_pattern_hdr(const std::string& pattern, const std::string& header);
    int convert_golden_hdr(const std::string& golden, const std::string& header);
    int post_convert(const std::string& header);
    int dump_bin_from_ctp_log(const std::string& log);

private:
    friend struct qora_pattern_access; // test seam: builds pattern sets by hand

    void build_internal_pattern(pattern* p, const internal_tables& t);
    int load_pattern(pattern* p);
    int load_pattern_hex(pattern* p);
    int load_pattern_bin(pattern* p);
    int load_golden(golden* g);
    int load_golden_hex(golden* g);
    int load_golden_bin(golden* g);

    std::vector<pattern*> m_ptn_list;
    std::vector<golden*> m_gdn_list;
    std::vector<output*> m_out_list;
    int32_t m_thrd_num;
};

#endif // QORA_PATTERN_H
