// Engine model: the korvex middleware API. Checks every handle and argument
// like a strict driver (parameters against their ranges, command buffers
// attached once per command), applies the test hooks, traces each call, and
// hands the work to the memory model and the engine. No exception leaves a
// call: when memory runs out it answers failure (null, -1, 0) and leaves
// every handle as it was.
#include <algorithm>
#include <exception>
#include <iterator>
#include <memory>
#include <set>
#include <string>

#include "korvex.h"
#include "kvx_engine.h"
#include "kvx_hooks.h"
#include "kvx_model.h"

namespace
{

std::set<korvex_session*> g_sessions;
std::set<korvex_cmd*> g_cmds;
std::set<korvex_subcmd*> g_subcmds;
uint32_t g_session_ids, g_cmd_ids, g_subcmd_ids, g_mem_ids, g_cb_ids;

bool live(korvex_session* s)
{
    return g_sessions.count(s) != 0;
}
bool live(korvex_cmd* c)
{
    return g_cmds.count(c) != 0;
}
bool live(korvex_subcmd* c)
{
    return g_subcmds.count(c) != 0;
}

// A handle's trace name; a handle the model never gave out is not read.
template <typename Handle> std::string name_of(Handle* h, const char* kind)
{
    if (h == nullptr)
        return "null";
    return live(h) ? kvx::handle_name(kind, h->id, h) : "unknown";
}
std::string name_of(korvex_session* s)
{
    return name_of(s, "session");
}
std::string name_of(korvex_cmd* c)
{
    return name_of(c, "cmd");
}
std::string name_of(korvex_subcmd* c)
{
    return name_of(c, "subcmd");
}

std::string name_of_buffer(korvex_session* s, const void* p)
{
    if (p == nullptr)
        return "null";
    if (g_sessions.count(s) != 0) {
        auto it = s->names.find(p);
        if (it != s->names.end())
            return it->second;
    }
    return "unknown";
}

const char* mem_type_name(int t)
{
    return t == KORVEX_MEM_TYPE_DRAM ? "KORVEX_MEM_TYPE_DRAM" : t == KORVEX_MEM_TYPE_VLM ? "KORVEX_MEM_TYPE_VLM" : "?";
}

std::string enum_name(int value, std::initializer_list<std::pair<int, const char*>> names)
{
    for (const auto& n : names)
        if (n.first == value)
            return n.second;
    return std::to_string(value);
}

// A parameter the middleware knows, and the largest value it takes.
struct param_rule {
    int type;
    const char* name;
    uint64_t max;
};
const uint64_t kU32Max = 0xFFFFFFFFu;
const uint32_t kMaxVlmContext = 15;

const param_rule kCmdParams[] = {
    {CMD_PARAM_HARDLIMIT, "CMD_PARAM_HARDLIMIT", kU32Max},
    {CMD_PARAM_SOFTLIMIT, "CMD_PARAM_SOFTLIMIT", kU32Max},
    {CMD_PARAM_POWERPOLICY, "CMD_PARAM_POWERPOLICY", KORVEX_POWERPOLICY_PERFORMANCE},
    {CMD_PARAM_DELAY_POWER_OFF_MS, "CMD_PARAM_DELAY_POWER_OFF_MS", kU32Max},
};
const param_rule kSubParams[] = {
    {SC_PARAM_BOOST_VALUE, "SC_PARAM_BOOST_VALUE", 100},
    {SC_PARAM_VLM_USAGE, "SC_PARAM_VLM_USAGE", kvx::kVlmSize},
    {SC_PARAM_VLM_CTX, "SC_PARAM_VLM_CTX", kMaxVlmContext},
    {SC_PARAM_TURBO_BOOST, "SC_PARAM_TURBO_BOOST", 1},
    {SC_PARAM_CORE_AFFINITY, "SC_PARAM_CORE_AFFINITY", kU32Max},
};

template <size_t N> const param_rule* find_rule(const param_rule (&rules)[N], int type)
{
    auto it = std::find_if(std::begin(rules), std::end(rules), [type](const param_rule& r) { return r.type == type; });
    return it == std::end(rules) ? nullptr : it;
}

template <size_t N> std::string param_name(const param_rule (&rules)[N], int type)
{
    const param_rule* r = find_rule(rules, type);
    return r != nullptr ? r->name : std::to_string(type);
}

template <size_t N> bool param_in_range(const param_rule (&rules)[N], int type, uint64_t value)
{
    const param_rule* r = find_rule(rules, type);
    return r != nullptr && value <= r->max;
}

// A core mask names at least one core and only cores the engine has.
bool cores_exist(uint64_t mask)
{
    uint32_t cores = kvx::hook_cores();
    uint64_t all = cores >= 64 ? ~0ull : (1ull << cores) - 1;
    return mask != 0 && (mask & ~all) == 0;
}

std::string runinfo_name(int t)
{
    return enum_name(t,
                     {{SC_RUNINFO_IPTIME, "SC_RUNINFO_IPTIME"},
                      {SC_RUNINFO_DRIVERTIME, "SC_RUNINFO_DRIVERTIME"},
                      {SC_RUNINFO_BANDWIDTH, "SC_RUNINFO_BANDWIDTH"},
                      {KVX_RUNINFO_CAUSE, "KVX_RUNINFO_CAUSE"},
                      {KVX_RUNINFO_DETAIL, "KVX_RUNINFO_DETAIL"}});
}

std::string direction_name(int d)
{
    return enum_name(d,
                     {{KORVEX_CB_BIDIRECTIONAL, "KORVEX_CB_BIDIRECTIONAL"},
                      {KORVEX_CB_IN, "KORVEX_CB_IN"},
                      {KORVEX_CB_OUT, "KORVEX_CB_OUT"}});
}

std::string device_name(int t)
{
    return enum_name(t, {{KORVEX_DEVICE_QORA, "KORVEX_DEVICE_QORA"}});
}

std::string info_name(int t)
{
    return enum_name(t,
                     {{KORVEX_MEM_INFO_GET_SIZE, "KORVEX_MEM_INFO_GET_SIZE"},
                      {KORVEX_MEM_INFO_GET_DEVICE_VA, "KORVEX_MEM_INFO_GET_DEVICE_VA"}});
}

template <typename... Args> std::string join(const Args&... args)
{
    std::string out;
    for (const std::string& a : {std::string(args)...})
        out += (out.empty() ? "" : ", ") + a;
    return out;
}

std::string num(uint64_t v)
{
    return std::to_string(v);
}

void delete_cmd(korvex_cmd* cmd)
{
    for (korvex_subcmd* sub : cmd->subs) {
        g_subcmds.erase(sub);
        delete sub;
    }
    auto& cmds = cmd->session->cmds;
    cmds.erase(std::remove(cmds.begin(), cmds.end(), cmd), cmds.end());
    g_cmds.erase(cmd);
    delete cmd;
}

// At process end the driver reclaims what sessions still hold, including a
// session whose deletion was refused. Defined after the registries, so it
// runs while they still exist.
struct process_end {
    ~process_end()
    {
        while (!g_sessions.empty()) {
            korvex_session* s = *g_sessions.begin();
            while (!s->cmds.empty())
                delete_cmd(s->cmds.back());
            g_sessions.erase(s);
            delete s;
        }
    }
} g_process_end;

// A call's answer: what `work` returns, or `failure` when memory (or
// anything else) gives out inside it.
template <typename Result, typename Work> Result guarded(Result failure, Work work) noexcept
{
    try {
        return work();
    } catch (const std::exception&) {
        return failure;
    }
}

// A call's arguments for the trace, built only when a trace is asked for
// and before the work, while every handle still has its name.
template <typename Args> std::string trace_args(Args args)
{
    return kvx::tracing() ? args() : std::string();
}

// Appends "<op>(<args>) = <result>" after the work is done. A line that
// cannot be made for want of memory is left out: the call did its work.
template <typename Result> void trace(const char* op, const std::string& args, Result result) noexcept
{
    if (!kvx::tracing())
        return;
    try {
        kvx::trace_call(op, args, result());
    } catch (const std::exception&) {
    }
}

// An int-returning call under the hooks: -1 when it is to fail, 0 without
// its work when it is to be dropped; otherwise 0 when `work` succeeds.
template <typename Args, typename Work> int hooked(const char* op, Args args, Work work) noexcept
{
    return guarded(-1, [&] {
        std::string line = trace_args(args);
        kvx::hook_action action = kvx::hook_call(op);
        if (action == kvx::HOOK_DROP) {
            trace(op, line, [] { return std::string("0 (dropped)"); });
            return 0;
        }
        int result = action == kvx::HOOK_NONE && work() ? 0 : -1;
        trace(op, line, [result] { return std::to_string(result); });
        return result;
    });
}

// New handles are registered before they are handed out; when memory runs
// out on the way, nothing stays registered and the exception goes on.
korvex_session* new_session()
{
    std::unique_ptr<korvex_session> s(new korvex_session());
    g_sessions.insert(s.get());
    s->id = ++g_session_ids;
    return s.release();
}

korvex_cmd* new_cmd(korvex_session* session)
{
    std::unique_ptr<korvex_cmd> cmd(new korvex_cmd());
    cmd->session = session;
    g_cmds.insert(cmd.get());
    try {
        session->cmds.push_back(cmd.get());
    } catch (const std::exception&) {
        g_cmds.erase(cmd.get());
        throw;
    }
    cmd->id = ++g_cmd_ids;
    return cmd.release();
}

korvex_subcmd* new_subcmd(korvex_cmd* cmd)
{
    std::unique_ptr<korvex_subcmd> sub(new korvex_subcmd());
    sub->cmd = cmd;
    g_subcmds.insert(sub.get());
    try {
        cmd->subs.push_back(sub.get());
    } catch (const std::exception&) {
        g_subcmds.erase(sub.get());
        throw;
    }
    sub->id = ++g_subcmd_ids;
    return sub.release();
}

// Gives a new buffer its trace name ("mem#3"); without memory for the name
// the buffer goes back and the exception goes on.
void* named_buffer(korvex_session* session, void* p, const char* kind, uint32_t* ids, bool is_cmdbuf)
{
    if (p == nullptr)
        return nullptr;
    try {
        session->names[p] = kind + num(*ids + 1);
    } catch (const std::exception&) {
        session->mem.release(p, is_cmdbuf);
        throw;
    }
    ++*ids;
    return p;
}

uint64_t run_info(const korvex_subcmd* subcmd, int type)
{
    switch (type) {
    case SC_RUNINFO_IPTIME: return subcmd->ip_us;
    case SC_RUNINFO_DRIVERTIME: return subcmd->driver_us;
    case SC_RUNINFO_BANDWIDTH: return subcmd->bandwidth;
    case KVX_RUNINFO_CAUSE: return subcmd->cause;
    case KVX_RUNINFO_DETAIL: return subcmd->detail;
    default: return 0;
    }
}

// Whether a command buffer is attached to any sub-command of `cmd`.
bool attached_to(const korvex_cmd* cmd, const void* buf)
{
    for (const korvex_subcmd* sub : cmd->subs)
        for (const attached& a : sub->bufs)
            if (a.buf == buf)
                return true;
    return false;
}

// A sub-command that may still be changed: alive and its command not built.
bool open_subcmd(korvex_subcmd* sub)
{
    return live(sub) && !sub->cmd->built;
}

} // namespace

