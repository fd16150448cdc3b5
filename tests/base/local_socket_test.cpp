// Where a local socket can be, and what is said when its queue is full.
#include "base/local_socket.h"

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

TEST(LocalSocket, FullQueueAndLongPathAreToldApart) {
    const TempDir dir;
    const std::string longest = (dir / "socket").append(107 - (dir / "socket").size(), 'x');
    UniqueFd listener, first, second;
    EXPECT_EQ(local_listen((longest + "x").c_str(), 0600, 0, &listener), ENAMETOOLONG);
    EXPECT_EQ(local_connect((longest + "x").c_str(), 1, &first), ENAMETOOLONG);
    ASSERT_EQ(local_listen(longest.c_str(), 0600, 0, &listener), 0);
    EXPECT_EQ(local_connect(longest.c_str(), 1, &first), 0);
    EXPECT_EQ(local_connect(longest.c_str(), 1, &second), ETIMEDOUT);
    listener.reset();
    EXPECT_EQ(local_connect(longest.c_str(), 1, &second), ECONNREFUSED);
}
