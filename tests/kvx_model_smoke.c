/* The engine model from a plain C program: its headers compile as C and a
 * buffer copy runs. Exits 0 when all is right. (Timings, PMU counts and
 * the instructions are checked in kvx_model_test.cpp and kvx_isa_test.cpp.) */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "korvex.h"
#include "kvx_asm.h"

#define CHECK(cond)                                                                                                    \
    do {                                                                                                               \
        if (!(cond)) {                                                                                                 \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond);                                                 \
            return 1;                                                                                                  \
        }                                                                                                              \
    } while (0)

static uint32_t unit(korvex_session_t* s, void* p)
{
    return (uint32_t)korvexSession_memGetInfoFromHostPtr(s, p, KORVEX_MEM_INFO_GET_DEVICE_VA) >> 4;
}

static void* dram(korvex_session_t* s, unsigned int size)
{
    return korvexSession_memAlloc(s, size, 4096, KORVEX_MEM_TYPE_DRAM, 2);
}

int main(void)
{
    korvex_session_t* s = korvexSession_createInstance();
    CHECK(s != NULL && korvexSession_queryDeviceNum(s, KORVEX_DEVICE_QORA) == 2);
    uint8_t* src = dram(s, 64);
    uint8_t* dst = dram(s, 64);
    for (int i = 0; i < 64; i++)
        src[i] = (uint8_t)(i * 3);
    /* Every host view reaches the device before a run, outputs too. */
    CHECK(korvexSession_memFlush(s, src) == 0 && korvexSession_memFlush(s, dst) == 0);

    uint32_t code[] = {
        kvx_asm_setr(0, 3), unit(s, dst),  unit(s, src), 64, kvx_asm_regs(KVX_OP_MOVE, 0, 1, 2, 0),
        kvx_asm_flow(1),    kvx_asm_end(),
    };
    uint32_t* info = korvexSession_cmdBufAlloc(s, 32, 256);
    uint32_t* res = korvexSession_cmdBufAlloc(s, 16, 256);
    uint32_t* cb = korvexSession_cmdBufAlloc(s, sizeof(code), 256);
    uint32_t* player = korvexSession_cmdBufAlloc(s, 36, 256);
    memcpy(cb, code, sizeof(code));
    info[1] = 0x59414C50; /* "PLAY" */
    info[5] = 3;          /* the player record's index; no PMU */
    void* cmdbufs[] = {info, res, cb, player};
    korvex_cb_direction dirs[] = {KORVEX_CB_IN, KORVEX_CB_OUT, KORVEX_CB_IN, KORVEX_CB_BIDIRECTIONAL};
    korvex_cmd_t* cmd = korvexSession_createCmd(s);
    korvex_subcmd_t* sub = korvexCmd_createSubcmd(cmd, KORVEX_DEVICE_QORA);
    for (int i = 0; i < 4; i++) {
        CHECK(korvexSession_memFlush(s, cmdbufs[i]) == 0);
        CHECK(korvexSubCmd_addCmdBuf(sub, cmdbufs[i], dirs[i]) == 0);
    }
    CHECK(korvexCmd_build(cmd) == 0);
    CHECK(korvexCmd_run(cmd) == 0);

    CHECK(memcmp(dst, src, 64) == 0);
    CHECK(res[0] == 0 && res[2] == 0);
    CHECK(player[7] >= 1 && korvexSubCmd_getRunInfo(sub, SC_RUNINFO_IPTIME) == player[7]);
    CHECK(korvexSession_deleteCmd(s, cmd) == 0);
    CHECK(korvexSession_deleteInstance(s) == 0);
    puts("engine model smoke test: passed");
    return 0;
}
