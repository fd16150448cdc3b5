// The monotonic clock, and a point on it. Header only.
// Threads: any; works on its arguments only.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <limits>

constexpr int64_t NS_PER_S = 1'000'000'000;

// Since the device started.
inline int64_t monotonic_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // can't fail for this clock
    return int64_t{now.tv_sec} * NS_PER_S + now.tv_nsec;
}
inline int64_t monotonic_ms() { return monotonic_ns() / 1'000'000; }
inline int64_t monotonic_s() { return monotonic_ns() / NS_PER_S; }

// Up to when something may take.
class Deadline {
  public:
    // From now; wait_ms is 0 or more, up to a century.
    explicit Deadline(int64_t wait_ms) : at_ns_(monotonic_ns() + wait_ms * 1'000'000) {}

    // Rounded up, so that a poll() of as long ends after the deadline; 0 once it has
    // passed.
    [[nodiscard]] int LeftMs() const {
        const int64_t left_ms = (at_ns_ - monotonic_ns() + 999'999) / 1'000'000;
        constexpr int64_t most_ms = std::numeric_limits<int>::max();
        return static_cast<int>(std::clamp(left_ms, int64_t{0}, most_ms));
    }
    // For pthread_cond_clockwait() on CLOCK_MONOTONIC.
    [[nodiscard]] timespec At() const {
        return {static_cast<time_t>(at_ns_ / NS_PER_S), static_cast<long>(at_ns_ % NS_PER_S)};
    }

  private:
    int64_t at_ns_;
};
