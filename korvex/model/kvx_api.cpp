// Engine model: the korvex middleware API. Checks every handle and argument
// like a strict driver, applies the test hooks, traces each call, and hands
// the work to the memory model and the engine.
#include <algorithm>
#include <set>
#include <string>

#include "korvex.h"
#include "kvx_engine.h"
#include "kvx_hooks.h"

namespace {

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
template <typename Handle>
std::string name_of(Handle* h, const char* kind)
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

const char* mem_type_name(korvex_mem_type t)
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

std::string cmd_param_name(int t)
{
    return enum_name(t, {{CMD_PARAM_HARDLIMIT, "CMD_PARAM_HARDLIMIT"}, {CMD_PARAM_SOFTLIMIT, "CMD_PARAM_SOFTLIMIT"},
                         {CMD_PARAM_POWERPOLICY, "CMD_PARAM_POWERPOLICY"},
                         {CMD_PARAM_DELAY_POWER_OFF_MS, "CMD_PARAM_DELAY_POWER_OFF_MS"}});
}

std::string subcmd_param_name(int t)
{
    return enum_name(t, {{SC_PARAM_BOOST_VALUE, "SC_PARAM_BOOST_VALUE"}, {SC_PARAM_VLM_USAGE, "SC_PARAM_VLM_USAGE"},
                         {SC_PARAM_VLM_CTX, "SC_PARAM_VLM_CTX"}, {SC_PARAM_TURBO_BOOST, "SC_PARAM_TURBO_BOOST"},
                         {SC_PARAM_CORE_AFFINITY, "SC_PARAM_CORE_AFFINITY"}});
}

std::string runinfo_name(int t)
{
    return enum_name(t, {{SC_RUNINFO_IPTIME, "SC_RUNINFO_IPTIME"}, {SC_RUNINFO_DRIVERTIME, "SC_RUNINFO_DRIVERTIME"},
                         {SC_RUNINFO_BANDWIDTH, "SC_RUNINFO_BANDWIDTH"}});
}

std::string direction_name(int d)
{
    return enum_name(d, {{KORVEX_CB_BIDIRECTIONAL, "KORVEX_CB_BIDIRECTIONAL"}, {KORVEX_CB_IN, "KORVEX_CB_IN"},
                         {KORVEX_CB_OUT, "KORVEX_CB_OUT"}});
}

std::string device_name(int t)
{
    return enum_name(t, {{KORVEX_DEVICE_QORA, "KORVEX_DEVICE_QORA"}});
}

std::string info_name(int t)
{
    return enum_name(t, {{KORVEX_MEM_INFO_GET_SIZE, "KORVEX_MEM_INFO_GET_SIZE"},
                         {KORVEX_MEM_INFO_GET_DEVICE_VA, "KORVEX_MEM_INFO_GET_DEVICE_VA"}});
}

template <typename... Args>
std::string join(const Args&... args)
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

int traced(const char* op, const std::string& args, int result)
{
    kvx::trace_call(op, args, std::to_string(result));
    return result;
}

bool known_cmd_param(int t)
{
    return t == CMD_PARAM_HARDLIMIT || t == CMD_PARAM_SOFTLIMIT || t == CMD_PARAM_POWERPOLICY ||
           t == CMD_PARAM_DELAY_POWER_OFF_MS;
}

bool known_subcmd_param(int t)
{
    return t == SC_PARAM_BOOST_VALUE || t == SC_PARAM_VLM_USAGE || t == SC_PARAM_VLM_CTX ||
           t == SC_PARAM_TURBO_BOOST || t == SC_PARAM_CORE_AFFINITY;
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
    kvx::hooks_reload();
    korvex_session* s = nullptr;
    if (!kvx::hook_fail(__func__)) {
        s = new korvex_session();
        s->id = ++g_session_ids;
        g_sessions.insert(s);
    }
    kvx::trace_call(__func__, "", name_of(s));
    return s;
}

int korvexSession_deleteInstance(korvex_session_t* session)
{
    std::string args = name_of(session);
    if (kvx::hook_fail(__func__) || !live(session))
        return traced(__func__, args, -1);
    while (!session->cmds.empty())
        delete_cmd(session->cmds.back());
    g_sessions.erase(session);
    delete session;
    return traced(__func__, args, 0);
}

uint64_t korvexSession_queryDeviceNum(korvex_session_t* session, korvex_device_type type)
{
    uint64_t n = 0;
    if (!kvx::hook_fail(__func__) && live(session) && type == KORVEX_DEVICE_QORA)
        n = kvx::hook_cores();
    kvx::trace_call(__func__, join(name_of(session), device_name(type)), num(n));
    return n;
}

void* korvexSession_memAlloc(korvex_session_t* session, unsigned int size, unsigned int align,
                             korvex_mem_type type, uint64_t flags)
{
    void* p = nullptr;
    if (!kvx::hook_fail(__func__) && live(session)) {
        if (type == KORVEX_MEM_TYPE_DRAM)
            p = session->mem.alloc(size, align, false);
        else if (type == KORVEX_MEM_TYPE_VLM && size == 0 && align == 0 && !kvx::hook_no_vlm())
            p = session->mem.take_vlm();
        if (p != nullptr)
            session->names[p] = "mem#" + num(++g_mem_ids);
    }
    kvx::trace_call(__func__, join(name_of(session), num(size), num(align), mem_type_name(type), num(flags)),
                    name_of_buffer(session, p));
    return p;
}

int korvexSession_memFree(korvex_session_t* session, void* host_ptr)
{
    std::string args = join(name_of(session), name_of_buffer(session, host_ptr));
    if (kvx::hook_fail(__func__) || !live(session) || !session->mem.release(host_ptr, false))
        return traced(__func__, args, -1);
    session->names.erase(host_ptr);
    return traced(__func__, args, 0);
}

uint64_t korvexSession_memGetInfoFromHostPtr(korvex_session_t* session, void* host_ptr, korvex_mem_info info)
{
    uint64_t v = 0;
    kvx::allocation* al = nullptr;
    if (!kvx::hook_fail(__func__) && live(session))
        al = session->mem.find_host(host_ptr);
    if (al != nullptr)
        v = info == KORVEX_MEM_INFO_GET_SIZE ? al->size : info == KORVEX_MEM_INFO_GET_DEVICE_VA ? al->dev_va : 0;
    kvx::trace_call(__func__, join(name_of(session), name_of_buffer(session, host_ptr), info_name(info)), num(v));
    return v;
}

int korvexSession_memFlush(korvex_session_t* session, void* host_ptr)
{
    std::string args = join(name_of(session), name_of_buffer(session, host_ptr));
    bool ok = !kvx::hook_fail(__func__) && live(session) && session->mem.flush(host_ptr);
    return traced(__func__, args, ok ? 0 : -1);
}

int korvexSession_memInvalidate(korvex_session_t* session, void* host_ptr)
{
    std::string args = join(name_of(session), name_of_buffer(session, host_ptr));
    bool ok = !kvx::hook_fail(__func__) && live(session) && session->mem.invalidate(host_ptr);
    return traced(__func__, args, ok ? 0 : -1);
}

void* korvexSession_cmdBufAlloc(korvex_session_t* session, uint32_t size, uint32_t align)
{
    void* p = nullptr;
    if (!kvx::hook_fail(__func__) && live(session) && size > 0) {
        p = session->mem.alloc(size, align, true);
        if (p != nullptr)
            session->names[p] = "cb#" + num(++g_cb_ids);
    }
    kvx::trace_call(__func__, join(name_of(session), num(size), num(align)), name_of_buffer(session, p));
    return p;
}

int korvexSession_cmdBufFree(korvex_session_t* session, void* cmd_buf)
{
    std::string args = join(name_of(session), name_of_buffer(session, cmd_buf));
    if (kvx::hook_fail(__func__) || !live(session) || !session->mem.release(cmd_buf, true))
        return traced(__func__, args, -1);
    session->names.erase(cmd_buf);
    return traced(__func__, args, 0);
}

korvex_cmd_t* korvexSession_createCmd(korvex_session_t* session)
{
    korvex_cmd* cmd = nullptr;
    if (!kvx::hook_fail(__func__) && live(session)) {
        cmd = new korvex_cmd();
        cmd->session = session;
        cmd->id = ++g_cmd_ids;
        session->cmds.push_back(cmd);
        g_cmds.insert(cmd);
    }
    kvx::trace_call(__func__, name_of(session), name_of(cmd));
    return cmd;
}

int korvexSession_deleteCmd(korvex_session_t* session, korvex_cmd_t* cmd)
{
    std::string args = join(name_of(session), name_of(cmd));
    if (kvx::hook_fail(__func__) || !live(session) || !live(cmd) || cmd->session != session)
        return traced(__func__, args, -1);
    delete_cmd(cmd);
    return traced(__func__, args, 0);
}

int korvexCmd_setParam(korvex_cmd_t* cmd, korvex_cmd_param_type type, uint64_t value)
{
    std::string args = join(name_of(cmd), cmd_param_name(type), num(value));
    if (kvx::hook_fail(__func__) || !live(cmd) || cmd->built || !known_cmd_param(type))
        return traced(__func__, args, -1);
    cmd->params[type] = value;
    return traced(__func__, args, 0);
}

korvex_subcmd_t* korvexCmd_createSubcmd(korvex_cmd_t* cmd, korvex_device_type type)
{
    korvex_subcmd* sub = nullptr;
    if (!kvx::hook_fail(__func__) && live(cmd) && !cmd->built && type == KORVEX_DEVICE_QORA) {
        sub = new korvex_subcmd();
        sub->cmd = cmd;
        sub->id = ++g_subcmd_ids;
        cmd->subs.push_back(sub);
        g_subcmds.insert(sub);
    }
    kvx::trace_call(__func__, join(name_of(cmd), device_name(type)), name_of(sub));
    return sub;
}

int korvexCmd_setDependencyPack(korvex_cmd_t* cmd, korvex_subcmd_t* first, korvex_subcmd_t* second)
{
    std::string args = join(name_of(cmd), name_of(first), name_of(second));
    bool ok = !kvx::hook_fail(__func__) && live(cmd) && !cmd->built && live(first) && live(second) &&
              first->cmd == cmd && second->cmd == cmd && first != second;
    if (ok)
        cmd->packs.emplace_back(first, second);
    return traced(__func__, args, ok ? 0 : -1);
}

int korvexCmd_build(korvex_cmd_t* cmd)
{
    std::string args = name_of(cmd);
    if (kvx::hook_fail(__func__) || !live(cmd) || cmd->built || cmd->subs.empty())
        return traced(__func__, args, -1);
    cmd->built = true;
    return traced(__func__, args, 0);
}

int korvexCmd_run(korvex_cmd_t* cmd)
{
    std::string args = name_of(cmd);
    if (kvx::hook_fail(__func__) || !live(cmd) || !cmd->built)
        return traced(__func__, args, -1);
    return traced(__func__, args, kvx::run_command(cmd, kvx::hook_cores()));
}

int korvexSubCmd_setParam(korvex_subcmd_t* subcmd, korvex_subcmd_param_type type, uint64_t value)
{
    std::string args = join(name_of(subcmd), subcmd_param_name(type), num(value));
    if (kvx::hook_fail(__func__) || !open_subcmd(subcmd) || !known_subcmd_param(type))
        return traced(__func__, args, -1);
    subcmd->params[type] = value;
    return traced(__func__, args, 0);
}

int korvexSubCmd_addCmdBuf(korvex_subcmd_t* subcmd, void* cmd_buf, korvex_cb_direction direction)
{
    korvex_session* s = live(subcmd) ? subcmd->cmd->session : nullptr;
    std::string args = join(name_of(subcmd), name_of_buffer(s, cmd_buf), direction_name(direction));
    bool ok = !kvx::hook_fail(__func__) && open_subcmd(subcmd) && s->mem.cmdbuf(cmd_buf) != nullptr &&
              direction >= KORVEX_CB_BIDIRECTIONAL && direction <= KORVEX_CB_OUT;
    if (ok)
        subcmd->bufs.push_back(cmd_buf);
    return traced(__func__, args, ok ? 0 : -1);
}

uint64_t korvexSubCmd_getRunInfo(korvex_subcmd_t* subcmd, korvex_subcmd_runinfo_type type)
{
    uint64_t v = 0;
    if (!kvx::hook_fail(__func__) && live(subcmd)) {
        v = type == SC_RUNINFO_IPTIME       ? subcmd->ip_us
            : type == SC_RUNINFO_DRIVERTIME ? subcmd->driver_us
            : type == SC_RUNINFO_BANDWIDTH  ? subcmd->bandwidth
                                            : 0;
    }
    kvx::trace_call(__func__, join(name_of(subcmd), runinfo_name(type)), num(v));
    return v;
}

} // extern "C"
