// Notification datagrams to a service manager.
#include "frame/platform/tq_proc_ham.h"

#include <gtest/gtest.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "frame/unique_fd.h"
#include "tests/support/temp_dir.h"

namespace {

// A manager's socket at a path, or at an abstract name that begins with '@'.
UniqueFd bind_manager(const std::string& name) {
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name[0] == '@') address.sun_path[0] = '\0';
    const size_t length =
        offsetof(sockaddr_un, sun_path) + name.size() + (name[0] == '@' ? 0U : 1U);
    EXPECT_EQ(
        bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length)),
        0);
    return fd;
}

std::string next_message(const UniqueFd& fd) {
    char buffer[256];
    const ssize_t got = recv(fd.get(), buffer, sizeof buffer, 0);
    return got < 0 ? "(none)" : std::string(buffer, static_cast<size_t>(got));
}

TEST(TqProcHam, TellsTheManagerReadinessAndEachReset) {
    const TempDir dir;
    for (const std::string& name : {dir / "notify", "@" + dir.path() + "/abstract"}) {
        SCOPED_TRACE(name);
        const UniqueFd manager = bind_manager(name);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        EXPECT_EQ(reg_process_exit_action(0, 2), 0);
        EXPECT_GE(ham_client_reg_thread_notify(1, 1, 120, 3), 0);
        EXPECT_GE(ham_client_reset_thread_notify(1, 1, 120, 3), 0);
        EXPECT_EQ(next_message(manager), "READY=1");
        EXPECT_EQ(next_message(manager), "WATCHDOG=1");
        EXPECT_EQ(next_message(manager), "(none)");
    }
    unsetenv("NOTIFY_SOCKET");
}

TEST(TqProcHam, SucceedsAloneAndFailsWhenTheManagerIsOutOfReach) {
    const TempDir dir;
    const std::string missing = dir / "missing", long_name = "/" + std::string(107, 'x');
    const struct {
        const char* socket;
        bool succeeds;
    } rows[] = {{nullptr, true},          {"", true},   {missing.c_str(), false},
                {"relative/path", false}, {"@", false}, {long_name.c_str(), false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.socket == nullptr ? "not set" : row.socket);
        unsetenv("NOTIFY_SOCKET");
        if (row.socket != nullptr) setenv("NOTIFY_SOCKET", row.socket, 1);
        EXPECT_EQ(ham_client_reg_thread_notify(1, 1, 120, 3) >= 0, row.succeeds);
        EXPECT_EQ(ham_client_reset_thread_notify(1, 1, 120, 3) >= 0, row.succeeds);
        EXPECT_EQ(reg_process_exit_action(0, 2), 0);
    }
    unsetenv("NOTIFY_SOCKET");
}

}  // namespace
