// Placeholder of the engine model: every operation fails (not built yet).
#include "korvex.h"

extern "C" {
korvex_session_t* korvexSession_createInstance(void) { return nullptr; }
int korvexSession_deleteInstance(korvex_session_t*) { return -1; }
uint64_t korvexSession_queryDeviceNum(korvex_session_t*, korvex_device_type) { return 0; }
void* korvexSession_memAlloc(korvex_session_t*, unsigned int, unsigned int, korvex_mem_type, uint64_t) { return nullptr; }
int korvexSession_memFree(korvex_session_t*, void*) { return -1; }
uint64_t korvexSession_memGetInfoFromHostPtr(korvex_session_t*, void*, korvex_mem_info) { return 0; }
int korvexSession_memFlush(korvex_session_t*, void*) { return -1; }
int korvexSession_memInvalidate(korvex_session_t*, void*) { return -1; }
void* korvexSession_cmdBufAlloc(korvex_session_t*, uint32_t, uint32_t) { return nullptr; }
int korvexSession_cmdBufFree(korvex_session_t*, void*) { return -1; }
korvex_cmd_t* korvexSession_createCmd(korvex_session_t*) { return nullptr; }
int korvexSession_deleteCmd(korvex_session_t*, korvex_cmd_t*) { return -1; }
int korvexCmd_setParam(korvex_cmd_t*, korvex_cmd_param_type, uint64_t) { return -1; }
korvex_subcmd_t* korvexCmd_createSubcmd(korvex_cmd_t*, korvex_device_type) { return nullptr; }
int korvexCmd_setDependencyPack(korvex_cmd_t*, korvex_subcmd_t*, korvex_subcmd_t*) { return -1; }
int korvexCmd_build(korvex_cmd_t*) { return -1; }
int korvexCmd_run(korvex_cmd_t*) { return -1; }
int korvexSubCmd_setParam(korvex_subcmd_t*, korvex_subcmd_param_type, uint64_t) { return -1; }
int korvexSubCmd_addCmdBuf(korvex_subcmd_t*, void*, korvex_cb_direction) { return -1; }
uint64_t korvexSubCmd_getRunInfo(korvex_subcmd_t*, korvex_subcmd_runinfo_type) { return 0; }
}
