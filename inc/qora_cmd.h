// Command layer: turns a loaded pattern set into device memory and command
// buffers, runs it through the korvex middleware and checks the outputs.
//
// Contract: one qoraCmd exists per process. It owns its session and every
// device and command buffer, and releases them in its destructor (never on a
// failure path). The pattern set is borrowed. Operations return 0 on success
// and -1 on failure; comparisons return a mismatch count.
//
// The engine records below are a binary interface to the engine firmware:
// little-endian, packed, sizes and offsets fixed.
#ifndef QORA_CMD_H
#define QORA_CMD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "korvex.h"

// One named region of host memory (row layout shared with generated headers).
struct buffer {
    uint8_t* data;
    char* data_addr_str;
    uint32_t size;
    uint32_t dev_va;
    uint32_t is_tmp;
};

// One relocation of a code word (row layout shared with generated headers).
struct binding {
    uint32_t ofs;
    uint8_t* data;
    uint32_t dev_va;
    uint32_t shift;
};

#define QORA_PLAY_MARKER 0x59414C50u // "PLAY" in memory order
#define QORA_PMU_MAX_EVENT 14
#define QORA_CMD_BUF_ALIGN 256  // alignment of the command buffers the player allocates
#define QORA_VLM_SIZE 0x100000u // on-chip memory a sub-command may use

struct __attribute__((packed)) qora_cmd_info {
    uint32_t code_offset;
    uint32_t reserved;
    uint32_t pmu_info_index;
    uint32_t pmu_info_out_index;
    uint32_t pmu_result_index;
    uint32_t rsv_1_index;
    uint32_t rsv_2_index;
    uint32_t rsv_3_index;
};

struct __attribute__((packed)) qora_cmd_result {
    uint32_t code_out_flow_id;
    uint32_t code_out_core_id;
    uint32_t hw_error_msg;
    uint32_t out_debug_info_msg;
};

struct __attribute__((packed)) qora_player_info {
    uint32_t arg_core_id;
    uint32_t mdw_core_id;
    uint32_t flag;
    uint32_t out_be_preempted_cnt;
    uint32_t out_prepare_us;
    uint32_t out_waiting_us;
    uint32_t out_blocked_us;
    uint32_t out_execute_us;
    uint32_t out_post_proc_us;
};

struct __attribute__((packed)) qora_pmu_info {
    uint32_t result_buf_size;
    uint8_t pmu_mode;
    uint8_t number_of_event;
    uint16_t event[QORA_PMU_MAX_EVENT];
};

struct __attribute__((packed)) qora_pmu_info_out {
    uint32_t qora_freq;
    uint8_t burst_mode;
    uint8_t rsv;
};

struct __attribute__((packed)) qora_pmu_data_burst2 {
    uint32_t cmd_log;
    uint32_t pmu_end_tstamp;
    uint32_t pmu_cnt[6];
};

struct __attribute__((packed)) qora_pmu_data_burst4 {
    uint32_t cmd_log;
    uint32_t pmu_end_tstamp;
    uint32_t pmu_cnt[QORA_PMU_MAX_EVENT];
};

static_assert(sizeof(qora_cmd_info) == 32, "qora_cmd_info layout");
static_assert(offsetof(qora_cmd_info, reserved) == 4, "qora_cmd_info layout");
static_assert(offsetof(qora_cmd_info, rsv_1_index) == 20, "qora_cmd_info layout");
static_assert(sizeof(qora_cmd_result) == 16, "qora_cmd_result layout");
static_assert(sizeof(qora_player_info) == 36, "qora_player_info layout");
static_assert(offsetof(qora_player_info, flag) == 8, "qora_player_info layout");
static_assert(offsetof(qora_player_info, out_post_proc_us) == 32, "qora_player_info layout");
static_assert(sizeof(qora_pmu_info) == 34, "qora_pmu_info layout");
static_assert(offsetof(qora_pmu_info, event) == 6, "qora_pmu_info layout");
static_assert(sizeof(qora_pmu_info_out) == 6, "qora_pmu_info_out layout");
static_assert(sizeof(qora_pmu_data_burst2) == 32, "qora_pmu_data_burst2 layout");
static_assert(sizeof(qora_pmu_data_burst4) == 64, "qora_pmu_data_burst4 layout");

// Host-side bundle of one sub-command's command buffers, in attach order.
struct qora_cmd {
    qora_cmd_info* info;
    qora_cmd_result* res;
    uint32_t* buf;
    qora_player_info* player;
    qora_pmu_info* pmu;
    qora_pmu_info_out* pmu_res;
    uint32_t* pmu_buf;
};

class qoraPattern;

// One record of command-buffer pointers per code buffer, in code order. Never
// emptied: only one qoraCmd is made per process.
extern std::vector<qora_cmd*> cmd_list;
// The command of the current run.
extern korvex_cmd_t* korvex_cmd;

// Index of the first 32-bit word at or after `from`, below `words`, where
// `out` and `golden` differ (in the bits `mask` sets, when it is given);
// `words` when there is none.
uint32_t next_mismatch(const uint32_t* out, const uint32_t* golden, const uint32_t* mask, uint32_t from,
                       uint32_t words);

class qoraCmd
{
public:
    qoraCmd(int id, int debug_lv, int prio_lv, qoraPattern* ptn, std::vector<uint16_t>& pmu_evt, int pmu_flusher_mode,
            bool vlm_disable);
    ~qoraCmd();

    int AllocDataMem();
    void AllocVLM();
    int PrepareCmdBuf();
    int RunCmd(int boost, int delay_off, int softlimit, int hardlimit, bool perf_mode);
    int CompareResult();
    void DumpResult(const std::string& name);
    int GetOutCoreID();

private:
    int PrepareSubCmdBuf(uint32_t index);
    int AddSubCmdBuf(uint32_t index, int boost, std::vector<korvex_subcmd*>& subcmd_list);
    int CompareEachOutput(uint32_t index);
    void PreparePMUEvents(qora_cmd* cmd);
    void ShowPMUEventCount(qora_cmd* cmd);
    void BindDataBuffer(const uint8_t* key, uint32_t dev_va);
    void BindOutput(const uint8_t* key, uint32_t size);
    bool PmuEnabled() const;
    uint32_t ResultBufSize() const;
    bool UsesVLM();
    bool AllocCmdBuf(void** slot, uint32_t size, const char* what);
    void RelocateCode(uint32_t index, uint32_t* code, uint32_t code_size, binding* table, uint32_t count);
    void SetBoost(korvex_subcmd* sub, int boost);
    void SetCmdParams(int delay_off, int softlimit, int hardlimit, bool perf_mode);
    void PackSubCmds(std::vector<korvex_subcmd*>& list);
    void ReportSubCmd(qora_cmd* cmd, korvex_subcmd* sub);
    void ShowFlows(qora_cmd* cmd, uint32_t shown, uint32_t freq);

    int m_id;
    int m_debug_lv;
    int m_prio_lv;
    int m_flusher_en;
    uint32_t m_core_mask_cnt;
    std::vector<uint32_t*> m_mem_list;
    std::vector<uint32_t*> m_result_list;
    std::vector<uint16_t> m_pmu_evt;
    void* m_vlm_handle;
    uint32_t m_vlm_addr;
    bool m_vlm_disable;
    korvex_session* m_session;
    qoraPattern* m_ptn;
};

#endif // QORA_CMD_H
