// The libraries that only record and answer: log, health, and the switch of the downloads'
// debugging.
#include "tests/fakes/fakes.h"

#include <cstdarg>
#include <cstdio>

#include "frame/platform/http_util.h"
#include "frame/platform/syslog_new.h"
#include "frame/platform/tq_proc_ham.h"

namespace fakes {

void Reset() {
    MutexLock guard(g_lock);
    g_state = State{};
}

static int HamCall(const std::string& call, int first, int second) {
    MutexLock guard(g_lock);
    g_state.ham_calls += call + "(" + std::to_string(first) + "," + std::to_string(second) + ")\n";
    return g_state.ham_result;
}

static void DebugDownloads(int change) {
    MutexLock guard(g_lock);
    g_state.download_debug += change;
}

}  // namespace fakes

using namespace fakes;

extern "C" {

int printk_syslog_ext(int, const char*, const char*, int, const char* format, ...) {
    char text[4096];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    MutexLock guard(g_lock);
    g_state.syslog += text;
    if (!g_state.syslog.ends_with('\n')) g_state.syslog += '\n';
    return 0;
}

void http_open_debug() { DebugDownloads(1); }
void http_close_debug() { DebugDownloads(-1); }

int reg_process_exit_action(int kind, int action) { return HamCall(__func__, kind, action); }

int ham_client_reg_thread_notify(pid_t, pid_t, int timeout_s, int action) {
    return HamCall(__func__, timeout_s, action);
}

int ham_client_reset_thread_notify(pid_t, pid_t, int timeout_s, int action) {
    return HamCall(__func__, timeout_s, action);
}
}
