// Engine model: the objects behind the middleware's handles, and the engine
// that runs a built command on its cores.
//
// Contract: run_command runs every sub-command of a built command as the
// engine firmware would (command information in buffer 0, result record in
// buffer 1, code in buffer 2, player record and PMU buffers found through
// the indices of the command information), writes the records back, and
// returns 0 when every sub-command finished.
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
    uint64_t cycle_counter;                    // the engine's free-running counter
    std::map<const void*, std::string> names; // trace names of allocations
    std::vector<korvex_cmd*> cmds;
};

struct korvex_subcmd {
    korvex_cmd* cmd;
    uint32_t id;
    std::vector<void*> bufs;
    std::map<int, uint64_t> params;
    uint64_t ip_us, driver_us, bandwidth;
};

struct korvex_cmd {
    korvex_session* session;
    uint32_t id;
    bool built;
    std::map<int, uint64_t> params;
    std::vector<korvex_subcmd*> subs;
    std::vector<std::pair<korvex_subcmd*, korvex_subcmd*>> packs;
};

namespace kvx {

// The firmware's view of the command records (little-endian, packed).
struct __attribute__((packed)) fw_cmd_info {
    uint32_t code_offset, reserved, pmu_info_index, pmu_info_out_index, pmu_result_index;
    uint32_t rsv_1_index, rsv_2_index, rsv_3_index;
};
struct __attribute__((packed)) fw_cmd_result {
    uint32_t code_out_flow_id, code_out_core_id, hw_error_msg, out_debug_info_msg;
};
struct __attribute__((packed)) fw_player_info {
    uint32_t arg_core_id, mdw_core_id, flag, out_be_preempted_cnt;
    uint32_t out_prepare_us, out_waiting_us, out_blocked_us, out_execute_us, out_post_proc_us;
};
struct __attribute__((packed)) fw_pmu_info {
    uint32_t result_buf_size;
    uint8_t pmu_mode, number_of_event;
    uint16_t event[14];
};
struct __attribute__((packed)) fw_pmu_info_out {
    uint32_t qora_freq;
    uint8_t burst_mode, rsv;
};

const uint32_t kPlayMarker = 0x59414C50; // "PLAY"
const uint32_t kIrqFault = 0x8001;       // the code faulted
const uint32_t kIrqHardLimit = 0x8002;   // the run passed its hard limit
const uint32_t kIrqBadCommand = 0x8003;  // unreadable command information

int run_command(korvex_cmd* cmd, uint32_t cores);

} // namespace kvx

#endif // KVX_ENGINE_H
