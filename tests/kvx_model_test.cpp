// The engine model through its C interface: coherency, strictness, the
// instruction set against plain reference loops, faults and limits.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "korvex.h"
#include "qora_cmd.h"

namespace {

uint32_t setr(uint32_t reg)
{
    return 0x0202 | reg << 16;
}
uint32_t op4(uint32_t opcode, uint32_t a, uint32_t b, uint32_t c, uint32_t d = 0)
{
    return opcode | 0x100 | (a | b << 4 | c << 8 | d << 12) << 16;
}
const uint32_t kMove = 3, kFill = 4, kConv = 7, kFlow = 8;

// A session with the command records one sub-command needs.
struct model {
    korvex_session_t* s = korvexSession_createInstance();
    qora_cmd_info* info = (qora_cmd_info*)korvexSession_cmdBufAlloc(s, 32, 256);
    qora_cmd_result* res = (qora_cmd_result*)korvexSession_cmdBufAlloc(s, 16, 256);
    qora_player_info* player = (qora_player_info*)korvexSession_cmdBufAlloc(s, 36, 256);
    ~model() { korvexSession_deleteInstance(s); }

    void* alloc(uint32_t size) { return korvexSession_memAlloc(s, size, 4096, KORVEX_MEM_TYPE_DRAM, 2); }
    uint32_t unit(void* p) { return (uint32_t)korvexSession_memGetInfoFromHostPtr(s, p, KORVEX_MEM_INFO_GET_DEVICE_VA) >> 4; }

