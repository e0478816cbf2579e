// Engine model: device memory, address space and host/device views.
#include "kvx_memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kvx_model.h"

namespace kvx
{

// DRAM starts above the on-chip window; its upper half holds high-address
// buffers, up to the top of the 32-bit space.
static const uint64_t kDramBase = 0x20000000;
static const uint64_t kDramHigh = 0x80000000;
static const uint64_t kDramEnd = 0x100000000ull;
static const uint32_t kMinHostAlign = 64;
static const uint32_t kDefaultAlign = 16;

device_memory::device_memory() : m_next_low(kDramBase), m_next_high(kDramHigh), m_vlm(kVlmSize), m_vlm_held(false) { }

static void free_views(const allocation& al)
{
    ::operator delete(al.host, std::align_val_t(al.host_align));
    delete[] al.device;
}

static void drop(allocation* al)
{
    free_views(*al);
    delete al;
}

device_memory::~device_memory()
{
    for (auto& entry : m_by_host)
        drop(entry.second);
}

static uint64_t round_up(uint64_t v, uint64_t a)
{
    return (v + a - 1) / a * a;
}

// Registers a new allocation whose views are already made. When memory runs
// out on the way it gives the views back and registers nothing: the caller
// answers null and the address space stays as it was.
allocation* device_memory::enter(const allocation& fields)
{
    allocation* al = new (std::nothrow) allocation(fields);
    if (al == nullptr) {
        free_views(fields);
        return nullptr;
    }
    try {
        m_by_host[(uintptr_t)al->host] = al;
        if (!al->is_vlm_handle)
            m_by_device[al->dev_va] = al;
    } catch (const std::bad_alloc&) {
        m_by_host.erase((uintptr_t)al->host);
        drop(al);
        return nullptr;
    }
    return al;
}

static uint8_t* new_host_view(uint64_t size, uint64_t align)
{
    return (uint8_t*)::operator new(round_up(size, align), std::align_val_t(align), std::nothrow);
}

void* device_memory::alloc(uint32_t size, uint32_t align, bool is_cmdbuf, bool high)
{
    uint64_t a = align == 0 ? kDefaultAlign : align;
    if (a & (a - 1))
        return nullptr;
    uint64_t& next = high ? m_next_high : m_next_low;
    uint64_t base = round_up(next, a);
    uint32_t room = size == 0 ? 1 : size;
    if (base + room > (high ? kDramEnd : kDramHigh))
        return nullptr;
    uint64_t host_align = std::max<uint64_t>(a, kMinHostAlign);
    uint8_t* host = new_host_view(room, host_align);
    if (host == nullptr)
        return nullptr;
    uint8_t* device = new (std::nothrow) uint8_t[room];
    if (device == nullptr) {
        ::operator delete(host, std::align_val_t(host_align));
        return nullptr;
    }
    memset(host, 0, room);
    memset(device, kStaleByte, room);
    if (enter({(uint32_t)base, size, is_cmdbuf, false, host, host_align, device}) == nullptr)
        return nullptr;
    next = base + room;
    return host;
}

void* device_memory::take_vlm()
{
    if (m_vlm_held)
        return nullptr;
    uint8_t* handle = new_host_view(kMinHostAlign, kMinHostAlign);
    if (handle == nullptr || enter({kVlmBase, kVlmSize, false, true, handle, kMinHostAlign, nullptr}) == nullptr)
        return nullptr;
    m_vlm_held = true;
    return handle;
}

bool device_memory::release(void* host, bool is_cmdbuf)
{
    allocation* al = find_host(host);
    if (al == nullptr || al->is_cmdbuf != is_cmdbuf)
        return false;
    if (al->is_vlm_handle)
        m_vlm_held = false;
    else
        m_by_device.erase(al->dev_va);
    m_by_host.erase((uintptr_t)host);
    drop(al);
    return true;
}

allocation* device_memory::find_host(void* host)
{
    auto it = m_by_host.find((uintptr_t)host);
    return it == m_by_host.end() ? nullptr : it->second;
}

bool device_memory::flush(void* host)
{
    allocation* al = find_host(host);
    if (al == nullptr)
        return false;
    if (!al->is_vlm_handle)
        memcpy(al->device, al->host, al->size);
    return true;
}

bool device_memory::invalidate(void* host)
{
    allocation* al = find_host(host);
    if (al == nullptr)
        return false;
    if (!al->is_vlm_handle)
        memcpy(al->host, al->device, al->size);
    return true;
}

bool device_memory::first_unflushed(uint32_t* dev_va) const
{
    for (const auto& entry : m_by_device) {
        const allocation* al = entry.second;
        if (memcmp(al->host, al->device, al->size) == 0)
            continue;
        uint32_t at = 0;
        while (al->host[at] == al->device[at])
            at++;
        *dev_va = al->dev_va + at;
        return true;
    }
    return false;
}

allocation* device_memory::find_device(uint32_t dev_va, uint32_t len)
{
    auto it = m_by_device.upper_bound(dev_va);
    if (it == m_by_device.begin())
        return nullptr;
    allocation* al = (--it)->second;
    uint64_t end = (uint64_t)dev_va + len;
    return end <= (uint64_t)al->dev_va + al->size ? al : nullptr;
}

uint8_t* device_memory::device_range(uint32_t dev_va, uint32_t len, uint32_t vlm_bytes, uint32_t* cause)
{
    uint64_t end = (uint64_t)dev_va + len;
    bool in_vlm = dev_va >= kVlmBase && end <= (uint64_t)kVlmBase + kVlmSize;
    if (in_vlm) {
        *cause = !m_vlm_held ? KVX_CAUSE_VLM_NOT_HELD : end > (uint64_t)kVlmBase + vlm_bytes ? KVX_CAUSE_VLM_USAGE : 0;
        return *cause == 0 ? m_vlm.data() + (dev_va - kVlmBase) : nullptr;
    }
    allocation* al = find_device(dev_va, len); // DRAM lies above the on-chip window
    *cause = al == nullptr ? KVX_CAUSE_NO_MEMORY : al->is_cmdbuf ? KVX_CAUSE_CMDBUF_ACCESS : 0;
    return *cause == 0 ? al->device + (dev_va - al->dev_va) : nullptr;
}

// The engine's writes reach the host view at once: the one rule that keeps
// the views of what the engine wrote equal.
static void show_to_host(allocation* al, uint32_t offset, uint32_t len)
{
    if (len > 0)
        memcpy(al->host + offset, al->device + offset, len);
}

void device_memory::engine_wrote(uint32_t dev_va, uint32_t len)
{
    allocation* al = find_device(dev_va, len);
    if (al != nullptr)
        show_to_host(al, dev_va - al->dev_va, len);
}

static bool holds(const allocation* al, uint32_t offset, uint32_t len)
{
    return al != nullptr && !al->is_vlm_handle && (uint64_t)offset + len <= al->size;
}

bool device_memory::read_record(const allocation* al, uint32_t offset, void* data, uint32_t len) const
{
    if (!holds(al, offset, len))
        return false;
    if (len > 0)
        memcpy(data, al->device + offset, len);
    return true;
}

bool device_memory::write_record(allocation* al, uint32_t offset, const void* data, uint32_t len)
{
    if (!holds(al, offset, len))
        return false;
    if (len > 0)
        memcpy(al->device + offset, data, len);
    show_to_host(al, offset, len);
    return true;
}

allocation* device_memory::cmdbuf(void* host)
{
    allocation* al = find_host(host);
    return al != nullptr && al->is_cmdbuf ? al : nullptr;
}

} // namespace kvx
