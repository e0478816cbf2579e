// The engine model when memory runs out: each allocating call of its C
// interface is made with its first, second, third... allocation failing.
// Each such call answers failure as korvex.h says (null, -1, 0), keeps
// nothing of what it took, and the session still releases everything.
//
// Its own program: it replaces operator new, which the model reaches for
// every allocation it makes, with a counting one that fails on request.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>

#include "kvx_rig.h"

namespace
{

long g_live;          // blocks handed out and not yet given back
long g_until_failure; // 0: no failure planned; else allocations up to the one that fails
bool g_failed;        // the planned failure happened

void* take(size_t size, size_t align) noexcept
{
    if (g_until_failure > 0 && --g_until_failure == 0) {
        g_failed = true;
        return nullptr;
    }
    void* p = nullptr;
    if (posix_memalign(&p, std::max(align, sizeof(void*)), size == 0 ? 1 : size) != 0)
        return nullptr;
    g_live++;
    return p;
}

void* take_or_throw(size_t size, size_t align)
{
    void* p = take(size, align);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void give(void* p) noexcept
{
    if (p == nullptr)
        return;
    g_live--;
    free(p);
}

} // namespace

const size_t kNewAlign = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
void* operator new(size_t n)
{
    return take_or_throw(n, kNewAlign);
}
void* operator new[](size_t n)
{
    return take_or_throw(n, kNewAlign);
}
void* operator new(size_t n, std::align_val_t a)
{
    return take_or_throw(n, (size_t)a);
}
void* operator new[](size_t n, std::align_val_t a)
{
    return take_or_throw(n, (size_t)a);
}
void* operator new(size_t n, const std::nothrow_t&) noexcept
{
    return take(n, kNewAlign);
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept
{
    return take(n, kNewAlign);
}
void* operator new(size_t n, std::align_val_t a, const std::nothrow_t&) noexcept
{
    return take(n, (size_t)a);
}
void* operator new[](size_t n, std::align_val_t a, const std::nothrow_t&) noexcept
{
    return take(n, (size_t)a);
}
void operator delete(void* p) noexcept
{
    give(p);
}
void operator delete[](void* p) noexcept
{
    give(p);
}
void operator delete(void* p, size_t) noexcept
{
    give(p);
}
void operator delete[](void* p, size_t) noexcept
{
    give(p);
}
void operator delete(void* p, std::align_val_t) noexcept
{
    give(p);
}
void operator delete[](void* p, std::align_val_t) noexcept
{
    give(p);
}
void operator delete(void* p, size_t, std::align_val_t) noexcept
{
    give(p);
}
void operator delete[](void* p, size_t, std::align_val_t) noexcept
{
    give(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept
{
    give(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept
{
    give(p);
}
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept
{
    give(p);
}
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept
{
    give(p);
}

namespace
{

// What a call works on; `prepare` makes it, unplanned.
struct fixture {
    kvx_rig* r;
    korvex_session_t* s2;
    korvex_cmd_t* cmd;
    korvex_subcmd_t* sub;
    korvex_subcmd_t* sub2;
    void* p;
};

struct OomCall {
    const char* call;
    std::function<void(fixture&)> prepare;
    std::function<bool(fixture&)> failed; // makes the call; whether it answered failure (null, -1, 0)
};

korvex_cmd_t* with_subs(fixture& f, int subs)
{
    f.cmd = korvexSession_createCmd(f.r->s);
    if (subs > 0)
        f.sub = korvexCmd_createSubcmd(f.cmd, KORVEX_DEVICE_QORA);
    if (subs > 1)
        f.sub2 = korvexCmd_createSubcmd(f.cmd, KORVEX_DEVICE_QORA);
    return f.cmd;
}

// A built command that copies 64 bytes; with `run` it has run once.
void copy_command(fixture& f, bool run)
{
    kvx_rig& r = *f.r;
    uint8_t* src = r.dram(64, 0x5A);
    uint8_t* dst = r.dram(64);
    kvx_bundle b = r.bundle(
        {kvx_asm_setr(0, 3), r.unit(dst), r.unit(src), 64, kvx_asm_regs(KVX_OP_MOVE, 0, 1, 2, 0), kvx_asm_end()});
    with_subs(f, 1);
    for (const auto& a : b.attach)
        korvexSubCmd_addCmdBuf(f.sub, a.first, a.second);
    korvexCmd_build(f.cmd);
    if (run)
        korvexCmd_run(f.cmd);
}

void nothing(fixture&) { }

const std::vector<OomCall> kCalls = {
    {"korvexSession_createInstance", nothing,
     [](fixture& f) { return (f.s2 = korvexSession_createInstance()) == nullptr; }},
    {"korvexSession_deleteInstance", [](fixture& f) { f.s2 = korvexSession_createInstance(); },
     [](fixture& f) {
         bool failed = korvexSession_deleteInstance(f.s2) == -1;
         f.s2 = failed ? f.s2 : nullptr;
         return failed;
     }},
    {"korvexSession_queryDeviceNum", nothing,
     [](fixture& f) { return korvexSession_queryDeviceNum(f.r->s, KORVEX_DEVICE_QORA) == 0; }},
    {"korvexSession_memAlloc DRAM", nothing,
     [](fixture& f) { return korvexSession_memAlloc(f.r->s, 4096, 256, KORVEX_MEM_TYPE_DRAM, 0) == nullptr; }},
    {"korvexSession_memAlloc high DRAM", nothing,
     [](fixture& f) {
         return korvexSession_memAlloc(f.r->s, 16, 0, KORVEX_MEM_TYPE_DRAM, KORVEX_MEM_HIGHADDR) == nullptr;
     }},
    {"korvexSession_memAlloc VLM", nothing,
     [](fixture& f) { return korvexSession_memAlloc(f.r->s, 0, 0, KORVEX_MEM_TYPE_VLM, 0) == nullptr; }},
    {"korvexSession_memFree", [](fixture& f) { f.p = f.r->dram(16); },
     [](fixture& f) { return korvexSession_memFree(f.r->s, f.p) == -1; }},
    {"korvexSession_memGetInfoFromHostPtr", [](fixture& f) { f.p = f.r->dram(16); },
     [](fixture& f) { return korvexSession_memGetInfoFromHostPtr(f.r->s, f.p, KORVEX_MEM_INFO_GET_DEVICE_VA) == 0; }},
    {"korvexSession_memFlush", [](fixture& f) { f.p = f.r->dram(16); },
     [](fixture& f) { return korvexSession_memFlush(f.r->s, f.p) == -1; }},
    {"korvexSession_memInvalidate", [](fixture& f) { f.p = f.r->dram(16); },
     [](fixture& f) { return korvexSession_memInvalidate(f.r->s, f.p) == -1; }},
    {"korvexSession_cmdBufAlloc", nothing,
     [](fixture& f) { return korvexSession_cmdBufAlloc(f.r->s, 256, 256) == nullptr; }},
    {"korvexSession_cmdBufFree", [](fixture& f) { f.p = f.r->cmdbuf(16); },
     [](fixture& f) { return korvexSession_cmdBufFree(f.r->s, f.p) == -1; }},
    {"korvexSession_createCmd", nothing, [](fixture& f) { return korvexSession_createCmd(f.r->s) == nullptr; }},
    {"korvexSession_deleteCmd", [](fixture& f) { with_subs(f, 2); },
     [](fixture& f) { return korvexSession_deleteCmd(f.r->s, f.cmd) == -1; }},
    {"korvexCmd_setParam", [](fixture& f) { with_subs(f, 0); },
     [](fixture& f) { return korvexCmd_setParam(f.cmd, CMD_PARAM_HARDLIMIT, 5) == -1; }},
    {"korvexCmd_createSubcmd", [](fixture& f) { with_subs(f, 1); },
     [](fixture& f) { return korvexCmd_createSubcmd(f.cmd, KORVEX_DEVICE_QORA) == nullptr; }},
    {"korvexCmd_setDependencyPack", [](fixture& f) { with_subs(f, 2); },
     [](fixture& f) { return korvexCmd_setDependencyPack(f.cmd, f.sub, f.sub2) == -1; }},
    {"korvexSubCmd_setParam", [](fixture& f) { with_subs(f, 1); },
     [](fixture& f) { return korvexSubCmd_setParam(f.sub, SC_PARAM_BOOST_VALUE, 50) == -1; }},
    {"korvexSubCmd_addCmdBuf",
     [](fixture& f) {
         with_subs(f, 1);
         f.p = f.r->cmdbuf(16);
     },
     [](fixture& f) { return korvexSubCmd_addCmdBuf(f.sub, f.p, KORVEX_CB_IN) == -1; }},
    {"korvexCmd_build", [](fixture& f) { with_subs(f, 1); }, [](fixture& f) { return korvexCmd_build(f.cmd) == -1; }},
    {"korvexCmd_run", [](fixture& f) { copy_command(f, false); },
     [](fixture& f) { return korvexCmd_run(f.cmd) == -1; }},
    {"korvexSubCmd_getRunInfo", [](fixture& f) { copy_command(f, true); },
     [](fixture& f) { return korvexSubCmd_getRunInfo(f.sub, SC_RUNINFO_IPTIME) == 0; }},
};

size_t open_files()
{
    size_t n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (d != nullptr && readdir(d) != nullptr)
        n++;
    if (d != nullptr)
        closedir(d);
    return n;
}

// Makes `c` once as it is: the first call of each operation sets up what
// the model keeps for all later ones (its hook counter).
void first_call(const OomCall& c)
{
    kvx_rig r;
    fixture f {&r, nullptr, nullptr, nullptr, nullptr, nullptr};
    c.prepare(f);
    EXPECT_FALSE(c.failed(f)) << c.call;
    if (f.s2 != nullptr)
        korvexSession_deleteInstance(f.s2);
}

// Makes `c` with its n-th allocation failing; returns whether that failure
// happened, checking the answer and what stays held.
bool call_failing_at(const OomCall& c, long n, bool traced)
{
    std::string at = std::string(c.call) + ", allocation " + std::to_string(n) + (traced ? ", traced" : "");
    long live_at_start = g_live;
    size_t files_at_start = open_files();
    bool injected;
    {
        kvx_rig r;
        fixture f {&r, nullptr, nullptr, nullptr, nullptr, nullptr};
        c.prepare(f);
        long live_before = g_live;
        g_failed = false;
        g_until_failure = n;
        bool failed = c.failed(f);
        g_until_failure = 0;
        injected = g_failed;
        // Untraced, a failed allocation always makes the call fail; traced,
        // one in the line written after the work only loses that line.
        if (!traced || !injected) {
            EXPECT_EQ(failed, injected) << at;
        }
        if (failed) {
            EXPECT_EQ(g_live, live_before) << at << ": a failed call kept memory";
        }
        if (f.s2 != nullptr)
            korvexSession_deleteInstance(f.s2);
    }
    EXPECT_EQ(g_live, live_at_start) << at << ": the session did not release everything";
    EXPECT_EQ(open_files(), files_at_start) << at << ": a file stayed open";
    return injected;
}

TEST(EngineModelOutOfMemory, EveryCallAnswersFailureAndKeepsNothing)
{
    std::string dir = std::string(QORA_TEST_TMPDIR) + "/kvx_model_oom";
    ASSERT_EQ(system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str()), 0);
    for (bool traced : {false, true}) {
        if (traced) {
            setenv("KVX_MODEL_TRACE", (dir + "/calls.txt").c_str(), 1);
            setenv("KVX_MODEL_ITRACE", (dir + "/instructions.txt").c_str(), 1);
        }
        for (const OomCall& c : kCalls) {
            first_call(c);
            long n = 1;
            while (n < 5000 && call_failing_at(c, n, traced))
                n++;
            EXPECT_LT(n, 5000) << c.call;
        }
    }
    unsetenv("KVX_MODEL_TRACE");
    unsetenv("KVX_MODEL_ITRACE");
}

} // namespace
