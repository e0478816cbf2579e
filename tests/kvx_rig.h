// A test rig for the engine model through its C interface: a session, DRAM
// buffers, and sub-commands with the command buffers the firmware reads,
// laid out as the player lays them out. Tests change one thing and run.
#ifndef KVX_RIG_H
#define KVX_RIG_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "korvex.h"
#include "kvx_asm.h"
#include "kvx_model.h"
#include "qora_cmd.h"

// One sub-command's command buffers, in the player's attach order.
struct kvx_bundle {
    qora_cmd_info* info;
    qora_cmd_result* res;
    uint32_t* code;
    qora_player_info* player;
    qora_pmu_info* pmu;
    qora_pmu_info_out* pmu_out;
    uint32_t* pmu_buf;
    // What gets attached, in order: buffer and direction.
    std::vector<std::pair<void*, korvex_cb_direction>> attach;
};

// How one run ended, per sub-command.
struct kvx_outcome {
    int run;
    std::vector<uint64_t> cause, detail, ip_us, driver_us, bandwidth;
};

class kvx_rig
{
public:
    // A session of an engine with `cores` cores, and the hook `hook` set to
    // `value` (when not null): the hooks are read from the environment here.
    explicit kvx_rig(uint32_t cores = 2, const char* hook = "", const char* value = nullptr)
    {
        setenv("KVX_MODEL_CORES", std::to_string(cores).c_str(), 1);
        if (value != nullptr)
            setenv(hook, value, 1);
        s = korvexSession_createInstance();
        unsetenv("KVX_MODEL_CORES");
        if (value != nullptr)
            unsetenv(hook);
    }
    ~kvx_rig() { korvexSession_deleteInstance(s); }
    kvx_rig(const kvx_rig&) = delete;
    kvx_rig& operator=(const kvx_rig&) = delete;

    // A flushed DRAM buffer holding `size` bytes of `fill`.
    uint8_t* dram(uint32_t size, uint8_t fill = 0)
    {
        uint8_t* p = (uint8_t*)korvexSession_memAlloc(s, size, 4096, KORVEX_MEM_TYPE_DRAM, 2);
        memset(p, fill, size);
        korvexSession_memFlush(s, p);
        return p;
    }
    uint32_t va(const void* p) const
    {
        return (uint32_t)korvexSession_memGetInfoFromHostPtr(s, (void*)p, KORVEX_MEM_INFO_GET_DEVICE_VA);
    }
    // The address word of a buffer, as the player relocates it.
    uint32_t unit(const void* p, uint32_t offset = 0) const { return (va(p) + offset) >> 4; }

    // The command buffers of one sub-command running `code`, flushed; with
    // `pmu_events` >= 0 also the PMU buffers in normal (or flusher) mode.
    kvx_bundle bundle(const std::vector<uint32_t>& code, int pmu_events = -1, bool flusher = false)
    {
        kvx_bundle b {};
        b.info = (qora_cmd_info*)cmdbuf(sizeof(qora_cmd_info), 256);
        b.res = (qora_cmd_result*)cmdbuf(sizeof(qora_cmd_result), 256);
        b.code = (uint32_t*)cmdbuf((uint32_t)code.size() * 4, 256);
        b.player = (qora_player_info*)cmdbuf(sizeof(qora_player_info), 256);
        memcpy(b.code, code.data(), code.size() * 4);
        b.info->reserved = QORA_PLAY_MARKER;
        b.info->rsv_1_index = 3;
        b.attach = {{b.info, KORVEX_CB_IN},
                    {b.res, KORVEX_CB_OUT},
                    {b.code, KORVEX_CB_IN},
                    {b.player, KORVEX_CB_BIDIRECTIONAL}};
        if (pmu_events >= 0)
            add_pmu(b, pmu_events, flusher);
        flush(b);
        return b;
    }

    void flush(const kvx_bundle& b)
    {
        for (void* p : {(void*)b.info, (void*)b.res, (void*)b.code, (void*)b.player, (void*)b.pmu, (void*)b.pmu_out,
                        (void*)b.pmu_buf})
            if (p != nullptr)
                korvexSession_memFlush(s, p);
    }

