// Engine model: environment hooks for tests and the traces.
#include "kvx_hooks.h"

#include <cstdlib>
#include <map>

namespace kvx
{

static const uint32_t kDefaultCores = 2;

// One of the op:N lists and the calls it picks.
struct call_picks {
    std::string spec;
    std::map<std::string, uint32_t> at; // op -> picked call number
};

static uint32_t g_cores = kDefaultCores;
static bool g_no_vlm = false;
static uint64_t g_work_limit = UINT64_MAX;
static call_picks g_fail, g_drop;
static std::map<std::string, uint32_t> g_calls; // op -> calls so far
static std::string g_trace_path;
static std::string g_itrace_path;

static std::string env(const char* name)
{
    const char* v = getenv(name);
    return v == nullptr ? "" : v;
}

static void parse_picks(const std::string& spec, std::map<std::string, uint32_t>* at)
{
    at->clear();
    size_t start = 0;
    while (start < spec.size()) {
        size_t end = spec.find(',', start);
        std::string item = spec.substr(start, end == std::string::npos ? std::string::npos : end - start);
        size_t colon = item.rfind(':');
        if (colon != std::string::npos)
            (*at)[item.substr(0, colon)] = (uint32_t)strtoul(item.c_str() + colon + 1, nullptr, 10);
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
}

// A changed list restarts the call counts.
static bool reload_picks(call_picks* picks, const char* name)
{
    std::string spec = env(name);
    if (spec == picks->spec)
        return false;
    picks->spec = spec;
    parse_picks(spec, &picks->at);
    return true;
}

void hooks_reload()
{
    std::string cores = env("KVX_MODEL_CORES");
    g_cores = cores.empty() ? kDefaultCores : (uint32_t)strtoul(cores.c_str(), nullptr, 10);
    g_no_vlm = env("KVX_MODEL_NO_VLM") == "1";
    std::string work_limit = env("KVX_MODEL_WORK_LIMIT");
    g_work_limit = work_limit.empty() ? UINT64_MAX : strtoull(work_limit.c_str(), nullptr, 10);
    g_trace_path = env("KVX_MODEL_TRACE");
    g_itrace_path = env("KVX_MODEL_ITRACE");
    bool fail_changed = reload_picks(&g_fail, "KVX_MODEL_FAIL");
    if (reload_picks(&g_drop, "KVX_MODEL_DROP") || fail_changed)
        g_calls.clear();
}

uint32_t hook_cores()
{
    return g_cores;
}

bool hook_no_vlm()
{
    return g_no_vlm;
}

uint64_t hook_work_limit()
{
    return g_work_limit;
}

static bool picked(const call_picks& picks, const char* op, uint32_t n)
{
    auto it = picks.at.find(op);
    return it != picks.at.end() && it->second == n;
}

hook_action hook_call(const char* op)
{
    uint32_t n = ++g_calls[op];
    return picked(g_fail, op, n) ? HOOK_FAIL : picked(g_drop, op, n) ? HOOK_DROP : HOOK_NONE;
}

bool hook_fail(const char* op)
{
    return hook_call(op) == HOOK_FAIL;
}

bool tracing()
{
    return !g_trace_path.empty();
}

void trace_call(const char* op, const std::string& args, const std::string& result)
{
    if (g_trace_path.empty())
        return;
    FILE* fp = fopen(g_trace_path.c_str(), "a");
    if (fp == nullptr)
        return;
    fprintf(fp, "%s(%s) = %s\n", op, args.c_str(), result.c_str());
    fclose(fp);
}

FILE* open_instruction_log()
{
    return g_itrace_path.empty() ? nullptr : fopen(g_itrace_path.c_str(), "a");
}

std::string handle_name(const char* kind, uint32_t id, const void* handle)
{
    if (handle == nullptr)
        return "null";
    return std::string(kind) + "#" + std::to_string(id);
}

} // namespace kvx
