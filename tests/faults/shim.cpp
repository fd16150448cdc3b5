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
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <unwind.h>

namespace {

// The layouts below are driver.py's, too.
constexpr int FRAMES = 24;
constexpr uint64_t ENTRIES = 1 << 15;
constexpr int SHORT = -1;  // in place of an error's number: half of the bytes

enum Group : uint32_t {
    ALLOC = 1,
    DESCRIPTOR = 2,
    DISK = 4,
    NETWORK = 8,
    LOOP = 16,
    WAIT = 32,
    THREAD = 64,
    GROWTH = 128,  // what a full disk refuses
};
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
            strncpy(entry->call, call, sizeof entry->call - 1);
            memcpy(entry->frames, trace.frames, sizeof entry->frames);
            return entry;
        }
        if (expected == trace.path) return entry;
    }
    return nullptr;
}

// What happens at this call: 0 or the error's number. May not return.
int fault(const char* call, uint32_t groups) {
    if (s_page == nullptr || t_own) return 0;
    if (s_page->kind == FOR_EVER && s_page->hit != 0) {
        return s_page->mended == 0 && (s_page->groups & groups) != 0 ? s_page->error : 0;
    }
    if (__atomic_load_n(&s_page->armed, __ATOMIC_ACQUIRE) == 0) return 0;
    const Own own;
    Trace trace{};
    for (const char* c = call; *c != '\0'; ++c) trace.path = trace.path * 31 + uint64_t(*c);
    (void)_Unwind_Backtrace(add_frame, &trace);
    if (!trace.of_program) return 0;
    Entry* entry = entry_of(trace, call, groups);
    if (entry == nullptr) return 0;
    const uint32_t hits = __atomic_add_fetch(&entry->hits, 1, __ATOMIC_ACQ_REL);
    if (s_page->kind == COUNT || trace.path != s_page->path || hits != s_page->occurrence) return 0;
    s_page->hit = 1;
    if (s_page->kind == KILL) (void)kill(getpid(), SIGKILL);
    return s_page->error;
}

// ---- the journal

