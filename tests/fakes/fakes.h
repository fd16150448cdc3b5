// Fakes of the platform libraries for tests of the daemon's own code: virtual time, a
// captured log, a health monitor by script. They stand before the libraries of host/ at link
// time; the others are the real ones.
// Threads: the recorders may be filled from any thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/sync.h"
#include "frame/platform/tq_thread.h"

namespace fakes {

struct State {
    std::string syslog, ham_calls;
    int download_debug, ham_result;
};
inline Mutex g_lock;  // leaf
inline State g_state GUARDED_BY(g_lock);

// All of them back to their defaults, nothing recorded.
void Reset();

// What has come since the last call.
#define FAKE_TAKE(type, name, field)                 \
    inline type name() {                             \
        MutexLock guard(g_lock);                     \
        return std::exchange(g_state.field, type{}); \
    }

// --- event loop, virtual time. A thread that runs a loop ends at once: its test
// drives the loop. Using a handle that is not pending aborts.
// Lets time pass on a loop: timers that come due run in order of their time.
void Advance(tq_thread_master* loop, long seconds);
// Runs the read tasks whose descriptors are readable; returns how many ran.
int RunReadable(tq_thread_master* loop);
// Timers that are pending on a loop.
size_t Timers(tq_thread_master* loop);

// --- debug log; debugging of downloads, opened minus closed
FAKE_TAKE(std::string, Syslog, syslog)
FAKE_TAKE(int, DownloadDebug, download_debug)

// --- health monitor: result of every call; calls so far as "name(argument,...)"
// lines without process and thread ids
inline void SetHamResult(int result) {
    MutexLock guard(g_lock);
    g_state.ham_result = result;
}
FAKE_TAKE(std::string, HamCalls, ham_calls)

}  // namespace fakes
