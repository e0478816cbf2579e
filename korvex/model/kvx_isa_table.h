/*
 * Engine model: the QORA instruction set, defined once.
 *
 * Contract: KVX_INSTRUCTIONS(X) expands X(code, NAME, length, form, effect,
 * work) once per instruction, in opcode order. It drives the opcodes
 * (enum kvx_opcode, KVX_OP_<NAME>), the decoder and the dispatch of the
 * engine model, the assembler and disassembler, and the instruction table
 * of docs/engine-model.md. C and C++.
 *
 *   code    opcode, bits 0-7 of the header word
 *   length  words the assembler emits, header included; 0: variable
 *           (NOP: the length asked for; SETR: 1 + number of operand words)
 *   form    operand syntax: KVX_FORM_NONE, KVX_FORM_LENGTH (NOP n),
 *           KVX_FORM_SETR (SETR rA, word...), KVX_FORM_IMM (FLOW id), or
 *           KVX_FORM_REGS1..4 (register fields a, b, c, d of the immediate)
 *   effect  what it does, for the documentation
 *   work    what it counts beside one instruction (the timing and the PMU
 *           count work; see docs/engine-model.md), for the documentation
 *
 * Header word: bits 0-7 opcode, 8-15 length in words, 16-31 immediate;
 * register fields a = bits 16-19, b = 20-23, c = 24-27, d = 28-31.
 */
#ifndef KVX_ISA_TABLE_H
#define KVX_ISA_TABLE_H

enum kvx_form {
    KVX_FORM_NONE,
    KVX_FORM_LENGTH,
    KVX_FORM_SETR,
    KVX_FORM_IMM,
    KVX_FORM_REGS1,
    KVX_FORM_REGS2,
    KVX_FORM_REGS3,
    KVX_FORM_REGS4,
};

#define KVX_INSTRUCTIONS(X)                                                                                            \
    X(0x00, END, 1, KVX_FORM_NONE, "the sub-command finishes", "-")                                                    \
    X(0x01, NOP, 0, KVX_FORM_LENGTH, "nothing; pads code so operands land at chosen offsets", "-")                     \
    X(0x02, SETR, 0, KVX_FORM_SETR, "r[a], r[a+1], ... = the operand words (at most up to r15)", "-")                  \
    X(0x03, MOVE, 1, KVX_FORM_REGS3, "copy r[c] bytes from r[b] to r[a] (overlap allowed)",                            \
      "n bytes read, n written; 1 DMA command")                                                                        \
    X(0x04, FILL, 1, KVX_FORM_REGS3, "r[c] bytes at r[a] = low byte of r[b]", "n bytes written; 1 DMA command")        \
    X(0x05, ADD8, 1, KVX_FORM_REGS4, "r[d] bytes: r[a][i] = min(255, r[b][i] + r[c][i])",                              \
      "2n bytes read, n written; n vector elements, 1 vector command")                                                 \
    X(0x06, MAX8, 1, KVX_FORM_REGS4, "r[d] bytes: r[a][i] = max(r[b][i], r[c][i])",                                    \
      "2n bytes read, n written; n vector elements, 1 vector command")                                                 \
    X(0x07, CONV, 1, KVX_FORM_REGS4, "convolution, below",                                                             \
      "input, weights and bias read, output written; its MACs, 1 CONV command")                                        \
    X(0x08, FLOW, 1, KVX_FORM_IMM, "a flow ends; its id is the immediate", "1 flow")                                   \
    X(0x09, CYCLES, 1, KVX_FORM_REGS1, "the engine's 64-bit cycle counter, little-endian, at r[a]", "8 bytes written")

/* The opcodes, one per instruction: KVX_OP_END, KVX_OP_NOP, ... */
enum kvx_opcode {
#define KVX_OPCODE(code, NAME, length, form, effect, work) KVX_OP_##NAME = code,
    KVX_INSTRUCTIONS(KVX_OPCODE)
#undef KVX_OPCODE
};

#endif /* KVX_ISA_TABLE_H */
