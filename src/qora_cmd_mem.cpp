// Command layer: device memory for the data buffers, outputs and on-chip
// memory, and the bindings that carry their device addresses into the code.
#include <cstring>

#include "qora_cmd.h"
#include "qora_pattern.h"
#include "qora_utils.h"

static const uint32_t kDramFlags = 2; // the allocation flags every DRAM buffer gets
static const uint32_t kPageAlign = 4096;

static uint32_t device_va(korvex_session* session, void* p)
{
    return (uint32_t)korvexSession_memGetInfoFromHostPtr(session, p, KORVEX_MEM_INFO_GET_DEVICE_VA);
}

// Every binding of every code buffer whose target is `key`.
static std::vector<binding*> bindings_to(qoraPattern* ptn, const uint8_t* key)
{
    std::vector<binding*> found;
    for (uint32_t c = 0; c < ptn->get_pattern_code_num(); c++) {
        binding* table = ptn->get_pattern_binding(c);
        uint32_t count = ptn->get_pattern_binding_num(c);
        for (uint32_t i = 0; table != nullptr && i < count && i < MAX_NUM; i++)
            if (table[i].data == key)
                found.push_back(&table[i]);
    }
    return found;
}

void qoraCmd::BindDataBuffer(const uint8_t* key, uint32_t dev_va)
{
    for (binding* b : bindings_to(m_ptn, key))
        b->dev_va = dev_va;
}

// The output's device buffer is the one allocated last.
void qoraCmd::BindOutput(const uint8_t* key, uint32_t size)
{
    for (binding* b : bindings_to(m_ptn, key)) {
        b->dev_va = device_va(m_session, m_result_list.back());
        if (m_debug_lv & QORA_DEBUG_MEM)
            QORA_LOG_AS("D", "AllocDataMem", "output_buf: dev va = 0x%08x size = %d\n", b->dev_va, size);
    }
}

int qoraCmd::AllocDataMem()
{
    buffer* data = m_ptn->get_pattern_data();
    uint32_t data_num = m_ptn->get_pattern_data_num();
    uint32_t out_num = m_ptn->get_pattern_output_num();
    if (data == nullptr) {
        QORA_LOGE("get data buf fail\n");
        return -1;
    }
    if (out_num == 0) {
        QORA_LOGE("Pattern has no output information\n");
        return -1;
    }
    if (m_session == nullptr) {
        QORA_LOGE("No korvex session!\n");
        return -1;
    }
    if (korvexSession_queryDeviceNum(m_session, KORVEX_DEVICE_QORA) == 0) {
        QORA_LOGE("no qora device registered!\n");
        korvexSession_deleteInstance(m_session); // the destructor deletes it again, as it always has
        return -1;
    }
    for (uint32_t i = 0; i < data_num && i < MAX_DATA_NUM; i++) {
        buffer* b = &data[i];
        void* p = korvexSession_memAlloc(m_session, b->size, kPageAlign, KORVEX_MEM_TYPE_DRAM, kDramFlags);
        if (p == nullptr) {
            QORA_LOGE("alloc %s FAIL\n", b->data_addr_str);
            return -1;
        }
        if (b->is_tmp != 0)
            memset(p, 0, b->size);
        else if (b->size != 0)
            memcpy(p, b->data, b->size);
        b->dev_va = device_va(m_session, p);
        BindDataBuffer(b->data, b->dev_va);
        QORA_LOGD(m_debug_lv, QORA_DEBUG_MEM, "%s: dev va = 0x%08x sz = %u\n", b->data_addr_str, b->dev_va,
                  (uint32_t)korvexSession_memGetInfoFromHostPtr(m_session, p, KORVEX_MEM_INFO_GET_SIZE));
        m_mem_list.push_back((uint32_t*)p);
    }
    for (uint32_t o = 0; o < out_num; o++) {
        uint8_t* key = m_ptn->get_pattern_output(o);
        uint32_t size = m_ptn->get_pattern_output_size(o);
        void* p = korvexSession_memAlloc(m_session, size, kPageAlign, KORVEX_MEM_TYPE_DRAM, kDramFlags);
        if (p == nullptr) {
            QORA_LOGE("alloc output_buf %d FAIL\n", o);
            return -1;
        }
        memset(p, 0xA5, size);
        m_result_list.push_back((uint32_t*)p);
        BindOutput(key, size); // outputs win over data buffers
    }
    return 0;
}

// Whether any code buffer relocates into the on-chip local memory.
bool qoraCmd::UsesVLM()
{
    for (uint32_t c = 0; c < m_ptn->get_pattern_code_num(); c++) {
        binding* table = m_ptn->get_pattern_binding(c);
        if (table == nullptr)
            return false;
        uint32_t count = m_ptn->get_pattern_binding_num(c);
        for (uint32_t i = 0; i < count && i < MAX_NUM; i++)
            if (table[i].data != nullptr && is_vlm_address(table[i].dev_va))
                return true;
    }
    return false;
}

void qoraCmd::AllocVLM()
{
    if (m_ptn->get_pattern_code_num() == 0 || !UsesVLM() || m_vlm_disable)
        return;
    m_vlm_handle = korvexSession_memAlloc(m_session, 0, 0, KORVEX_MEM_TYPE_VLM, 0);
    if (m_vlm_handle != nullptr)
        m_vlm_addr = device_va(m_session, m_vlm_handle);
    if (m_vlm_addr != 0)
        return;
    QORA_LOGW("get vlm fail!!\n");
    void* p = korvexSession_memAlloc(m_session, QORA_VLM_SIZE, kPageAlign, KORVEX_MEM_TYPE_DRAM, kDramFlags);
    if (p == nullptr) {
        QORA_LOGE("alloc share mem FAIL\n");
        return;
    }
    m_vlm_addr = device_va(m_session, p);
    m_mem_list.push_back((uint32_t*)p);
}