extern "C" {

korvex_session_t* korvexSession_createInstance(void)
{
    const char* op = __func__;
    return guarded<korvex_session*>(nullptr, [op] {
        kvx::hooks_reload();
        korvex_session* s = kvx::hook_fail(op) ? nullptr : new_session();
        trace(op, "", [s] { return name_of(s); });
        return s;
    });
}

int korvexSession_deleteInstance(korvex_session_t* session)
{
    return hooked(
        __func__, [&] { return name_of(session); },
        [&] {
            if (!live(session))
                return false;
            while (!session->cmds.empty())
                delete_cmd(session->cmds.back());
            g_sessions.erase(session);
            delete session;
            return true;
        });
}

// The lambdas below see enumeration arguments as int: a caller may pass any
// value, which the checks refuse.
uint64_t korvexSession_queryDeviceNum(korvex_session_t* session, korvex_device_type type_arg)
{
    const char* op = __func__;
    const int type = type_arg;
    return guarded<uint64_t>(0, [&] {
        std::string args = trace_args([&] { return join(name_of(session), device_name(type)); });
        uint64_t n = 0;
        if (!kvx::hook_fail(op) && live(session) && type == KORVEX_DEVICE_QORA)
            n = kvx::hook_cores();
        trace(op, args, [n] { return num(n); });
        return n;
    });
}

// DRAM takes one of the allocation flags; the VLM handle none.
static void* alloc_memory(korvex_session* session, unsigned int size, unsigned int align, int type, uint64_t flags)
{
    if (type == KORVEX_MEM_TYPE_DRAM && flags <= KORVEX_MEM_HIGHADDR)
        return session->mem.alloc(size, align, false, flags == KORVEX_MEM_HIGHADDR);
    if (type == KORVEX_MEM_TYPE_VLM && size == 0 && align == 0 && flags == 0 && !kvx::hook_no_vlm())
        return session->mem.take_vlm();
    return nullptr;
}

void* korvexSession_memAlloc(korvex_session_t* session, unsigned int size, unsigned int align, korvex_mem_type type_arg,
                             uint64_t flags)
{
    const char* op = __func__;
    const int type = type_arg;
    return guarded<void*>(nullptr, [&] {
        std::string args =
            trace_args([&] { return join(name_of(session), num(size), num(align), mem_type_name(type), num(flags)); });
        void* p = nullptr;
        if (!kvx::hook_fail(op) && live(session))
            p = named_buffer(session, alloc_memory(session, size, align, type, flags), "mem#", &g_mem_ids, false);
        trace(op, args, [&] { return name_of_buffer(session, p); });
        return p;
    });
}

int korvexSession_memFree(korvex_session_t* session, void* host_ptr)
{
    return hooked(
        __func__, [&] { return join(name_of(session), name_of_buffer(session, host_ptr)); },
        [&] {
            if (!live(session) || !session->mem.release(host_ptr, false))
                return false;
            session->names.erase(host_ptr);
            return true;
        });
}

uint64_t korvexSession_memGetInfoFromHostPtr(korvex_session_t* session, void* host_ptr, korvex_mem_info info_arg)
{
    const char* op = __func__;
    const int info = info_arg;
    return guarded<uint64_t>(0, [&] {
        std::string args =
            trace_args([&] { return join(name_of(session), name_of_buffer(session, host_ptr), info_name(info)); });
        uint64_t v = 0;
        kvx::allocation* al = nullptr;
        if (!kvx::hook_fail(op) && live(session))
            al = session->mem.find_host(host_ptr);
        if (al != nullptr)
            v = info == KORVEX_MEM_INFO_GET_SIZE ? al->size : info == KORVEX_MEM_INFO_GET_DEVICE_VA ? al->dev_va : 0;
        trace(op, args, [v] { return num(v); });
        return v;
    });
}

int korvexSession_memFlush(korvex_session_t* session, void* host_ptr)
{
    return hooked(
        __func__, [&] { return join(name_of(session), name_of_buffer(session, host_ptr)); },
        [&] { return live(session) && session->mem.flush(host_ptr); });
}

int korvexSession_memInvalidate(korvex_session_t* session, void* host_ptr)
{
    return hooked(
        __func__, [&] { return join(name_of(session), name_of_buffer(session, host_ptr)); },
        [&] { return live(session) && session->mem.invalidate(host_ptr); });
}

void* korvexSession_cmdBufAlloc(korvex_session_t* session, uint32_t size, uint32_t align)
{
    const char* op = __func__;
    return guarded<void*>(nullptr, [&] {
        std::string args = trace_args([&] { return join(name_of(session), num(size), num(align)); });
        void* p = nullptr;
        if (!kvx::hook_fail(op) && live(session) && size > 0)
            p = named_buffer(session, session->mem.alloc(size, align, true, false), "cb#", &g_cb_ids, true);
        trace(op, args, [&] { return name_of_buffer(session, p); });
        return p;
    });
}

int korvexSession_cmdBufFree(korvex_session_t* session, void* cmd_buf)
{
    return hooked(
        __func__, [&] { return join(name_of(session), name_of_buffer(session, cmd_buf)); },
        [&] {
            if (!live(session) || !session->mem.release(cmd_buf, true))
                return false;
            session->names.erase(cmd_buf);
            return true;
        });
}

korvex_cmd_t* korvexSession_createCmd(korvex_session_t* session)
{
    const char* op = __func__;
    return guarded<korvex_cmd*>(nullptr, [&] {
        std::string args = trace_args([&] { return name_of(session); });
        korvex_cmd* cmd = !kvx::hook_fail(op) && live(session) ? new_cmd(session) : nullptr;
        trace(op, args, [cmd] { return name_of(cmd); });
        return cmd;
    });
}

int korvexSession_deleteCmd(korvex_session_t* session, korvex_cmd_t* cmd)
{
    return hooked(
        __func__, [&] { return join(name_of(session), name_of(cmd)); },
        [&] {
            if (!live(session) || !live(cmd) || cmd->session != session)
                return false;
            delete_cmd(cmd);
            return true;
        });
}

int korvexCmd_setParam(korvex_cmd_t* cmd, korvex_cmd_param_type type_arg, uint64_t value)
{
    const int type = type_arg;
    return hooked(
        __func__, [&] { return join(name_of(cmd), param_name(kCmdParams, type), num(value)); },
        [&] {
            if (!live(cmd) || cmd->built || !param_in_range(kCmdParams, type, value))
                return false;
            cmd->params[type] = value;
            return true;
        });
}

korvex_subcmd_t* korvexCmd_createSubcmd(korvex_cmd_t* cmd, korvex_device_type type_arg)
{
    const char* op = __func__;
    const int type = type_arg;
    return guarded<korvex_subcmd*>(nullptr, [&] {
        std::string args = trace_args([&] { return join(name_of(cmd), device_name(type)); });
        korvex_subcmd* sub = nullptr;
        if (!kvx::hook_fail(op) && live(cmd) && !cmd->built && type == KORVEX_DEVICE_QORA)
            sub = new_subcmd(cmd);
        trace(op, args, [sub] { return name_of(sub); });
        return sub;
    });
}

int korvexCmd_setDependencyPack(korvex_cmd_t* cmd, korvex_subcmd_t* first, korvex_subcmd_t* second)
{
    return hooked(
        __func__, [&] { return join(name_of(cmd), name_of(first), name_of(second)); },
        [&] {
            if (!live(cmd) || cmd->built || !live(first) || !live(second) || first->cmd != cmd || second->cmd != cmd ||
                first == second)
                return false;
            cmd->packs.emplace_back(first, second);
            return true;
        });
}

int korvexCmd_build(korvex_cmd_t* cmd)
{
    return hooked(
        __func__, [&] { return name_of(cmd); },
        [&] {
            if (!live(cmd) || cmd->built || cmd->subs.empty())
                return false;
            cmd->built = true;
            return true;
        });
}

int korvexCmd_run(korvex_cmd_t* cmd)
{
    return hooked(
        __func__, [&] { return name_of(cmd); },
        [&] { return live(cmd) && cmd->built && kvx::run_command(cmd, kvx::hook_cores()) == 0; });
}

int korvexSubCmd_setParam(korvex_subcmd_t* subcmd, korvex_subcmd_param_type type_arg, uint64_t value)
{
    const int type = type_arg;
    return hooked(
        __func__, [&] { return join(name_of(subcmd), param_name(kSubParams, type), num(value)); },
        [&] {
            if (!open_subcmd(subcmd) || !param_in_range(kSubParams, type, value) ||
                (type == SC_PARAM_CORE_AFFINITY && !cores_exist(value)))
                return false;
            subcmd->params[type] = value;
            return true;
        });
}

// A command buffer goes to one sub-command of a command, once.
int korvexSubCmd_addCmdBuf(korvex_subcmd_t* subcmd, void* cmd_buf, korvex_cb_direction direction_arg)
{
    const int direction = direction_arg;
    korvex_session* s = live(subcmd) ? subcmd->cmd->session : nullptr;
    auto args = [&] { return join(name_of(subcmd), name_of_buffer(s, cmd_buf), direction_name(direction)); };
    return hooked(__func__, args, [&] {
        if (!open_subcmd(subcmd) || s->mem.cmdbuf(cmd_buf) == nullptr || direction < KORVEX_CB_BIDIRECTIONAL ||
            direction > KORVEX_CB_OUT || attached_to(subcmd->cmd, cmd_buf))
            return false;
        subcmd->bufs.push_back({cmd_buf, direction});
        return true;
    });
}

uint64_t korvexSubCmd_getRunInfo(korvex_subcmd_t* subcmd, korvex_subcmd_runinfo_type type_arg)
{
    const char* op = __func__;
    const int kind = type_arg; // the model's own types lie outside the enumeration: read it once, as int
    return guarded<uint64_t>(0, [&] {
        std::string args = trace_args([&] { return join(name_of(subcmd), runinfo_name(kind)); });
        uint64_t v = !kvx::hook_fail(op) && live(subcmd) ? run_info(subcmd, kind) : 0;
        trace(op, args, [v] { return num(v); });
        return v;
    });
}

} // extern "C"
