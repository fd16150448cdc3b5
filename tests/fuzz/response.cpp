// A server's response as it comes from the socket: header, length, body.
#include <fcntl.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "base/unique_fd.h"
#include "http/exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int ends[2];
    if (size > 60000 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) return 0;
    const UniqueFd fd(ends[0]);
    UniqueFd server(ends[1]);
    (void)send(server.get(), data, size, MSG_NOSIGNAL);  // fits the socket's buffer
    server.reset();
    OwnedCommBuf body;
    const bool taken = pkg_recv(fd.get(), &body) == 0;
    if (taken && comm_buf_len(&body) > size) __builtin_trap();
    return 0;
}
