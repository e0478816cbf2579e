// Engine model: device memory of one session and its coherency.
//
// Contract: every allocation has a host view (the pointer handed to the
// host) and a device view (what the engine reads). flush copies host to
// device, invalidate device to host; the engine's writes reach both views at
// once. DRAM lives in a 32-bit device address space that never touches the
// on-chip window 0x1D800000-0x1DFFFFFF; the VLM is 1 MiB at 0x1D900000,
// always addressable by the engine, handed to one holder at a time.
#ifndef KVX_MEMORY_H
#define KVX_MEMORY_H

#include <cstdint>
#include <map>
#include <vector>

namespace kvx {

const uint32_t kVlmBase = 0x1D900000;
const uint32_t kVlmSize = 0x100000;

struct allocation {
    uint32_t dev_va;
    uint32_t size;
    bool is_cmdbuf;
    bool is_vlm_handle;
    uint8_t* host;             // the host view, the pointer handed out
    std::vector<uint8_t> device; // the device view
};

class device_memory {
public:
    device_memory();
    ~device_memory();
    device_memory(const device_memory&) = delete;
    device_memory& operator=(const device_memory&) = delete;

    // New buffer (zero-filled in both views); null when the space is used up.
    void* alloc(uint32_t size, uint32_t align, bool is_cmdbuf);
    // The VLM handle; null when someone holds it already.
    void* take_vlm();
    bool release(void* host, bool is_cmdbuf);
    allocation* find_host(void* host);
    bool flush(void* host);
    bool invalidate(void* host);

    // Engine access to [dev_va, dev_va + len): a pointer into the device
    // view, or null when the range is not inside one allocation or the VLM.
    uint8_t* device_range(uint32_t dev_va, uint32_t len);
    // Writes made by the engine at dev_va: copied to the host view too.
    void engine_wrote(uint32_t dev_va, uint32_t len);
    // The device view of a command buffer given by its host pointer.
    allocation* cmdbuf(void* host);

private:
    allocation* find_device(uint32_t dev_va, uint32_t len);

    uint64_t m_next_va;
    std::map<uintptr_t, allocation*> m_by_host;
    std::map<uint32_t, allocation*> m_by_device; // DRAM and command buffers
    std::vector<uint8_t> m_vlm;
    bool m_vlm_held;
};

} // namespace kvx

#endif // KVX_MEMORY_H
