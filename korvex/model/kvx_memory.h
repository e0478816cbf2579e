// Engine model: device memory of one session and its coherency.
//
// Contract: every allocation has a host view (the pointer handed to the
// host, zero-filled, aligned as asked) and a device view (what the engine
// reads). The device view of a new allocation holds kStaleByte, as memory
// no one has written back: until flushed, the views differ. flush copies
// host to device, invalidate device to host; the engine's writes reach both
// views at once. DRAM lives in a 32-bit device address space that never
// touches the on-chip window 0x1D800000-0x1DFFFFFF; the VLM is 1 MiB at
// 0x1D900000, handed to one holder at a time, and the engine reaches it only
// while it is held.
#ifndef KVX_MEMORY_H
#define KVX_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace kvx
{

const uint32_t kVlmBase = 0x1D900000;
const uint32_t kVlmSize = 0x100000;
const uint8_t kStaleByte = 0xDB;

// The views are owned by device_memory: the host view comes from aligned
// operator new with host_align, the device view from array new (none for
// the VLM handle).
struct allocation {
    uint32_t dev_va;
    uint32_t size;
    bool is_cmdbuf;
    bool is_vlm_handle;
    uint8_t* host; // the host view, the pointer handed out
    size_t host_align;
    uint8_t* device; // the device view
};

class device_memory
{
public:
    device_memory();
    ~device_memory();
    device_memory(const device_memory&) = delete;
    device_memory& operator=(const device_memory&) = delete;

    // New buffer; null when the space or the host's memory is used up or the
    // alignment is not a power of two. High-address buffers come from the
    // upper half of DRAM.
    void* alloc(uint32_t size, uint32_t align, bool is_cmdbuf, bool high);
    // The VLM handle; null when someone holds it already or memory runs out.
    void* take_vlm();
    bool release(void* host, bool is_cmdbuf);
    allocation* find_host(void* host);
    bool flush(void* host);
    bool invalidate(void* host);
    // The device address of the first byte whose host view was written and
    // not flushed; false when every view agrees.
    bool first_unflushed(uint32_t* dev_va) const;

    // Engine access to [dev_va, dev_va + len), of which the sub-command may
    // use `vlm_bytes` of the VLM: a pointer into the device view, or null
    // with the fault cause (kvx_model.h).
    uint8_t* device_range(uint32_t dev_va, uint32_t len, uint32_t vlm_bytes, uint32_t* cause);
    // Writes made by the engine at dev_va: copied to the host view too.
    void engine_wrote(uint32_t dev_va, uint32_t len);
    // The firmware's access to `len` bytes at `offset` of an allocation (a
    // record of a command buffer, the code): reads see the device view,
    // writes reach both views, as the engine's writes do. False, copying
    // nothing, when there is no allocation or the bytes do not fit in it.
    bool read_record(const allocation* al, uint32_t offset, void* data, uint32_t len) const;
    bool write_record(allocation* al, uint32_t offset, const void* data, uint32_t len);
    // The allocation of a command buffer given by its host pointer.
    allocation* cmdbuf(void* host);

private:
    allocation* find_device(uint32_t dev_va, uint32_t len);
    allocation* enter(const allocation& fields);

    uint64_t m_next_low;
    uint64_t m_next_high;
    std::map<uintptr_t, allocation*> m_by_host;
    std::map<uint32_t, allocation*> m_by_device; // DRAM and command buffers
    std::vector<uint8_t> m_vlm;
    bool m_vlm_held;
};

} // namespace kvx

#endif // KVX_MEMORY_H
