// Engine model: environment hooks for tests and the call trace.
#include "kvx_hooks.h"

#include <cstdio>
#include <cstdlib>
#include <map>

namespace kvx {

static uint32_t g_cores = 2;
static bool g_no_vlm = false;
static std::string g_fail_spec;
static std::map<std::string, uint32_t> g_fail_at; // op -> failing call number
static std::map<std::string, uint32_t> g_calls;   // op -> calls so far
static std::string g_trace_path;

static std::string env(const char* name)
{
    const char* v = getenv(name);
    return v == nullptr ? "" : v;
}

static void parse_fail_spec(const std::string& spec)
{
    g_fail_at.clear();
    size_t start = 0;
    while (start < spec.size()) {
        size_t end = spec.find(',', start);
        std::string item = spec.substr(start, end == std::string::npos ? std::string::npos : end - start);
        size_t colon = item.rfind(':');
        if (colon != std::string::npos)
            g_fail_at[item.substr(0, colon)] = (uint32_t)strtoul(item.c_str() + colon + 1, nullptr, 10);
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
}

void hooks_reload()
{
    std::string cores = env("KVX_MODEL_CORES");
    g_cores = cores.empty() ? 2 : (uint32_t)strtoul(cores.c_str(), nullptr, 10);
    g_no_vlm = env("KVX_MODEL_NO_VLM") == "1";
    g_trace_path = env("KVX_MODEL_TRACE");
    std::string spec = env("KVX_MODEL_FAIL");
    if (spec != g_fail_spec) {
        g_fail_spec = spec;
        parse_fail_spec(spec);
        g_calls.clear();
    }
}

uint32_t hook_cores()
{
    return g_cores;
}

bool hook_no_vlm()
{
    return g_no_vlm;
}

bool hook_fail(const char* op)
{
    uint32_t n = ++g_calls[op];
    auto it = g_fail_at.find(op);
    return it != g_fail_at.end() && it->second == n;
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

std::string handle_name(const char* kind, uint32_t id, const void* handle)
{
    if (handle == nullptr)
        return "null";
    return std::string(kind) + "#" + std::to_string(id);
}

} // namespace kvx
