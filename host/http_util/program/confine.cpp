// Three walls, each enough for most of it: another user, no privilege to gain, and a
// filter that lets through the system calls of a transfer and nothing else. The filter
// answers EPERM instead of killing: another version of libcurl or of the C library may
// try a call that it can do without, and a device in the field must not lose its
// downloads for it.

#include "host/http_util/program/confine.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <pwd.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>

#include "host/http_util/protocol.h"

namespace {

constexpr rlim_t MEMORY_BYTES = 256 << 20;
constexpr rlim_t DESCRIPTORS = 32;
constexpr uid_t NOBODY = 65534;  // where the user of the build has no entry

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#elif defined(__has_feature)
constexpr bool SANITIZED = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool SANITIZED = false;
#endif

bool limits_set() {
    const auto set = [](__rlimit_resource what, rlim_t most) {
        const rlimit limit{most, most};
        // A lower limit of before stays.
        return setrlimit(what, &limit) == 0 || errno == EPERM;
    };
    // A sanitizer maps terabytes.
    return set(RLIMIT_CORE, 0) && set(RLIMIT_NOFILE, DESCRIPTORS) &&
           (SANITIZED || set(RLIMIT_AS, MEMORY_BYTES));
}

bool user_change() {
    if (geteuid() != 0) return true;
    const passwd* entry = getpwnam(HTTP_CLIENT_DOWNLOAD_USER);
    const uid_t user = entry != nullptr ? entry->pw_uid : NOBODY;
    const gid_t group = entry != nullptr ? entry->pw_gid : NOBODY;
    return setgroups(0, nullptr) == 0 && setresgid(group, group, group) == 0 &&
           setresuid(user, user, user) == 0;
}

// Capabilities that a service manager gave to a user other than root.
bool capabilities_drop() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2]{};
    (void)prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    return syscall(SYS_capset, &header, none) == 0;
}

// ---- the filter ----

struct FilterFree {
    void operator()(void* filter) const { seccomp_release(filter); }
};

// Calls with any arguments.
constexpr int FREE_CALLS[] = {
    // the file and the library
    SCMP_SYS(read), SCMP_SYS(pread64), SCMP_SYS(write), SCMP_SYS(pwrite64), SCMP_SYS(writev),
    SCMP_SYS(recvmsg), SCMP_SYS(sendmsg), SCMP_SYS(close),
    // servers
    SCMP_SYS(connect), SCMP_SYS(bind), SCMP_SYS(recvfrom), SCMP_SYS(sendto), SCMP_SYS(shutdown),
    SCMP_SYS(getsockname), SCMP_SYS(getpeername), SCMP_SYS(getsockopt), SCMP_SYS(setsockopt),
    SCMP_SYS(poll), SCMP_SYS(ppoll), SCMP_SYS(fcntl),
    // memory, time, chance, the end
    SCMP_SYS(brk), SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(madvise), SCMP_SYS(futex),
    SCMP_SYS(clock_gettime), SCMP_SYS(gettimeofday), SCMP_SYS(time), SCMP_SYS(getrandom),
    SCMP_SYS(getpid), SCMP_SYS(gettid), SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask),
    SCMP_SYS(rt_sigreturn), SCMP_SYS(restart_syscall), SCMP_SYS(exit), SCMP_SYS(exit_group)};

// What the run-time library of a sanitizer does beside that.
constexpr int SANITIZER_CALLS[] = {SCMP_SYS(sigaltstack), SCMP_SYS(sched_yield),
                                   SCMP_SYS(clock_nanosleep), SCMP_SYS(sched_getaffinity),
                                   SCMP_SYS(getrlimit)};

bool allow(scmp_filter_ctx filter, int call, std::initializer_list<scmp_arg_cmp> conditions) {
    return seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, call,
                                  static_cast<unsigned>(conditions.size()),
                                  conditions.begin()) == 0;
}

scmp_arg_cmp is(unsigned argument, scmp_datum_t value) { return {argument, SCMP_CMP_EQ, value, 0}; }

// None of these bits.
scmp_arg_cmp lacks(unsigned argument, scmp_datum_t bits) {
    return {argument, SCMP_CMP_MASKED_EQ, bits, 0};
}

bool filter_build(scmp_filter_ctx filter) {
    bool ok = true;
    for (const int call : FREE_CALLS) ok = allow(filter, call, {}) && ok;
    if constexpr (SANITIZED) {
        for (const int call : SANITIZER_CALLS) ok = allow(filter, call, {}) && ok;
    }
    const scmp_arg_cmp private_anonymous = {3, SCMP_CMP_MASKED_EQ, MAP_ANONYMOUS, MAP_ANONYMOUS};
    // Whatever the kernel ignores beside the type: SOCK_CLOEXEC, SOCK_NONBLOCK.
    const scmp_arg_cmp is_stream = {1, SCMP_CMP_MASKED_EQ, 0xf, SOCK_STREAM};
    return ok && allow(filter, SCMP_SYS(socket), {is(0, AF_INET), is_stream}) &&
           allow(filter, SCMP_SYS(mmap), {lacks(2, PROT_EXEC), private_anonymous}) &&
           allow(filter, SCMP_SYS(mprotect), {lacks(2, PROT_EXEC)});
}

// 0, or the negative errno of what the kernel refused.
int filter_load() {
    const std::unique_ptr<void, FilterFree> filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)));
    if (!filter || !filter_build(filter.get())) return -ENOMEM;
    return seccomp_load(filter.get());
}

}  // namespace

bool confine(uint32_t* not_confined) {
    *not_confined = 0;
    if (!limits_set() || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
    if (!user_change()) *not_confined |= READY_IS_ROOT;
    if (!capabilities_drop()) *not_confined |= READY_IS_ROOT;
    if (filter_load() != 0) *not_confined |= READY_UNFILTERED;
    // With one wall gone the other still stands.
    return *not_confined != (READY_IS_ROOT | READY_UNFILTERED);
}

void confine_try() {
    char* const arguments[] = {nullptr};
    const auto show = [](const char* name, long result) {
        printf("%s %d\n", name, result < 0 ? errno : 0);
    };
    show("open", open("/etc/passwd", O_RDONLY | O_CLOEXEC));
    show("create", open("/tmp/http_client_download", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    show("execute", execve("/bin/true", arguments, arguments));
    show("fork", fork());
    show("local socket", socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    show("datagram socket", socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    show("netlink socket", socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0));
    show("trace", ptrace(PTRACE_TRACEME, 0, nullptr, nullptr));
    show("signal", kill(getppid(), 0));
    show("attribute", fsetxattr(STDOUT_FILENO, "user.x", "x", 1, 0));
    show("mode", fchmod(STDOUT_FILENO, 0600));
    show("user", setuid(0));
    const void* code =
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    show("executable memory", code == MAP_FAILED ? -1 : 0);
    show("stream socket", socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    (void)fflush(stdout);
}
