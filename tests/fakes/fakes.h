// Fakes of the platform libraries for tests of the daemon's own code: virtual
// time, a recording terminal, a scripted download library. They replace the
// libraries of host/ at link time; packets, names and the device's files go
// through the real ones.
// Threads: the recorders may be filled from any thread.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/sync.h"
#include "frame/platform/client_new.h"
#include "frame/platform/http_util.h"
#include "frame/platform/tech_support_msg.h"
#include "frame/platform/tq_thread.h"

namespace fakes {

struct Download {
    std::string url;
    std::string path;
    unsigned flag;
    std::string source;  // dotted text, empty without source address
};
using DownloadScript = std::function<int(DownloadCtx* context, const Download& download)>;

struct State {
    std::string terminal, syslog, tech_output, ham_calls;
    int download_debug, ham_result;
    DownloadScript script;
    std::vector<Download> downloads;
};
inline Mutex g_lock;  // leaf: no callback and no script runs under it
inline State g_state GUARDED_BY(g_lock);

// All of them back to their defaults, nothing recorded.
void Reset();

// What has come since the last call.
#define FAKE_TAKE(type, name, field)                 \
    inline type name() {                             \
        MutexLock guard(g_lock);                     \
        return std::exchange(g_state.field, type{}); \
    }
#define FAKE_SET(type, name, field) \
    inline void name(type value) {  \
        MutexLock guard(g_lock);    \
        g_state.field = value;      \
    }

// --- event loop, virtual time. A thread that runs a loop ends at once: its test
// drives the loop. Using a handle that is not pending aborts.
// Lets time pass on a loop: timers that come due run in order of their time.
void Advance(tq_thread_master* loop, long seconds);
// Runs the read tasks whose descriptors are readable; returns how many ran.
int RunReadable(tq_thread_master* loop);
// Seconds left to the timers that are pending on a loop.
std::vector<long> Timers(tq_thread_master* loop);
// Adding a timer fails while set.
void FailTimers(bool fail);

// --- terminal, debug log, technical support
FAKE_TAKE(std::string, Terminal, terminal)
FAKE_TAKE(std::string, Syslog, syslog)
FAKE_TAKE(std::string, TechOutput, tech_output)

// --- downloads: each call goes to the script, which gives the result; without
// one every source fails. Debugging: opened minus closed.
FAKE_SET(const DownloadScript&, ScriptDownloads, script)
FAKE_TAKE(std::vector<Download>, Downloads, downloads)
FAKE_TAKE(int, DownloadDebug, download_debug)

// --- health monitor: result of every call; calls so far as "name(argument,...)"
// lines without process and thread ids
FAKE_SET(int, SetHamResult, ham_result)
FAKE_TAKE(std::string, HamCalls, ham_calls)

}  // namespace fakes