    // Runs `code` as one sub-command; the run's result.
    int run(const std::vector<uint32_t>& code, uint64_t hard_limit = 0)
    {
        uint32_t* buf = (uint32_t*)korvexSession_cmdBufAlloc(s, (uint32_t)code.size() * 4, 256);
        memcpy(buf, code.data(), code.size() * 4);
        info->reserved = QORA_PLAY_MARKER;
        info->rsv_1_index = 3;
        for (void* b : {(void*)info, (void*)res, (void*)buf, (void*)player})
            korvexSession_memFlush(s, b);
        korvex_cmd_t* cmd = korvexSession_createCmd(s);
        if (hard_limit != 0)
            korvexCmd_setParam(cmd, CMD_PARAM_HARDLIMIT, hard_limit);
        korvex_subcmd_t* sub = korvexCmd_createSubcmd(cmd, KORVEX_DEVICE_QORA);
        korvexSubCmd_addCmdBuf(sub, info, KORVEX_CB_IN);
        korvexSubCmd_addCmdBuf(sub, res, KORVEX_CB_OUT);
        korvexSubCmd_addCmdBuf(sub, buf, KORVEX_CB_IN);
        korvexSubCmd_addCmdBuf(sub, player, KORVEX_CB_BIDIRECTIONAL);
        korvexCmd_build(cmd);
        int r = korvexCmd_run(cmd);
        ip_us = korvexSubCmd_getRunInfo(sub, SC_RUNINFO_IPTIME);
        korvexSession_deleteCmd(s, cmd);
        korvexSession_cmdBufFree(s, buf);
        return r;
    }
    uint64_t ip_us = 0;
};

TEST(EngineModel, EngineSeesOnlyFlushedWritesAndHostSeesEngineWrites)
{
    model m;
    uint8_t* src = (uint8_t*)m.alloc(64);
    uint8_t* dst = (uint8_t*)m.alloc(64);
    memset(src, 0x5A, 64);
    std::vector<uint32_t> copy = {setr(0), m.unit(dst), setr(1), m.unit(src), setr(2), 64, op4(kMove, 0, 1, 2), 0};
    ASSERT_EQ(m.run(copy), 0);
    EXPECT_EQ(dst[0], 0) << "an unflushed write reached the engine";
    korvexSession_memFlush(m.s, src);
    ASSERT_EQ(m.run(copy), 0);
    EXPECT_EQ(dst[63], 0x5A) << "the engine's write is not visible to the host";
    src[0] = 1;
    korvexSession_memInvalidate(m.s, src);
    EXPECT_EQ(src[0], 0x5A) << "invalidate keeps an unflushed host write";
}

TEST(EngineModel, StrictAboutHandlesAndOrder)
{
    model m;
    model other;
    void* mem = m.alloc(16);
    korvex_cmd_t* cmd = korvexSession_createCmd(m.s);
    korvex_cmd_t* foreign = korvexSession_createCmd(other.s);
    korvex_subcmd_t* sub = korvexCmd_createSubcmd(cmd, KORVEX_DEVICE_QORA);
    korvex_subcmd_t* foreign_sub = korvexCmd_createSubcmd(foreign, KORVEX_DEVICE_QORA);
    void* vlm = korvexSession_memAlloc(m.s, 0, 0, KORVEX_MEM_TYPE_VLM, 0);
    EXPECT_EQ(korvexSession_memGetInfoFromHostPtr(m.s, vlm, KORVEX_MEM_INFO_GET_DEVICE_VA), 0x1D900000u);
    const struct {
        const char* what;
        bool refused;
    } cases[] = {
        {"second VLM holder", korvexSession_memAlloc(m.s, 0, 0, KORVEX_MEM_TYPE_VLM, 0) == nullptr},
        {"VLM with a size", korvexSession_memAlloc(other.s, 16, 0, KORVEX_MEM_TYPE_VLM, 0) == nullptr},
        {"unknown session", korvexSession_deleteInstance((korvex_session_t*)&mem) != 0},
        {"memory freed as a command buffer", korvexSession_cmdBufFree(m.s, mem) != 0},
        {"unknown device type", korvexCmd_createSubcmd(cmd, (korvex_device_type)1) == nullptr},
        {"unknown parameter", korvexSubCmd_setParam(sub, (korvex_subcmd_param_type)99, 1) != 0},
        {"unknown command parameter", korvexCmd_setParam(cmd, (korvex_cmd_param_type)3, 1) != 0},
        {"null command buffer", korvexSubCmd_addCmdBuf(sub, nullptr, KORVEX_CB_IN) != 0},
        {"memory as a command buffer", korvexSubCmd_addCmdBuf(sub, mem, KORVEX_CB_IN) != 0},
        {"pack across commands", korvexCmd_setDependencyPack(cmd, sub, foreign_sub) != 0},
        {"run before build", korvexCmd_run(cmd) != 0},
        {"first build", korvexCmd_build(cmd) == 0},
        {"second build", korvexCmd_build(cmd) != 0},
        {"sub-command after build", korvexCmd_createSubcmd(cmd, KORVEX_DEVICE_QORA) == nullptr},
        {"parameter after build", korvexSubCmd_setParam(sub, SC_PARAM_BOOST_VALUE, 1) != 0},
        {"first free", korvexSession_memFree(m.s, mem) == 0},
        {"double free", korvexSession_memFree(m.s, mem) != 0},
        {"delete with the wrong session", korvexSession_deleteCmd(other.s, cmd) != 0},
    };
    for (const auto& c : cases)
        EXPECT_TRUE(c.refused) << c.what;
}

TEST(EngineModel, DramAvoidsTheOnChipWindow)
{
    model m;
    uint32_t last_end = 0;
    for (uint32_t size : {100u, 0x100000u, 1u, 4096u}) {
        void* p = korvexSession_memAlloc(m.s, size, 0x100000, KORVEX_MEM_TYPE_DRAM, 2);
        ASSERT_NE(p, nullptr);
        uint32_t va = m.unit(p) << 4;
        EXPECT_EQ(va % 0x100000, 0u);
        EXPECT_GE(va, last_end) << "allocations overlap";
        EXPECT_TRUE(va + size <= 0x1D800000u || va >= 0x1E000000u) << std::hex << va;
        last_end = va + size;
    }
}

// The convolution against the plain definition: NHWC uint8 input, int8
// weights [cout][kh][kw][cin], int32 bias, rounding shift, zero points.
TEST(EngineModel, ConvolutionMatchesItsDefinition)
{
    const int H = 7, W = 6, CIN = 3, COUT = 4, K = 3, STRIDE = 2, PAD = 1, SHIFT = 9, IN_ZP = 7, OUT_ZP = 3;
    const int32_t MULT = 181;
    const int OH = (H + 2 * PAD - K) / STRIDE + 1, OW = (W + 2 * PAD - K) / STRIDE + 1;
    std::mt19937 rng(3);
    model m;
    uint8_t* in = (uint8_t*)m.alloc(H * W * CIN);
    int8_t* wt = (int8_t*)m.alloc(COUT * K * K * CIN);
    int32_t* bias = (int32_t*)m.alloc(4 * COUT);
    uint8_t* out = (uint8_t*)m.alloc(OH * OW * COUT);
    for (int i = 0; i < H * W * CIN; i++)
        in[i] = (uint8_t)rng();
    for (int i = 0; i < COUT * K * K * CIN; i++)
        wt[i] = (int8_t)rng();
    for (int i = 0; i < COUT; i++)
        bias[i] = (int32_t)(rng() % 2001) - 1000;
    for (void* p : {(void*)in, (void*)wt, (void*)bias})
        korvexSession_memFlush(m.s, p);
    std::vector<uint32_t> code = {setr(0), m.unit(in), setr(1), m.unit((void*)wt), setr(2), m.unit(bias),
                                  setr(3), m.unit(out), setr(8), H | W << 16, setr(9), CIN | COUT << 16,
                                  setr(10), K | K << 8 | STRIDE << 16 | PAD << 24, setr(11), (uint32_t)MULT,
                                  setr(12), SHIFT | IN_ZP << 8 | OUT_ZP << 16, op4(kConv, 0, 1, 2, 3), 0};
    ASSERT_EQ(m.run(code), 0);
    for (int oy = 0; oy < OH; oy++)
        for (int ox = 0; ox < OW; ox++)
            for (int co = 0; co < COUT; co++) {
                int64_t acc = bias[co];
                for (int ky = 0; ky < K; ky++)
                    for (int kx = 0; kx < K; kx++)
                        for (int ci = 0; ci < CIN; ci++) {
                            int y = oy * STRIDE + ky - PAD, x = ox * STRIDE + kx - PAD;
                            int v = (y < 0 || x < 0 || y >= H || x >= W) ? IN_ZP : in[(y * W + x) * CIN + ci];
                            acc += (int64_t)(v - IN_ZP) * wt[((co * K + ky) * K + kx) * CIN + ci];
                        }
                int64_t q = ((acc * MULT + (1 << (SHIFT - 1))) >> SHIFT) + OUT_ZP;
                q = q < 0 ? 0 : q > 255 ? 255 : q;
                ASSERT_EQ(out[(oy * OW + ox) * COUT + co], q) << oy << "," << ox << "," << co;
            }
}

TEST(EngineModel, FaultsAndLimitsAreReported)
{
    model m;
    uint8_t* buf = (uint8_t*)m.alloc(16 << 20);
    const struct {
        const char* what;
        std::vector<uint32_t> code;
        uint64_t hard_limit_ms;
        uint32_t flow_id, irq;
    } cases[] = {
        {"unknown opcode", {0x1F7, 0}, 0, 0, 0x8001},
        {"no end", {0x101}, 0, 0, 0x8001},
        {"access outside memory", {setr(0), 0x100, setr(2), 16, op4(kFill, 0, 1, 2), 0}, 0, 0, 0x8001},
        {"last finished flow", {kFlow | 0x100 | 5 << 16, 0x1F7}, 0, 5, 0x8001},
        // 48 MiB written at 32 bytes a cycle and 1000 MHz: 1.5 ms
        {"hard limit", {setr(0), m.unit(buf), setr(2), 16 << 20, op4(kFill, 0, 1, 2), op4(kFill, 0, 1, 2),
                        op4(kFill, 0, 1, 2), 0}, 1, 0, 0x8002},
    };
    for (const auto& c : cases) {
        EXPECT_NE(m.run(c.code, c.hard_limit_ms), 0) << c.what;
        EXPECT_EQ(m.res->hw_error_msg, c.irq) << c.what;
        EXPECT_EQ(m.res->code_out_flow_id, c.flow_id) << c.what;
    }
}

} // namespace
