// Command layer: the command buffers of each code buffer, the relocated code
// and the records the engine firmware reads.
#include <cstring>

#include "qora_cmd.h"
#include "qora_pattern.h"
#include "qora_utils.h"

int qoraCmd::PrepareCmdBuf()
{
    for (uint32_t c = 0; c < m_ptn->get_pattern_code_num(); c++)
        if (PrepareSubCmdBuf(c) != 0)
            return -1;
    return 0;
}

// Allocates one command buffer; reports `what` and returns false on failure.
bool qoraCmd::AllocCmdBuf(void** slot, uint32_t size, const char* what)
{
    *slot = korvexSession_cmdBufAlloc(m_session, size, QORA_CMD_BUF_ALIGN);
    if (*slot == nullptr)
        QORA_LOG_AS("E", "PrepareSubCmdBuf", "alloc command buffer (%s) fail\n", what);
    return *slot != nullptr;
}

// Writes the device addresses of the bindings into the copied code. A
// binding whose word lies outside the code buffer is not written: the
// pattern file chose the offset, and the command buffer ends there.
void qoraCmd::RelocateCode(uint32_t index, uint32_t* code, uint32_t code_size, binding* table, uint32_t count)
{
    for (uint32_t i = 0; i < count && i < MAX_NUM; i++) {
        binding* b = &table[i];
        if (b->data == nullptr)
            continue;
        if (is_vlm_address(b->dev_va) && m_vlm_addr != 0)
            b->dev_va = m_vlm_addr;
        uint32_t word = b->ofs & 0xFFFFFFFCu;
        if ((uint64_t)word + 4 > code_size) {
            QORA_LOG_AS("W", "PrepareSubCmdBuf", "codebuf %u: binding ofs 0x%x outside code size 0x%x\n", index, b->ofs,
                        code_size);
            continue;
        }
        uint32_t target = b->dev_va + b->shift;
        code[word / 4] = target >> 4;
        if (m_debug_lv & QORA_DEBUG_MEM)
            QORA_LOG_AS("D", "PrepareSubCmdBuf", "codebuf ofs 0x%x = 0x%x\n", b->ofs, target);
    }
}

int qoraCmd::PrepareSubCmdBuf(uint32_t index)
{
    buffer* code = m_ptn->get_pattern_codebuf(index);
    binding* table = m_ptn->get_pattern_binding(index);
    uint32_t count = m_ptn->get_pattern_binding_num(index);
    qora_cmd* cmd = new qora_cmd();
    cmd_list.push_back(cmd); // the destructor frees whatever gets allocated into it
    if (code == nullptr || table == nullptr) {
        QORA_LOGE("get codebuf/bind fail\n");
        return -1;
    }
    if (!AllocCmdBuf((void**)&cmd->info, sizeof(qora_cmd_info), "command information") ||
        !AllocCmdBuf((void**)&cmd->res, sizeof(qora_cmd_result), "command result") ||
        !AllocCmdBuf((void**)&cmd->player, sizeof(qora_player_info), "player information") ||
        !AllocCmdBuf((void**)&cmd->buf, code->size, "codebuf"))
        return -1;
    if (code->size != 0) // a code buffer whose block was never allocated holds nothing
        memcpy(cmd->buf, code->data, code->size);
    RelocateCode(index, cmd->buf, code->size, table, count);
    if (PmuEnabled()) {
        if (m_pmu_evt.size() <= QORA_PMU_MAX_EVENT - 1)
            PreparePMUEvents(cmd);
        else
            QORA_LOGW("Warning: The number of PMU events > %d\n", QORA_PMU_MAX_EVENT);
    }
    cmd->info->code_offset = 0;
    cmd->info->reserved = QORA_PLAY_MARKER;
    cmd->info->rsv_1_index = 3;
    cmd->player->flag = 0;
    if (m_prio_lv >= 0) {
        cmd->player->flag = 8 | (uint32_t)(m_prio_lv & 7);
        QORA_LOGD(m_debug_lv, QORA_DEBUG_CMD, "set priority = %d\n", m_prio_lv & 7);
    }
    for (uint32_t* p : m_mem_list)
        korvexSession_memFlush(m_session, p);
    for (uint32_t* p : m_result_list)
        korvexSession_memFlush(m_session, p);
    void* bufs[] = {cmd->info, cmd->res, cmd->buf, cmd->player, cmd->pmu, cmd->pmu_res, cmd->pmu_buf};
    for (void* b : bufs)
        korvexSession_memFlush(m_session, b);
    return 0;
}
