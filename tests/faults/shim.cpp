// Preloaded into the daemon: makes one of its calls fail, or ends the process there,
// and keeps a journal of what reached the disk.
//
// A call that can fail is known by its path: the function and the return addresses
// down to the thread's start, relative to their libraries, so that it is the same
// one in every run of a build. Calls are counted by path in a page shared with the
// driver, which names the path, the occurrence and what shall happen. Only calls
// that come from the program itself count, not those of the loader.
//
// The journal is a folder: "log" has a line for every change of names, and every
// sync copies the file to a number of its own. Nothing is really synced. The
// identity of the system's boot is read from a file of the driver's.
// Threads: any.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <unwind.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

// The layouts below are device.py's, too.
constexpr int FRAMES = 24;
constexpr uint64_t ENTRIES = 1 << 15;
constexpr int SHORT = -1;  // in place of an error's number: half of the bytes

// Groups of calls. GROWTH is what a full disk refuses, WAIT what a signal interrupts.
constexpr uint32_t ALLOC = 1, DESCRIPTOR = 2, DISK = 4, NETWORK = 8, LOOP = 16;
constexpr uint32_t THREAD = 32, GROWTH = 64, WAIT = 128;
enum Kind : uint32_t { COUNT, ONCE, FOR_EVER, KILL };

struct Entry {
    uint64_t path;  // 0: free
    uint32_t hits;
    uint32_t groups;
    char call[16];
    uint64_t frames[FRAMES];
};

struct Page {
    uint64_t path;
    uint32_t occurrence;
    int32_t error;
    uint32_t kind;
    uint32_t groups;  // FOR_EVER: of which all calls fail once the point was reached
    uint32_t armed;   // calls count
    uint32_t hit;     // the point was reached
    uint32_t mended;
    uint32_t owner;  // the first process that maps it; the others are left alone
    Entry entries[ENTRIES];
};

Page* s_page;
const char* s_journal;
uint32_t s_copies;
thread_local bool t_own __attribute__((tls_model("initial-exec")));  // the shim's own calls

struct Own {
    Own() { t_own = true; }
    ~Own() { t_own = false; }
};

bool is_watched() { return s_page != nullptr && !t_own; }

// Not before the program's own code runs: earlier calls are the loader's.
__attribute__((constructor)) void map_page() {
    const Own own;
    s_journal = getenv("FAULTS_JOURNAL");
    const char* path = getenv("FAULTS_PAGE");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    void* map = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    auto* page = static_cast<Page*>(map);
    if (map == MAP_FAILED || page->owner != 0) return;
    page->owner = static_cast<uint32_t>(getpid());
    s_page = page;
    (void)pthread_atfork(nullptr, nullptr, [] { s_page = nullptr; });
}

struct Trace {
    uint64_t path;
    uint64_t frames[FRAMES];
    int count;
    bool of_program;
};

_Unwind_Reason_Code add_frame(_Unwind_Context* context, void* argument) {
    auto* trace = static_cast<Trace*>(argument);
    const uint64_t address = _Unwind_GetIP(context) - 1;
    dl_find_object found{};
    if (_dl_find_object(reinterpret_cast<void*>(address), &found) != 0) return _URC_END_OF_STACK;
    trace->of_program |= found.dlfo_link_map->l_name[0] == '\0';
    if (trace->count < FRAMES) trace->frames[trace->count++] = address;
    trace->path = (trace->path ^ (address - found.dlfo_link_map->l_addr)) * 0x9E3779B97F4A7C15;
    trace->path ^= trace->path >> 29;
    return _URC_NO_REASON;
}

