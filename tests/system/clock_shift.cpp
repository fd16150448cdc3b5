// Preloaded into a daemon under test: shifts its wall clock and its monotonic
// clock by the two numbers of seconds (signed 64-bit) in the shared file named
// by CLOCK_SHIFT_FILE, read anew at every call. The coarse clocks stay true, and
// with them the timers of the event loops.
// Threads: any; the file's words are read with one load each.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

struct Shift {
    int64_t wall_s;
    int64_t monotonic_s;
};

const Shift* map_shift() {
    const char* path = getenv("CLOCK_SHIFT_FILE");
    const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    void* map = mmap(nullptr, sizeof(Shift), PROT_READ, MAP_SHARED, fd, 0);
    return map == MAP_FAILED ? nullptr : static_cast<const Shift*>(map);
}

const Shift* s_shift = map_shift();

int64_t shift_of(clockid_t clock) {
    if (s_shift == nullptr) return 0;  // no file, or before this library's own start
    if (clock == CLOCK_REALTIME) return __atomic_load_n(&s_shift->wall_s, __ATOMIC_RELAXED);
    if (clock == CLOCK_MONOTONIC) return __atomic_load_n(&s_shift->monotonic_s, __ATOMIC_RELAXED);
    return 0;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) {
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (result == 0) now->tv_sec += shift_of(clock);
    return static_cast<int>(result);
}

time_t time(time_t* result) {
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);  // can't fail for this clock
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}
}
