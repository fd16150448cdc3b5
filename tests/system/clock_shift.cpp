// Preloaded into a daemon under test: shifts its wall clock and its monotonic
// clock by the two numbers of seconds in the shared file named by CLOCK_SHIFT_FILE,
// read anew at every call. The coarse clocks and the kernel's own timers stay true;
// so that an event loop sees soon what a shift made due, the third word bounds its
// sleep, and the last two count how often the main thread's loop and another's went
// to sleep: a loop that did so twice after a shift has run all that became due.
// Threads: any; the file's words are read and written with one access each.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

struct Shift {
    int64_t wall_s;
    int64_t monotonic_s;
    int64_t sleep_max_ns;  // 0: as long as the loop wants
    int64_t turns[2];
};

Shift* map_shift() {
    const char* path = getenv("CLOCK_SHIFT_FILE");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    void* map = mmap(nullptr, sizeof(Shift), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return map == MAP_FAILED ? nullptr : static_cast<Shift*>(map);
}

Shift* s_shift = map_shift();

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

int timerfd_settime(int fd, int flags, const itimerspec* wanted, itimerspec* before) {
    itimerspec value = *wanted;
    const int64_t most_ns = s_shift == nullptr ? 0 : s_shift->sleep_max_ns;
    if (most_ns != 0 && (value.it_value.tv_sec != 0 || value.it_value.tv_nsec > most_ns)) {
        value.it_value = {0, most_ns};
    }
    if (s_shift != nullptr) {
        __atomic_fetch_add(&s_shift->turns[gettid() == getpid() ? 0 : 1], 1, __ATOMIC_RELEASE);
    }
    return static_cast<int>(syscall(SYS_timerfd_settime, fd, flags, &value, before));
}
}
