// The device: identity texts and files, health monitor, CPU rule.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frame/platform/cpurule.h"
#include "frame/platform/tq_proc_ham.h"
#include "frame/platform/tqsys.h"
#include "tests/fakes/fake_state.h"
#include "tests/fakes/fakes.h"

namespace fakes {

Mutex fake_lock;

struct SystemState {
    std::map<std::string, std::string> texts;
    std::map<std::string, std::string> files;
    int ham_result;
    std::string ham_calls;
    std::vector<int> cpus;
    std::string cpu_process;
};
static SystemState s_state GUARDED_BY(fake_lock);

void ResetSystem() { s_state = SystemState{}; }

void Reset() {
    MutexLock guard(fake_lock);
    ResetLoops();
    ResetTerminal();
    ResetNetwork();
    ResetSystem();
}

void SetSystemText(const std::string& call, const std::string& text) {
    MutexLock guard(fake_lock);
    s_state.texts[call] = text;
}

void SetDeviceFile(const std::string& path, const std::string& content) {
    MutexLock guard(fake_lock);
    s_state.files[path] = content;
}

void SetHamResult(int result) {
    MutexLock guard(fake_lock);
    s_state.ham_result = result;
}

std::string HamCalls() {
    MutexLock guard(fake_lock);
    return s_state.ham_calls;
}

void SetCpuRule(const std::vector<int>& cpus) {
    MutexLock guard(fake_lock);
    s_state.cpus = cpus;
}

std::string CpuRuleProcess() {
    MutexLock guard(fake_lock);
    return s_state.cpu_process;
}

static char* SystemText(const char* call) {
    MutexLock guard(fake_lock);
    const auto text = s_state.texts.find(call);
    return text == s_state.texts.end() ? nullptr : strdup(text->second.c_str());
}

static int HamCall(const char* call, int first, int second) {
    MutexLock guard(fake_lock);
    s_state.ham_calls +=
        std::string(call) + "(" + std::to_string(first) + "," + std::to_string(second) + ")\n";
    return s_state.ham_result;
}

}  // namespace fakes

using namespace fakes;

extern "C" {

char* tqsys_get_os_name() { return SystemText(__func__); }
char* tqsys_get_project() { return SystemText(__func__); }
char* tqsys_get_release_type() { return SystemText(__func__); }
char* tqsys_get_release() { return SystemText(__func__); }
char* tqsys_get_hw_version() { return SystemText(__func__); }

int tqsys_open_device_file(const char* path) {
    MutexLock guard(fake_lock);
    const auto file = s_state.files.find(path);
    if (file == s_state.files.end()) {
        errno = ENOENT;
        return -1;
    }
    const int fd = memfd_create("device", MFD_CLOEXEC);
    if (fd < 0) return -1;
    const std::string& content = file->second;
    if (write(fd, content.data(), content.size()) < 0 || lseek(fd, 0, SEEK_SET) != 0) abort();
    return fd;
}

int reg_process_exit_action(int kind, int action) { return HamCall(__func__, kind, action); }

int ham_client_reg_thread_notify(pid_t, pid_t, int timeout_s, int action) {
    return HamCall(__func__, timeout_s, action);
}

int ham_client_reset_thread_notify(pid_t, pid_t, int timeout_s, int action) {
    return HamCall(__func__, timeout_s, action);
}

int get_cores_affinity(CpuAffinityRequest* request) {
    MutexLock guard(fake_lock);
    s_state.cpu_process = request->process;
    if (s_state.cpus.empty()) return -1;
    CPU_ZERO(&request->cpus);
    for (const int cpu : s_state.cpus) CPU_SET(static_cast<size_t>(cpu), &request->cpus);
    return 0;
}
}
