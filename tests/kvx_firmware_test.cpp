// The firmware's reading of the command buffers: each rule, broken by one
// change to the buffers as the player lays them out, refuses the
// sub-command with its own cause and detail.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>

#include "kvx_firmware.h"
#include "kvx_rig.h"

namespace
{

// The player's records and the firmware's are one binary interface, defined
// twice: every size and field offset must agree, or this does not compile.
#define SAME_LAYOUT(player, firmware, checks)                                                                          \
    namespace player##_layout                                                                                          \
    {                                                                                                                  \
        using P = player;                                                                                              \
        using F = kvx::firmware;                                                                                       \
        static_assert(sizeof(P) == sizeof(F) && checks, #player " differs from " #firmware);                           \
    }
#define SAME(field) (offsetof(P, field) == offsetof(F, field))
SAME_LAYOUT(qora_cmd_info, fw_cmd_info,
            SAME(code_offset) && SAME(reserved) && SAME(pmu_info_index) && SAME(pmu_info_out_index) &&
                SAME(pmu_result_index) && SAME(rsv_1_index) && SAME(rsv_2_index) && SAME(rsv_3_index))
SAME_LAYOUT(qora_cmd_result, fw_cmd_result,
            SAME(code_out_flow_id) && SAME(code_out_core_id) && SAME(hw_error_msg) && SAME(out_debug_info_msg))
SAME_LAYOUT(qora_player_info, fw_player_info,
            SAME(arg_core_id) && SAME(mdw_core_id) && SAME(flag) && SAME(out_be_preempted_cnt) &&
                SAME(out_prepare_us) && SAME(out_waiting_us) && SAME(out_blocked_us) && SAME(out_execute_us) &&
                SAME(out_post_proc_us))
SAME_LAYOUT(qora_pmu_info, fw_pmu_info, SAME(result_buf_size) && SAME(pmu_mode) && SAME(number_of_event) && SAME(event))
SAME_LAYOUT(qora_pmu_info_out, fw_pmu_info_out, SAME(qora_freq) && SAME(burst_mode) && SAME(rsv))
SAME_LAYOUT(qora_pmu_data_burst2, fw_pmu_data_burst2, SAME(cmd_log) && SAME(pmu_end_tstamp) && SAME(pmu_cnt))
SAME_LAYOUT(qora_pmu_data_burst4, fw_pmu_data_burst4, SAME(cmd_log) && SAME(pmu_end_tstamp) && SAME(pmu_cnt))
static_assert(QORA_PLAY_MARKER == kvx::kPlayMarker && QORA_PMU_MAX_EVENT == kvx::kMaxPmuEvents, "shared constants");

using change = std::function<void(kvx_rig&, kvx_bundle&)>;

struct firmware_case {
    const char* what;
    change broken;
    uint32_t cause, detail;
};

// Buffer `index` attached the other way `d`, or replaced by one of `size` bytes.
change direction(size_t index, korvex_cb_direction d)
{
    return [=](kvx_rig&, kvx_bundle& b) { b.attach[index].second = d; };
}
change replace(size_t index, uint32_t size)
{
    return [=](kvx_rig& r, kvx_bundle& b) { b.attach[index].first = r.cmdbuf(size); };
}

// A field of the player's layout set to `value`.
#define SET(field, value) [](kvx_rig&, kvx_bundle& b) { b.field = value; }

TEST(EngineFirmware, EachRuleHasItsCause)
{
    const firmware_case cases[] = {
        {"as the player lays them out", [](kvx_rig&, kvx_bundle&) {}, KVX_CAUSE_NONE, 0},
        {"priority 7", SET(player->flag, 15), KVX_CAUSE_NONE, 0},
        {"information attached as output", direction(0, KORVEX_CB_OUT), KVX_CAUSE_DIRECTION, 0},
        {"result attached as input", direction(1, KORVEX_CB_IN), KVX_CAUSE_DIRECTION, 1},
        {"code attached both ways", direction(2, KORVEX_CB_BIDIRECTIONAL), KVX_CAUSE_DIRECTION, 2},
        {"player record attached as input", direction(3, KORVEX_CB_IN), KVX_CAUSE_DIRECTION, 3},
        {"PMU output attached as input", direction(5, KORVEX_CB_IN), KVX_CAUSE_DIRECTION, 5},
        {"PMU information attached as output", direction(4, KORVEX_CB_OUT), KVX_CAUSE_DIRECTION, 4},
        {"player record in the code", SET(info->rsv_1_index, 2), KVX_CAUSE_INDEX_CLASH, 2},
        {"player record index left 0", SET(info->rsv_1_index, 0), KVX_CAUSE_INDEX_CLASH, 0},
        {"player record not attached", SET(info->rsv_1_index, 9), KVX_CAUSE_MISSING_BUFFER, 9},
        {"only three buffers", [](kvx_rig&, kvx_bundle& b) { b.attach.resize(3); }, KVX_CAUSE_MISSING_BUFFER, 3},
        {"information too short", replace(0, 16), KVX_CAUSE_BUFFER_SIZE, 0},
        {"result too short", replace(1, 12), KVX_CAUSE_BUFFER_SIZE, 1},
        {"player record too short", replace(3, 32), KVX_CAUSE_BUFFER_SIZE, 3},
        {"PMU information too short", replace(4, 32), KVX_CAUSE_BUFFER_SIZE, 4},
        {"PMU output too short", replace(5, 5), KVX_CAUSE_BUFFER_SIZE, 5},
        {"PMU result too short for a record", replace(6, 32), KVX_CAUSE_BUFFER_SIZE, 6},
        {"no marker", SET(info->reserved, 0x12345678), KVX_CAUSE_NO_MARKER, 0x12345678},
        {"code offset inside a word", SET(info->code_offset, 1), KVX_CAUSE_CODE_OFFSET, 1},
        {"code offset past the code", SET(info->code_offset, 4), KVX_CAUSE_CODE_OFFSET, 4},
        {"PMU information in the player record", SET(info->pmu_info_index, 3), KVX_CAUSE_INDEX_CLASH, 3},
        {"two PMU records in one buffer", SET(info->pmu_info_out_index, 4), KVX_CAUSE_INDEX_CLASH, 4},
        {"one PMU index left 0", SET(info->pmu_result_index, 0), KVX_CAUSE_INDEX_CLASH, 0},
        {"PMU buffers attached, PMU off",
         [](kvx_rig&, kvx_bundle& b) {
             b.info->pmu_info_index = b.info->pmu_info_out_index = b.info->pmu_result_index = 0;
         },
         KVX_CAUSE_UNNAMED_BUFFER, 4},
        {"unknown PMU mode", SET(pmu->pmu_mode, 2), KVX_CAUSE_PMU_INFO, 4},
        {"15 PMU events", SET(pmu->number_of_event, 15), KVX_CAUSE_PMU_INFO, 4},
        {"PMU result size past its buffer", SET(pmu->result_buf_size, 65), KVX_CAUSE_PMU_INFO, 6},
        {"PMU result size below a record", SET(pmu->result_buf_size, 63), KVX_CAUSE_PMU_INFO, 6},
        {"player flag without the priority bit", SET(player->flag, 5), KVX_CAUSE_PLAYER_FLAG, 5},
        {"player flag with other bits", SET(player->flag, 0x18), KVX_CAUSE_PLAYER_FLAG, 0x18},
    };
    for (const firmware_case& c : cases) {
        kvx_rig r;
        kvx_bundle b = r.bundle({kvx_asm_end()}, 3);
        c.broken(r, b);
        r.flush(b);
        kvx_outcome o = r.run(b);
        EXPECT_EQ(o.run, c.cause == KVX_CAUSE_NONE ? 0 : -1) << c.what;
        EXPECT_EQ(o.cause[0], c.cause) << c.what;
        EXPECT_EQ(o.detail[0], c.detail) << c.what;
        bool record_written = b.attach[1].first == b.res && b.attach[1].second == KORVEX_CB_OUT;
        EXPECT_EQ(b.res->hw_error_msg, !record_written || c.cause == 0 ? 0 : (KVX_IRQ_BASE | c.cause)) << c.what;
        EXPECT_EQ(b.res->out_debug_info_msg, record_written ? c.detail : 0) << c.what;
    }
}

} // namespace
