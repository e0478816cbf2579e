// Engine model: the objects behind the middleware's handles, and the engine
// that runs a built command on its cores.
//
// Contract: run_command refuses to run a command while any host view of the
// session's memory differs from its device view (an unflushed host write).
// Otherwise it runs every sub-command as the engine firmware would (its
// buffers read and checked by kvx_firmware), schedules packed sub-commands
// together on cores of their own, writes the result, player and PMU records
// back, leaves each sub-command's run information and cause, and returns 0
// when every sub-command finished. All its sub-commands together take at
// most hook_work_limit() steps of work (work_steps); the instruction that
// would pass them faults with KVX_CAUSE_WORK_LIMIT.
#ifndef KVX_ENGINE_H
#define KVX_ENGINE_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "korvex.h"
#include "kvx_memory.h"

struct korvex_session {
    kvx::device_memory mem;
    uint32_t id;
    uint64_t cycle_counter;                   // the engine's free-running counter
    uint64_t work_left;                       // steps the running command may still take
    std::map<const void*, std::string> names; // trace names of allocations
    std::vector<korvex_cmd*> cmds;
};

// A command buffer attached to a sub-command, in the direction given.
struct attached {
    void* buf;
    int direction;
};

struct korvex_subcmd {
    korvex_cmd* cmd;
    uint32_t id;
    std::vector<attached> bufs;
    std::map<int, uint64_t> params;
    uint64_t ip_us, driver_us, bandwidth;
    uint32_t cause, detail; // of the last run (kvx_model.h)
};

struct korvex_cmd {
    korvex_session* session;
    uint32_t id;
    bool built;
    std::map<int, uint64_t> params;
    std::vector<korvex_subcmd*> subs;
    std::vector<std::pair<korvex_subcmd*, korvex_subcmd*>> packs;
};

namespace kvx
{

int run_command(korvex_cmd* cmd, uint32_t cores);

} // namespace kvx

#endif // KVX_ENGINE_H
