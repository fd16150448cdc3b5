// A point on the monotonic clock up to which a call may wait.
// Header only. Threads: any; works on its arguments only.
#pragma once

#include <time.h>

#include <cstdint>

class Deadline {
  public:
    explicit Deadline(int64_t wait_ms) {
        (void)clock_gettime(CLOCK_MONOTONIC, &at_);
        const int64_t nsec = at_.tv_nsec + wait_ms % 1000 * 1000000;
        at_.tv_sec += wait_ms / 1000 + nsec / 1000000000;
        at_.tv_nsec = nsec % 1000000000;
    }

    // Milliseconds left, rounded up so that a poll() of as long ends after the
    // deadline; 0 once it has passed.
    [[nodiscard]] int LeftMs() const {
        timespec now{};
        (void)clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t nsec =
            (at_.tv_sec - now.tv_sec) * INT64_C(1000000000) + at_.tv_nsec - now.tv_nsec;
        return nsec <= 0 ? 0 : static_cast<int>((nsec + 999999) / 1000000);
    }
    [[nodiscard]] const timespec& At() const { return at_; }

  private:
    timespec at_{};
};
