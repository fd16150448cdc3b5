// Process health on the host: the service manager's notification protocol, one
// datagram a message to the socket that NOTIFY_SOCKET names. Without it nobody
// supervises the process, and everything succeeds.
//
// Registering the thread is the daemon's last start-up step, so it tells the
// manager that the service is ready; each reset after that feeds its watchdog.
// The manager's unit file says how long it waits.
#include "frame/platform/tq_proc_ham.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdlib>
#include <string_view>

#include "base/local_socket.h"
#include "base/unique_fd.h"

namespace {

constexpr timeval SEND_LIMIT{1, 0};  // a manager that doesn't read must not hold the main loop

// An absolute path, or '@' and an abstract name, which has no terminator.
// Returns the address's length, or 0 when it is neither or too long.
socklen_t notify_address(std::string_view name, sockaddr_un* address) {
    if (name.size() < 2 || (name[0] != '/' && name[0] != '@')) return 0;
    if (local_address(name, address) != 0) return 0;
    if (name[0] == '/') return sizeof(*address);
    address->sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

int notify(std::string_view message) {
    const char* name = getenv("NOTIFY_SOCKET");
    if (name == nullptr || *name == '\0') return 0;
    sockaddr_un address{};
    const socklen_t length = notify_address(name, &address);
    if (length == 0) return -1;
    const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid() ||
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &SEND_LIMIT, sizeof(SEND_LIMIT)) != 0) {
        return -1;
    }
    const ssize_t sent = sendto(fd.get(), message.data(), message.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), length);
    return sent == static_cast<ssize_t>(message.size()) ? 0 : -1;
}

}  // namespace

// The service manager watches the end of the process by itself.
int reg_process_exit_action(int, int) { return 0; }

int ham_client_reg_thread_notify(pid_t, pid_t, int, int) { return notify("READY=1"); }

int ham_client_reset_thread_notify(pid_t, pid_t, int, int) { return notify("WATCHDOG=1"); }
