/*
 * korvex middleware interface: the only way to reach the QORA engine.
 *
 * Contract: every call returning int returns 0 on success and non-zero on
 * failure; every call returning a pointer returns NULL on failure. Device
 * memory and command buffers are identified by the host pointer the session
 * handed out. A session owns everything allocated through it.
 *
 * On the device the vendor's header and libkvx_mdw.so.2 replace this header
 * and our engine model; both export the same C-linkage functions.
 */
#ifndef KORVEX_H
#define KORVEX_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct korvex_session korvex_session_t;
typedef struct korvex_cmd korvex_cmd_t;
typedef struct korvex_subcmd korvex_subcmd_t;

typedef enum korvex_device_type {
    KORVEX_DEVICE_QORA = 2,
} korvex_device_type;

typedef enum korvex_mem_type {
    KORVEX_MEM_TYPE_DRAM = 0,
    KORVEX_MEM_TYPE_VLM = 1,
} korvex_mem_type;

typedef enum korvex_mem_info {
    KORVEX_MEM_INFO_GET_SIZE = 0,
    KORVEX_MEM_INFO_GET_DEVICE_VA = 1,
} korvex_mem_info;

typedef enum korvex_mem_flag {
    KORVEX_MEM_CACHEABLE = 0,
    KORVEX_MEM_32BIT = 1,
    KORVEX_MEM_HIGHADDR = 2,
} korvex_mem_flag;

typedef enum korvex_cb_direction {
    KORVEX_CB_BIDIRECTIONAL = 0,
    KORVEX_CB_IN = 1,
    KORVEX_CB_OUT = 2,
} korvex_cb_direction;

typedef enum korvex_cmd_param_type {
    CMD_PARAM_HARDLIMIT = 1,
    CMD_PARAM_SOFTLIMIT = 2,
    CMD_PARAM_POWERPOLICY = 5,
    CMD_PARAM_DELAY_POWER_OFF_MS = 6,
} korvex_cmd_param_type;

typedef enum korvex_power_policy {
    KORVEX_POWERPOLICY_PERFORMANCE = 2,
} korvex_power_policy;

typedef enum korvex_subcmd_param_type {
    SC_PARAM_BOOST_VALUE = 0,
    SC_PARAM_VLM_USAGE = 3,
    SC_PARAM_VLM_CTX = 5,
    SC_PARAM_TURBO_BOOST = 6,
    SC_PARAM_CORE_AFFINITY = 10,
} korvex_subcmd_param_type;

typedef enum korvex_subcmd_runinfo_type {
    SC_RUNINFO_IPTIME = 0,
    SC_RUNINFO_DRIVERTIME = 1,
    SC_RUNINFO_BANDWIDTH = 4,
} korvex_subcmd_runinfo_type;

korvex_session_t* korvexSession_createInstance(void);
int korvexSession_deleteInstance(korvex_session_t* session);
uint64_t korvexSession_queryDeviceNum(korvex_session_t* session, korvex_device_type type);

void* korvexSession_memAlloc(korvex_session_t* session, unsigned int size, unsigned int align, korvex_mem_type type,
                             uint64_t flags);
int korvexSession_memFree(korvex_session_t* session, void* host_ptr);
uint64_t korvexSession_memGetInfoFromHostPtr(korvex_session_t* session, void* host_ptr, korvex_mem_info info);
int korvexSession_memFlush(korvex_session_t* session, void* host_ptr);
int korvexSession_memInvalidate(korvex_session_t* session, void* host_ptr);

void* korvexSession_cmdBufAlloc(korvex_session_t* session, uint32_t size, uint32_t align);
int korvexSession_cmdBufFree(korvex_session_t* session, void* cmd_buf);

korvex_cmd_t* korvexSession_createCmd(korvex_session_t* session);
int korvexSession_deleteCmd(korvex_session_t* session, korvex_cmd_t* cmd);

int korvexCmd_setParam(korvex_cmd_t* cmd, korvex_cmd_param_type type, uint64_t value);
korvex_subcmd_t* korvexCmd_createSubcmd(korvex_cmd_t* cmd, korvex_device_type type);
int korvexCmd_setDependencyPack(korvex_cmd_t* cmd, korvex_subcmd_t* first, korvex_subcmd_t* second);
int korvexCmd_build(korvex_cmd_t* cmd);
int korvexCmd_run(korvex_cmd_t* cmd);

int korvexSubCmd_setParam(korvex_subcmd_t* subcmd, korvex_subcmd_param_type type, uint64_t value);
int korvexSubCmd_addCmdBuf(korvex_subcmd_t* subcmd, void* cmd_buf, korvex_cb_direction direction);
uint64_t korvexSubCmd_getRunInfo(korvex_subcmd_t* subcmd, korvex_subcmd_runinfo_type type);

#ifdef __cplusplus
}
#endif

#endif /* KORVEX_H */