void note(const char* what, const char* path, const char* other = "") {
    if (s_page == nullptr || t_own) return;
    const Own own;
    const int saved = errno;
    char line[1200];
    char name[256];
    (void)snprintf(name, sizeof name, "%s/log", s_journal);
    const int length = snprintf(line, sizeof line, "%s\t%s\t%s\n", what, path, other);
    const int fd = open(name, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    (void)!write(fd, line, static_cast<size_t>(length));
    close(fd);
    errno = saved;
}

void copy_attributes(int from, int to) {
    char names[1024];
    char value[8192];
    const ssize_t length = flistxattr(from, names, sizeof names);
    for (ssize_t at = 0; at < length; at += static_cast<ssize_t>(strlen(names + at)) + 1) {
        const ssize_t size = fgetxattr(from, names + at, value, sizeof value);
        if (size >= 0) (void)fsetxattr(to, names + at, value, static_cast<size_t>(size), 0);
    }
}

using Path = char[512];

void path_of(long fd, Path& path) {
    char link[32];
    (void)snprintf(link, sizeof link, "/proc/self/fd/%ld", fd);
    const ssize_t length = readlink(link, path, sizeof path - 1);
    path[length > 0 ? length : 0] = '\0';
}

// What a sync makes safe: a folder's names, or a copy of the file as it is now.
void note_sync(int fd) {
    if (s_page == nullptr || t_own) return;
    char link[32];
    char copy[300];
    const uint32_t number = __atomic_add_fetch(&s_copies, 1, __ATOMIC_RELAXED);
    (void)snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    (void)snprintf(copy, sizeof copy, "%s/%u", s_journal, number);
    bool is_copied = false;
    {
        const Own own;
        const int from = open(link, O_RDONLY | O_CLOEXEC);
        const int to = open(copy, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ssize_t got = 0;
        while ((got = sendfile(to, from, nullptr, 1 << 20)) > 0) continue;
        is_copied = got == 0;  // a folder can't be
        copy_attributes(from, to);
        close(from);
        close(to);
    }
    Path path;
    path_of(fd, path);
    note(is_copied ? "sync" : "syncdir", path, is_copied ? strrchr(copy, '/') + 1 : "");
}

const char* text(long argument) { return reinterpret_cast<const char*>(argument); }

// Another boot of the machine is one of the driver's files with other words in it.
long in_place_of(long path) {
    const bool is_boot = strcmp(text(path), "/proc/sys/kernel/random/boot_id") == 0;
    const char* other = is_boot ? getenv("FAULTS_BOOT_ID") : nullptr;
    return other == nullptr ? path : reinterpret_cast<long>(other);
}

bool is_to_create(long folder, long path, long flags) {
    if (t_own || (flags & O_CREAT) == 0) return false;
    const Own own;
    return faccessat(int(folder), text(path), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
}

void note_created(long fd) {
    Path path;
    path_of(fd, path);
    if (fd >= 0) note("create", path);
}

void note_unlinked(long folder, long name) {
    Path path;
    path_of(folder, path);
    if (text(name)[0] == '/') path[0] = '\0';
    (void)snprintf(path + strlen(path), sizeof path - strlen(path), "%s%s", *path ? "/" : "",
                   text(name));
    note("unlink", path);
}

// What a call returns that fails; some return the error itself or no record.
long failed(int error, const char* call) {
    if (strncmp(call, "p", 1) == 0 && (strstr(call, "_create") || strstr(call, "_spawn")))
        return error;
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
// "before" and "after" see the arguments as a, b, c; after sees the result, too.
using Call = long(long, long, long, long, long, long);
#define CALL_WITH(groups, name, before, after)                                      \
    Call faults_##name __asm__(#name);                                              \
    long faults_##name(long a, long b, long c, long d, long e, long f) {            \
        static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, #name)); \
        const int error = fault(#name, groups);                                     \
        if (error > 0) return failed(error, #name);                                 \
        if (error == SHORT && c > 1) c /= 2;                                        \
        before;                                                                     \
        const long result = real(a, b, c, d, e, f);                                 \
        after;                                                                      \
        return result;                                                              \
    }
#define CALL(groups, name) CALL_WITH(groups, name, (void)0, (void)0)
#define AFTER(groups, name, action) CALL_WITH(groups, name, (void)0, if (int(result) == 0) action)
#define OPEN(name, folder, path, flags)                              \
    CALL_WITH(DESCRIPTOR | DISK, name, path = in_place_of(path);     \
              const bool is_new = is_to_create(folder, path, flags), \
              if (is_new) note_created(int(result)))
#define SYNC(name)                                              \
    Call faults_##name __asm__(#name);                          \
    long faults_##name(long fd, long, long, long, long, long) { \
        const int error = fault(#name, DISK);                   \
        if (error != 0) return failed(error, #name);            \
        note_sync(int(fd));                                     \
        return 0;                                               \
    }

OPEN(open, AT_FDCWD, a, b)
OPEN(open64, AT_FDCWD, a, b)
OPEN(openat, a, b, c)
AFTER(DISK | GROWTH, mkdir, note("mkdir", text(a)))
AFTER(DISK | GROWTH, rename, note("rename", text(a), text(b)))
AFTER(DISK, unlink, note_unlinked(-1, a))
AFTER(DISK, unlinkat, note_unlinked(a, b))
SYNC(fsync)
SYNC(fdatasync)
// clang-format off
CALL(DISK, read) CALL(DISK, pread)
CALL(DISK | GROWTH, write) CALL(DISK | GROWTH, pwrite) CALL(DISK | GROWTH, ftruncate)
CALL(DISK | GROWTH, fsetxattr) CALL(DISK | GROWTH, lsetxattr)
CALL(DISK, access) CALL(DISK, fstatat) CALL(DISK, fstatvfs) CALL(DISK, lgetxattr)
CALL(DISK, lremovexattr) CALL(DISK, fgetxattr) CALL(DISK, fremovexattr) CALL(DISK, stat) CALL(DISK, lstat)
CALL(DISK, fstat) CALL(DISK, statvfs) CALL(DISK, fchmod) CALL(DISK, chmod) CALL(DISK, fcntl)
CALL(DESCRIPTOR, fopen) CALL(DESCRIPTOR, socket) CALL(DESCRIPTOR, socketpair)
CALL(DESCRIPTOR, accept4) CALL(DESCRIPTOR, epoll_create1) CALL(DESCRIPTOR, eventfd)
CALL(DESCRIPTOR, pipe2) CALL(DESCRIPTOR, timerfd_create)
CALL(NETWORK, bind) CALL(NETWORK, listen) CALL(NETWORK, connect) CALL(NETWORK, getsockname)
CALL(NETWORK, setsockopt) CALL(NETWORK, send) CALL(NETWORK, sendto) CALL(NETWORK, sendmsg)
CALL(NETWORK, recv) CALL(NETWORK, recvmsg)
CALL(LOOP, epoll_ctl)
CALL(WAIT, epoll_wait) CALL(WAIT, poll) CALL(WAIT, select)
CALL(THREAD, pthread_create) CALL(THREAD, posix_spawn)
// clang-format on
}