    // Runs one command of the bundles' sub-commands; `packed` packs every
    // later one with the first; `setup` sets parameters before the build.
    template <typename Setup> kvx_outcome run(std::vector<kvx_bundle*> subs, bool packed, Setup setup)
    {
        korvex_cmd_t* cmd = korvexSession_createCmd(s);
        std::vector<korvex_subcmd_t*> list;
        for (kvx_bundle* b : subs) {
            list.push_back(korvexCmd_createSubcmd(cmd, KORVEX_DEVICE_QORA));
            for (const auto& a : b->attach)
                korvexSubCmd_addCmdBuf(list.back(), a.first, a.second);
        }
        for (size_t i = 1; packed && i < list.size(); i++)
            korvexCmd_setDependencyPack(cmd, list[0], list[i]);
        setup(cmd, list);
        korvexCmd_build(cmd);
        kvx_outcome o {korvexCmd_run(cmd), {}, {}, {}, {}, {}};
        for (korvex_subcmd_t* sub : list) {
            o.cause.push_back(korvexSubCmd_getRunInfo(sub, (korvex_subcmd_runinfo_type)KVX_RUNINFO_CAUSE));
            o.detail.push_back(korvexSubCmd_getRunInfo(sub, (korvex_subcmd_runinfo_type)KVX_RUNINFO_DETAIL));
            o.ip_us.push_back(korvexSubCmd_getRunInfo(sub, SC_RUNINFO_IPTIME));
            o.driver_us.push_back(korvexSubCmd_getRunInfo(sub, SC_RUNINFO_DRIVERTIME));
            o.bandwidth.push_back(korvexSubCmd_getRunInfo(sub, SC_RUNINFO_BANDWIDTH));
        }
        korvexSession_deleteCmd(s, cmd);
        return o;
    }
    kvx_outcome run(kvx_bundle& b)
    {
        return run({&b}, false, [](korvex_cmd_t*, std::vector<korvex_subcmd_t*>&) {});
    }

    // A zero-filled, flushed command buffer.
    void* cmdbuf(uint32_t size, uint32_t align = 256)
    {
        void* p = korvexSession_cmdBufAlloc(s, size, align);
        korvexSession_memFlush(s, p);
        return p;
    }

    korvex_session_t* s;

private:
    void add_pmu(kvx_bundle& b, int events, bool flusher)
    {
        uint32_t result_size = flusher ? 0xF0000 : 64;
        b.pmu = (qora_pmu_info*)cmdbuf(sizeof(qora_pmu_info), 256);
        b.pmu_out = (qora_pmu_info_out*)cmdbuf(sizeof(qora_pmu_info_out), 256);
        b.pmu_buf = (uint32_t*)cmdbuf(result_size, 0x100000);
        b.pmu->result_buf_size = result_size;
        b.pmu->pmu_mode = flusher ? 1 : 0;
        b.pmu->number_of_event = (uint8_t)events;
        b.info->pmu_info_index = 4;
        b.info->pmu_info_out_index = 5;
        b.info->pmu_result_index = 6;
        b.attach.push_back({b.pmu, KORVEX_CB_IN});
        b.attach.push_back({b.pmu_out, KORVEX_CB_OUT});
        b.attach.push_back({b.pmu_buf, KORVEX_CB_OUT});
    }
};

// Code words: SETR of one register.
inline std::vector<uint32_t> kvx_set(uint32_t reg, uint32_t value)
{
    return {kvx_asm_setr(reg, 1), value};
}

// Code that fills `bytes` bytes at device address `va`, then ends: 3
// instructions and bytes / 32 cycles of writing.
inline std::vector<uint32_t> kvx_fill(uint32_t va, uint32_t bytes)
{
    return {kvx_asm_setr(0, 2), va >> 4, bytes, kvx_asm_regs(KVX_OP_FILL, 0, 1, 1, 0), kvx_asm_end()};
}

#endif // KVX_RIG_H
