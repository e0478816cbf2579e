// Engine model: the instruction set of the QORA code buffer.
//
// Contract: run_code executes a code buffer from its first word until END.
// Instructions are little-endian 32-bit words: a header (bits 0-7 opcode,
// bits 8-15 length in words including the header, bits 16-31 an immediate)
// followed by length-1 operand words. Registers r0-r15 hold 32-bit values;
// registers that name memory hold device addresses in 16-byte units. An
// unknown opcode, a zero length, an instruction past the end of the code or
// an access outside the session's memory faults the run.
#ifndef KVX_ISA_H
#define KVX_ISA_H

#include <cstdint>
#include <vector>

#include "kvx_memory.h"

namespace kvx {

enum opcode : uint8_t {
    OP_END = 0x00,
    OP_NOP = 0x01,
    OP_SETR = 0x02,
    OP_MOVE = 0x03,
    OP_FILL = 0x04,
    OP_ADD8 = 0x05,
    OP_MAX8 = 0x06,
    OP_CONV = 0x07,
    OP_FLOW = 0x08,
    OP_CYCLES = 0x09,
};

// Work done, in the units the timing model and the PMU count.
struct work_counters {
    uint64_t instructions;
    uint64_t bytes_read;
    uint64_t bytes_written;
    uint64_t dma_commands;
    uint64_t conv_commands;
    uint64_t macs;
    uint64_t vector_elements;
    uint64_t vector_commands;
    uint64_t flows;
};

// Modelled engine cycles for the work counted so far.
uint64_t work_cycles(const work_counters& w);

// A finished flow: its id and the work counted when it ended.
struct flow_mark {
    uint32_t id;
    work_counters work;
};

struct isa_context {
    device_memory* mem;
    const uint8_t* code;
    uint32_t code_size;
    uint32_t pc; // byte offset of the next instruction
    uint32_t r[16];
    uint64_t cycle_counter_base; // the engine's counter when the run started
    work_counters work;
    std::vector<flow_mark> flows;
};

enum run_status { RUN_DONE = 0, RUN_FAULT = 1 };

run_status run_code(isa_context& ctx);

} // namespace kvx

#endif // KVX_ISA_H
