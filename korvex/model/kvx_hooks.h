// Engine model: test hooks, read from the environment at every
// korvexSession_createInstance, and the call trace.
//
//   KVX_MODEL_CORES=N              engine cores reported and used (default 2)
//   KVX_MODEL_NO_VLM=1             the VLM request fails
//   KVX_MODEL_FAIL=op:N[,op:N...]  the N-th call of op fails and changes nothing
//   KVX_MODEL_TRACE=path           one line per call appended to path
#ifndef KVX_HOOKS_H
#define KVX_HOOKS_H

#include <cstdint>
#include <string>

namespace kvx {

void hooks_reload();
uint32_t hook_cores();
bool hook_no_vlm();
// Counts a call of `op`; true when this call is to fail.
bool hook_fail(const char* op);

bool tracing();
// Appends "<op>(<args>) = <result>" to the trace file.
void trace_call(const char* op, const std::string& args, const std::string& result);

// Names for the trace: "<kind>#<n>", or "null".
std::string handle_name(const char* kind, uint32_t id, const void* handle);

} // namespace kvx

#endif // KVX_HOOKS_H
