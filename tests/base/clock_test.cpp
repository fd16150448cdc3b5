// Deadlines on the real clock.
#include "base/clock.h"

#include <gtest/gtest.h>

TEST(Deadline, LastsAsLongAsAskedAndNoShorter) {
    EXPECT_EQ(Deadline(0).LeftMs(), 0);
    EXPECT_EQ(Deadline(int64_t{100} * 365 * 86400 * 1000).LeftMs(),
              std::numeric_limits<int>::max());
    const int64_t begin_ns = monotonic_ns();
    const Deadline deadline(20);
    EXPECT_LE(deadline.LeftMs(), 20);
    while (deadline.LeftMs() > 0) continue;
    EXPECT_GE(monotonic_ns() - begin_ns, 20'000'000);
    const int64_t at_ns = int64_t{deadline.At().tv_sec} * NS_PER_S + deadline.At().tv_nsec;
    EXPECT_GE(at_ns - begin_ns, 20'000'000);
    EXPECT_LE(at_ns, monotonic_ns());
}
