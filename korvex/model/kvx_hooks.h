// Engine model: test hooks, read from the environment at every
// korvexSession_createInstance, and the traces.
//
//   KVX_MODEL_CORES=N              engine cores reported and used (default 2)
//   KVX_MODEL_NO_VLM=1             the VLM request fails
//   KVX_MODEL_FAIL=op:N[,op:N...]  the N-th call of op fails and changes nothing
//   KVX_MODEL_DROP=op:N[,op:N...]  the N-th call of op (one returning int)
//                                  returns 0 and does nothing
//   KVX_MODEL_WORK_LIMIT=N         a run of a command takes at most N steps of
//                                  work (work_steps, kvx_isa.h); the
//                                  instruction that would pass them faults
//   KVX_MODEL_TRACE=path           one line per call appended to path
//   KVX_MODEL_ITRACE=path          one line per executed instruction appended
#ifndef KVX_HOOKS_H
#define KVX_HOOKS_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace kvx
{

void hooks_reload();
uint32_t hook_cores();
bool hook_no_vlm();
// Steps of work one run of a command may take; UINT64_MAX when unlimited.
uint64_t hook_work_limit();

enum hook_action { HOOK_NONE, HOOK_FAIL, HOOK_DROP };
// Counts a call of `op`; what this call is to do instead of its work.
hook_action hook_call(const char* op);
// Counts a call of `op`; true when this call is to fail.
bool hook_fail(const char* op);

// True when a call trace is asked for; lets callers skip building lines
// no one reads.
bool tracing();
// Appends "<op>(<args>) = <result>" to the call trace.
void trace_call(const char* op, const std::string& args, const std::string& result);
// The instruction log, opened for appending; null when none is asked.
FILE* open_instruction_log();

// Names for the trace: "<kind>#<n>", or "null".
std::string handle_name(const char* kind, uint32_t id, const void* handle);

} // namespace kvx

#endif // KVX_HOOKS_H
