// Engine model: the instruction set of the QORA code buffer.
//
// Contract: run_code executes a code buffer from ctx.pc until END.
// Instructions are little-endian 32-bit words: a header (bits 0-7 opcode,
// bits 8-15 length in words including the header, bits 16-31 an immediate)
// followed by length-1 operand words; the instructions are those of
// kvx_isa_table.h. Registers r0-r15 hold 32-bit values; registers that name
// memory hold device addresses in 16-byte units. A fault stops the run and
// leaves its cause and detail (kvx_model.h) in the context. Each
// instruction's work is counted before it is done; one that would take the
// run past ctx.work_limit steps (work_steps) faults instead. With an
// instruction log, each executed instruction appends one line: who, pc,
// name, registers written, memory ranges read and written.
#ifndef KVX_ISA_H
#define KVX_ISA_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kvx_isa_table.h"
#include "kvx_memory.h"

namespace kvx
{

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

// The model's own effort for the work, in steps: one per instruction,
// multiply-accumulate and vector element, one per 16 bytes read or written.
// The work limit is counted in steps.
uint64_t work_steps(const work_counters& w);

// A finished flow: its id and the work counted when it ended.
struct flow_mark {
    uint32_t id;
    work_counters work;
};

// A memory range one instruction touched, for the instruction log.
struct touched_range {
    uint32_t dev_va, len;
    bool write;
};

struct isa_context {
    device_memory* mem;
    std::vector<uint32_t> code; // the code buffer's words, as the engine read them
    uint32_t pc;                // byte offset of the next instruction
    uint32_t vlm_bytes;         // bytes of the VLM the sub-command may use
    uint32_t r[16];
    uint64_t cycle_counter_base; // the engine's counter when the run started
    work_counters work;
    uint64_t work_limit; // steps the run may take; the instruction that would pass them faults
    std::vector<flow_mark> flows;
    uint32_t cause, detail; // why the run stopped early (kvx_model.h)
    FILE* log;              // instruction log, or null
    std::string who;        // the sub-command's name in the log
    std::vector<touched_range> touched;
};

enum run_status { RUN_DONE = 0, RUN_FAULT = 1 };

run_status run_code(isa_context& ctx);

} // namespace kvx

#endif // KVX_ISA_H
