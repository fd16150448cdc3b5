// Notification datagrams to a service manager.
#include "frame/platform/tq_proc_ham.h"

#include <gtest/gtest.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "base/text.h"
#include "base/unique_fd.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(TqProcHam, TellsTheManagerReadinessAndEachReset) {
    const TempDir dir;
    for (const std::string& name : {dir / "notify", "@" + dir.path() + "/abstract"}) {
        SCOPED_TRACE(name);
        const UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        text_copy(address.sun_path, name);
        if (name[0] == '@') address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        EXPECT_EQ(reg_process_exit_action(0, 2), 0);
        EXPECT_GE(ham_client_reg_thread_notify(1, 1, 120, 3), 0);
        EXPECT_GE(ham_client_reset_thread_notify(1, 1, 120, 3), 0);
        for (const char* message : {"READY=1", "WATCHDOG=1"}) {
            char buffer[256] = "";
            EXPECT_GT(recv(manager.get(), buffer, sizeof buffer, 0), 0);
            EXPECT_STREQ(buffer, message);
        }
    }
}

TEST(TqProcHam, SucceedsAloneAndFailsWhenTheManagerIsOutOfReach) {
    const std::string too_long = "/" + std::string(107, 'x');
    for (const char* socket : {"", "/missing/socket", "relative/path", "@", too_long.c_str()}) {
        setenv("NOTIFY_SOCKET", socket, 1);
        EXPECT_EQ(ham_client_reg_thread_notify(1, 1, 120, 3) >= 0, *socket == '\0') << socket;
    }
}

}  // namespace
