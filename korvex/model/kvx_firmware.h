// Engine model: the firmware's reading of one sub-command's command buffers.
//
// Contract: read_command_buffers checks a sub-command's attached buffers as
// the engine firmware reads them and returns the first violation as a cause
// (kvx_model.h) with its detail, or KVX_CAUSE_NONE. The command information
// is buffer 0 (read), the result record buffer 1 (written), the code buffer
// 2 (read, run from a word-aligned code_offset inside it); rsv_1_index names
// the player record (read and written) and the three PMU indices, all set
// or all 0, name the PMU information (read), its output (written) and the
// result buffer (written). Every index lies inside the attached list and
// names a buffer of at least its record's size, attached in its record's
// direction; no two records share a buffer and every attached buffer holds
// one record. The view keeps what was found, the result record even when a
// later check fails.
#ifndef KVX_FIRMWARE_H
#define KVX_FIRMWARE_H

#include <cstdint>

#include "kvx_memory.h"

struct korvex_subcmd;

namespace kvx
{

// The firmware's records (little-endian, packed).
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
struct __attribute__((packed)) fw_pmu_data_burst2 {
    uint32_t cmd_log, pmu_end_tstamp, pmu_cnt[6];
};
struct __attribute__((packed)) fw_pmu_data_burst4 {
    uint32_t cmd_log, pmu_end_tstamp, pmu_cnt[14];
};

const uint32_t kPlayMarker = 0x59414C50; // "PLAY"
const uint32_t kPlayerFlagPriority = 8;  // flag bit: bits 0-2 hold a priority
const uint32_t kMaxPmuEvents = 14;

// What the firmware found in a sub-command's buffers.
struct fw_view {
    allocation* res; // null when the result record cannot be written
    allocation* code;
    allocation* player;
    allocation* pmu_out; // the PMU buffers: null when the PMU is off
    allocation* pmu_result;
    fw_cmd_info info;
    fw_pmu_info pmu;
    int priority; // -1: none asked
};

uint32_t read_command_buffers(korvex_subcmd* sub, fw_view* view, uint32_t* detail);

} // namespace kvx

#endif // KVX_FIRMWARE_H
