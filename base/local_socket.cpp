// A socket file outlives its process, so whoever listens removes what lies at its
// path first: daemons hold a lock that tells a second instance before it comes here.
#include "base/local_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <utility>

#include "base/text.h"

static const sockaddr* generic(const sockaddr_un* address) {
    return reinterpret_cast<const sockaddr*>(address);
}

int local_address(std::string_view path, sockaddr_un* address) {
    sockaddr_un filled{};
    filled.sun_family = AF_UNIX;
    if (!text_copy(filled.sun_path, path)) return ENAMETOOLONG;
    *address = filled;
    return 0;
}

int local_bind(int fd, const char* path) {
    sockaddr_un address{};
    const int error = local_address(path, &address);
    if (error != 0) return error;
    (void)unlink(path);  // bind tells when something is still there
    return bind(fd, generic(&address), sizeof(address)) == 0 ? 0 : errno;
}

int local_listen(const char* path, mode_t mode, int backlog, UniqueFd* listener) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    // Before the file exists, so that nobody gets in between.
    if (!fd.valid() || fchmod(fd.get(), mode) != 0) return errno;
    int error = local_bind(fd.get(), path);
    if (error != 0) return error;
    if (listen(fd.get(), backlog) != 0) {
        error = errno;
        (void)unlink(path);
        return error;
    }
    *listener = std::move(fd);
    return 0;
}

int local_connect(const char* path, int limit_s, UniqueFd* connection) {
    sockaddr_un address{};
    const int error = local_address(path, &address);
    if (error != 0) return error;
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval limit{limit_s, 0};
    if (!fd.valid() || setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0) {
        return errno;
    }
    while (connect(fd.get(), generic(&address), sizeof(address)) != 0) {
        if (errno == EINTR) continue;
        return errno == EAGAIN ? ETIMEDOUT : errno;
    }
    *connection = std::move(fd);
    return 0;
}

int socket_set_nonblocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) >= 0 ? 0 : errno;
}
