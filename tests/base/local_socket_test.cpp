// Where local sockets listen, and what is said when nobody does.
#include "base/local_socket.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/temp_dir.h"

TEST(LocalSocket, ListensForItsModeInPlaceOfWhatWasLeft) {
    const TempDir dir;
    const std::string path = dir / "socket";
    UniqueFd listener;
    UniqueFd connection;
    const auto connected = [&](const std::string& where) {
        return local_connect(where.c_str(), 1, &connection);
    };
    EXPECT_EQ(connected(path), ENOENT);
    dir.Write("socket", "left over");
    ASSERT_EQ(local_listen(path.c_str(), 0600, 0, &listener), 0);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0600u);
    EXPECT_EQ(connected(path), 0);
    UniqueFd second;
    EXPECT_EQ(local_connect(path.c_str(), 1, &second), ETIMEDOUT) << "the queue is full";
    listener.reset();
    EXPECT_EQ(connected(path), ECONNREFUSED);

    const std::string longest = path + std::string(107 - path.size(), 'x');
    EXPECT_EQ(local_listen(longest.c_str(), 0600, 1, &listener), 0);
    EXPECT_EQ(local_listen((longest + "x").c_str(), 0600, 1, &second), ENAMETOOLONG);
    EXPECT_EQ(connected(longest + "x"), ENAMETOOLONG);
    EXPECT_EQ(local_listen((dir / "none/socket").c_str(), 0600, 1, &second), ENOENT);
    EXPECT_FALSE(second.valid());
}