Entry* entry_of(const Trace& trace, const char* call, uint32_t groups) {
    for (uint64_t i = trace.path, tries = 0; tries < ENTRIES; ++i, ++tries) {
        Entry* entry = &s_page->entries[i % ENTRIES];
        uint64_t expected = 0;
        if (__atomic_compare_exchange_n(&entry->path, &expected, trace.path, false,
                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
            entry->groups = groups;
            strncpy(entry->call, call, sizeof(entry->call) - 1);
            memcpy(entry->frames, trace.frames, sizeof(entry->frames));
            return entry;
        }
        if (expected == trace.path) return entry;
    }
    return nullptr;
}

// What happens at this call: 0 or the error's number. May not return.
int fault(const char* call, uint32_t groups) {
    if (!is_watched() || groups == 0) return 0;
    if (s_page->kind == FOR_EVER && s_page->hit != 0) {
        return s_page->mended == 0 && (s_page->groups & groups) != 0 ? s_page->error : 0;
    }
    if (__atomic_load_n(&s_page->armed, __ATOMIC_ACQUIRE) == 0) return 0;
    const Own own;
    Trace trace{};
    for (const char* c = call; *c != '\0'; ++c) trace.path = trace.path * 31 + uint64_t(*c);
    (void)_Unwind_Backtrace(add_frame, &trace);
    Entry* entry = trace.of_program ? entry_of(trace, call, groups) : nullptr;
    if (entry == nullptr) return 0;
    const uint32_t hits = __atomic_add_fetch(&entry->hits, 1, __ATOMIC_ACQ_REL);
    if (s_page->kind == COUNT || trace.path != s_page->path || hits != s_page->occurrence) return 0;
    s_page->hit = 1;
    if (s_page->kind == KILL) (void)kill(getpid(), SIGKILL);
    return s_page->error;
}

// What can happen to a call on this descriptor; flags are those of send and recv. A disk
// does not interrupt, an event or timer descriptor does not fail.
uint32_t groups_on(long fd, uint32_t of_file, long flags = 0) {
    if (!is_watched() || fd == STDERR_FILENO) return 0;  // a pipe, on a device
    const Own own;
    struct stat status {};
    (void)fstat(int(fd), &status);
    if (S_ISREG(status.st_mode)) return of_file;
    if (!S_ISSOCK(status.st_mode) && !S_ISFIFO(status.st_mode)) return 0;
    const bool waits = (flags & MSG_DONTWAIT) == 0 && (fcntl(int(fd), F_GETFL) & O_NONBLOCK) == 0;
    return NETWORK | (waits ? WAIT : 0);
}

// ---- the journal; called with t_own set

void note(const char* what, const fs::path& path, const std::string& other = "") {
    std::ofstream(s_journal + std::string("/log"), std::ios::app)
        << what + ("\t" + path.string()) + "\t" + other + "\n";
}

std::string link_of(long fd) { return "/proc/self/fd/" + std::to_string(fd); }

fs::path path_of(long fd) {
    std::error_code ignored;
    return fs::read_symlink(link_of(fd), ignored);
}

// What a sync makes safe: a folder's names, or a copy of the file and its attributes.
void note_sync(long fd) {
    const std::string from = link_of(fd);
    const std::string number = std::to_string(__atomic_add_fetch(&s_copies, 1, __ATOMIC_RELAXED));
    const std::string to = s_journal + ("/" + number);
    std::error_code ignored;
    if (!fs::copy_file(from, to, ignored)) return note("syncdir", path_of(fd));
    char names[1024];
    char value[8192];
    const ssize_t length = listxattr(from.c_str(), names, sizeof(names));
    for (const char* name = names; name < names + length; name += strlen(name) + 1) {
        const ssize_t size = getxattr(from.c_str(), name, value, sizeof(value));
        if (size >= 0) (void)setxattr(to.c_str(), name, value, static_cast<size_t>(size), 0);
    }
    note("sync", path_of(fd), number);
}

const char* text(long argument) { return reinterpret_cast<const char*>(argument); }

// Another boot of the machine is one of the driver's files with other words in it.
long in_place_of(long path) {
    const bool is_boot = strcmp(text(path), "/proc/sys/kernel/random/boot_id") == 0;
    return is_boot ? reinterpret_cast<long>(getenv("FAULTS_BOOT_ID")) : path;
}

bool is_new(long folder, long path, long flags) {
    return (flags & O_CREAT) != 0 &&
           faccessat(int(folder), text(path), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
}

// What a call returns that fails; some return the error itself or no record.
long failed(int error, const char* call) {
    if (call[0] == 'p' && (strstr(call, "_create") || strstr(call, "_spawn"))) return error;
    errno = error;
    return strcmp(call, "fopen") == 0 ? 0 : -1;
}

}  // namespace

// ---- the calls

extern "C" {

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

#define ALLOCATION(name, parameters, real)     \
    void* name parameters {                    \
        const int error = fault(#name, ALLOC); \
        if (error == 0) return real;           \
        errno = error;                         \
        return nullptr;                        \
    }
ALLOCATION(malloc, (size_t size), __libc_malloc(size))
ALLOCATION(calloc, (size_t count, size_t size), __libc_calloc(count, size))
ALLOCATION(realloc, (void* old, size_t size), __libc_realloc(old, size))

// Random delays are the shortest, so that a run takes the same time again.
int rand() { return 0; }

// Every argument of these calls is a word in a register: six words pass on any of
// them, whatever its type. The asm name keeps clear of the headers' declarations.
// The groups, "before" and "after" see the arguments as a to f; after sees the result.
using Call = long(long, long, long, long, long, long);
#define WATCHED(action)          \
    if (is_watched()) {          \
        const Own own;           \
        const int saved = errno; \
        action;                  \
        errno = saved;           \
    }
#define UNUSED [[maybe_unused]]
#define CALL_WITH(groups, name, before, perform, after)                                    \
    Call faults_##name __asm__(#name);                                                     \
    long faults_##name(long a, UNUSED long b, UNUSED long c, UNUSED long d, UNUSED long e, \
                       UNUSED long f) {                                                    \
        UNUSED static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, #name)); \
        const int error = fault(#name, groups);                                            \
        if (error > 0) return failed(error, #name);                                        \
        if (error == SHORT && c > 1) c /= 2;                                               \
        UNUSED bool creates = false;                                                       \
        WATCHED(before)                                                                    \
        const long result = perform;                                                       \
        if (int(result) >= 0) WATCHED(after)                                               \
        return result;                                                                     \
    }
#define REAL real(a, b, c, d, e, f)
#define CALL(groups, name) CALL_WITH(groups, name, , REAL, )
#define AFTER(groups, name, after) CALL_WITH(groups, name, , REAL, after)
#define OPEN(name, folder, path, flags)                          \
    CALL_WITH(DESCRIPTOR | DISK, name, path = in_place_of(path); \
              creates = is_new(folder, path, flags), REAL,       \
              if (creates) note("create", path_of(result)))
#define SYNC(name) CALL_WITH(DISK, name, note_sync(a), 0, )

// clang-format off
OPEN(open, AT_FDCWD, a, b) OPEN(open64, AT_FDCWD, a, b) OPEN(openat, a, b, c)
AFTER(DISK | GROWTH, mkdir, note("mkdir", text(a)))
AFTER(DISK | GROWTH, rename, note("rename", text(a), text(b)))
AFTER(DISK, unlink, note("unlink", text(a)))
AFTER(DISK, unlinkat, note("unlink", path_of(a) / text(b)))
SYNC(fsync) SYNC(fdatasync)
CALL(groups_on(a, DISK), read) CALL(groups_on(a, DISK), pread)
CALL(groups_on(a, DISK | GROWTH), write) CALL(groups_on(a, DISK | GROWTH), pwrite)
CALL(DISK | GROWTH, ftruncate) CALL(DISK | GROWTH, fsetxattr) CALL(DISK | GROWTH, lsetxattr)
CALL(DISK, access) CALL(DISK, fstatat) CALL(DISK, fstatvfs) CALL(DISK, lgetxattr)
CALL(DISK, lremovexattr) CALL(DISK, fgetxattr) CALL(DISK, fremovexattr) CALL(DISK, stat)
CALL(DISK, lstat) CALL(DISK, fstat) CALL(DISK, statvfs) CALL(DISK, fchmod) CALL(DISK, chmod)
CALL(b == F_SETLK ? DISK : b == F_DUPFD_CLOEXEC ? DESCRIPTOR : 0, fcntl)
CALL(DESCRIPTOR, fopen) CALL(DESCRIPTOR, socket) CALL(DESCRIPTOR, socketpair)
CALL(DESCRIPTOR, epoll_create1) CALL(DESCRIPTOR, eventfd) CALL(DESCRIPTOR, pipe2)
CALL(DESCRIPTOR, timerfd_create) CALL(DESCRIPTOR | groups_on(a, 0), accept4)
CALL(NETWORK, bind) CALL(NETWORK, listen) CALL(NETWORK, getsockname) CALL(NETWORK, setsockopt)
CALL(groups_on(a, 0), connect) CALL(groups_on(a, 0, d), send) CALL(groups_on(a, 0, d), sendto)
CALL(groups_on(a, 0, c), sendmsg) CALL(groups_on(a, 0, d), recv) CALL(groups_on(a, 0, c), recvmsg)
CALL(b == EPOLL_CTL_ADD ? LOOP : 0, epoll_ctl)
CALL(WAIT, epoll_wait) CALL(WAIT, poll) CALL(WAIT, select)
CALL(THREAD, pthread_create) CALL(THREAD, posix_spawn)
// clang-format on
}
