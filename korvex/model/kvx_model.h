/*
 * Engine model: what it adds to the korvex interface for debugging.
 *
 * Contract: every sub-command that the model does not run to its end, and
 * every command it refuses to run, has a cause. The cause is reported in the
 * sub-command's result record (hw_error_msg = KVX_IRQ_BASE | cause,
 * out_debug_info_msg = the detail the table below names) when the record
 * is attached as the firmware needs it, and always through
 * korvexSubCmd_getRunInfo with KVX_RUNINFO_CAUSE and KVX_RUNINFO_DETAIL.
 * A sub-command that finished has cause KVX_CAUSE_NONE, or
 * KVX_CAUSE_SOFT_LIMIT (not a fault: irq hint 0, the ip time in the detail).
 * The vendor's middleware answers 0 for these run information types.
 */
#ifndef KVX_MODEL_H
#define KVX_MODEL_H

#define KVX_IRQ_BASE 0x8000u

enum kvx_cause {
    KVX_CAUSE_NONE = 0x00,
    /* the code (detail: byte offset of the instruction) */
    KVX_CAUSE_UNKNOWN_OPCODE = 0x01,
    KVX_CAUSE_ZERO_LENGTH = 0x02,
    KVX_CAUSE_PAST_END = 0x03,    /* an instruction runs past the end, or no END */
    KVX_CAUSE_BAD_OPERAND = 0x04, /* SETR past r15, a convolution shape it cannot run */
    /* memory (detail: the device address of the access) */
    KVX_CAUSE_NO_MEMORY = 0x05,     /* outside every allocation of the session */
    KVX_CAUSE_CMDBUF_ACCESS = 0x06, /* inside a command buffer */
    KVX_CAUSE_VLM_NOT_HELD = 0x07,  /* the on-chip memory, while no handle to it is held */
    KVX_CAUSE_VLM_USAGE = 0x08,     /* past the bytes SC_PARAM_VLM_USAGE declared */
    KVX_CAUSE_VLM_CONTEXT = 0x09,   /* detail: the context; packed users of the VLM disagree */
    /* limits (detail: the ip time in microseconds) */
    KVX_CAUSE_HARD_LIMIT = 0x10,
    KVX_CAUSE_SOFT_LIMIT = 0x11,
    KVX_CAUSE_WORK_LIMIT = 0x12, /* detail: byte offset of the instruction; KVX_MODEL_WORK_LIMIT */
    /* command buffers (detail: the buffer's index in the sub-command) */
    KVX_CAUSE_NO_MARKER = 0x20,      /* detail: the word found instead of "PLAY" */
    KVX_CAUSE_MISSING_BUFFER = 0x21, /* an index names no attached buffer */
    KVX_CAUSE_DIRECTION = 0x22,      /* attached in another direction than its record needs */
    KVX_CAUSE_BUFFER_SIZE = 0x23,    /* shorter than its record */
    KVX_CAUSE_INDEX_CLASH = 0x24,    /* two records in one buffer */
    KVX_CAUSE_UNNAMED_BUFFER = 0x25, /* attached, but no record names it */
    KVX_CAUSE_PLAYER_FLAG = 0x26,    /* detail: the flag word; neither 0 nor 8..15 */
    KVX_CAUSE_PMU_INFO = 0x27,       /* detail: the index; mode, event count or result size out of range */
    KVX_CAUSE_CODE_OFFSET = 0x28,    /* detail: code_offset; inside a word, or past the code */
    /* the command (detail as named) */
    KVX_CAUSE_UNFLUSHED = 0x30, /* detail: device address of the first host byte not flushed */
    KVX_CAUSE_NO_CORE = 0x31,   /* detail: the affinity mask; no core of the engine in it */
};

enum kvx_runinfo {
    KVX_RUNINFO_CAUSE = 0x100,
    KVX_RUNINFO_DETAIL = 0x101,
};

#endif /* KVX_MODEL_H */
