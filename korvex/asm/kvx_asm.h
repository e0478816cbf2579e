/*
 * Assembler and disassembler of QORA code, driven by kvx_isa_table.h.
 *
 * Contract: C and C++; depends on nothing of the engine model but the
 * instruction table, so it also builds beside the vendor's middleware.
 *
 * Encoders build one header word; every field is cut to its width. END is
 * the word 0 (the engine ignores END's length field).
 *
 * Source text, one instruction a line, mnemonics in any case:
 *   END | NOP n | SETR rA, w0, w1, ... | MOVE/FILL rA, rB, rC |
 *   ADD8/MAX8/CONV rA, rB, rC, rD | FLOW id | CYCLES rA | .word value
 * Numbers are unsigned, decimal or 0x hex. ";" and "#" start a comment.
 * A leading "OFFSET:" (a number, as the disassembler writes it) is ignored.
 *
 * Disassembly: one "0x%04x: TEXT" line per instruction, OFFSET in bytes,
 * TEXT in the syntax above, so assembling the listing gives the words back
 * for any input:
 *   - a word that is no instruction (unknown opcode, length 0, past the
 *     end, a SETR the engine refuses) is ".word 0x........";
 *   - an instruction the text does not reproduce (fields the engine ignores
 *     set, NOP padding that is not 0, a length its form does not use) is one
 *     ".word" line per word, the first commented with the instruction.
 * SETR words are written in hex.
 */
#ifndef KVX_ASM_H
#define KVX_ASM_H

#include <stddef.h>
#include <stdint.h>

#include "kvx_isa_table.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bits 0-7 opcode, 8-15 length in words (header included), 16-31 immediate. */
static inline uint32_t kvx_asm_header(uint32_t op, uint32_t length, uint32_t imm)
{
    return (op & 0xFFu) | (length & 0xFFu) << 8 | (imm & 0xFFFFu) << 16;
}

/* A one-word instruction with register fields a, b, c, d. */
static inline uint32_t kvx_asm_regs(uint32_t op, uint32_t a, uint32_t b, uint32_t c, uint32_t d)
{
    return kvx_asm_header(op, 1, (a & 15u) | (b & 15u) << 4 | (c & 15u) << 8 | (d & 15u) << 12);
}

/* SETR header: the `count` words after it go to r[reg], r[reg+1], ... */
static inline uint32_t kvx_asm_setr(uint32_t reg, uint32_t count)
{
    return kvx_asm_header(KVX_OP_SETR, count + 1, reg & 15u);
}

/* NOP header of a `len`-word NOP; the len-1 words after it are skipped. */
static inline uint32_t kvx_asm_nop(uint32_t len)
{
    return kvx_asm_header(KVX_OP_NOP, len, 0);
}

static inline uint32_t kvx_asm_flow(uint32_t id)
{
    return kvx_asm_header(KVX_OP_FLOW, 1, id);
}

static inline uint32_t kvx_asm_end(void)
{
    return 0;
}

/* Assembles `text` into words[0..capacity). Returns 0 and the word count,
 * or -1 with "line N: message" in `error` (cut to error_size; error may be
 * null). With words null only the count is made (capacity is not checked). */
int kvx_assemble(const char* text, uint32_t* words, uint32_t capacity, uint32_t* count, char* error, size_t error_size);

/* Writes the listing of words[0..count) to `out`, NUL-terminated. Returns 0,
 * or -1 when it does not fit in out_size bytes. */
int kvx_disassemble(const uint32_t* words, uint32_t count, char* out, size_t out_size);

/* The mnemonic of an opcode, or null when there is none. */
const char* kvx_asm_name(uint8_t opcode);

/* Writes the markdown instruction table (| Opcode | Name | Length | Effect |
 * Work |), NUL-terminated and cut to out_size bytes; returns its full
 * length, as snprintf does. */
size_t kvx_asm_table(char* out, size_t out_size);

#ifdef __cplusplus
}
#endif

#endif /* KVX_ASM_H */
