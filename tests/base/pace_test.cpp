#include "base/pace.h"

#include <gtest/gtest.h>

TEST(Pace, CountsWhatComesInAnyTwoMinutes) {
    uint64_t bytes = 0;
    // So many bytes a second, looked at every 200 ms; when the peer is found too slow.
    const auto keeps = [&](Pace* pace, int from_s, int until_s, uint64_t bytes_per_s) {
        for (int ms = from_s * 1000; ms < until_s * 1000; ms += 200) {
            bytes += bytes_per_s / 5;
            if (!pace->Keeps(ms, bytes)) return ms / 1000;
        }
        return until_s;
    };
    Pace slow(0);
    EXPECT_NEAR(120, keeps(&slow, 0, 1000, 500), 1) << "just too slow";
    bytes = 0;
    Pace honest(0);
    EXPECT_EQ(1000, keeps(&honest, 0, 1000, 1000));
    EXPECT_EQ(1050, keeps(&honest, 1000, 1050, 0)) << "a pause";
    EXPECT_EQ(1051, keeps(&honest, 1050, 1051, 200000)) << "and a burst";
    EXPECT_NEAR(1171, keeps(&honest, 1051, 2000, 10), 6) << "which helps no longer";
}
