// A server's response as it comes from the socket: header, length, body.
#include <sys/socket.h>

#include "base/unique_fd.h"
#include "buffer/comm_buf.h"
#include "http/exchange.h"
#include "tests/fuzz/fuzz.h"

static void Prepare() {}

static void Try(std::string_view input) {
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0);
    const UniqueFd fd(ends[0]);
    UniqueFd server(ends[1]);
    (void)send(server.get(), input.data(), input.size(), MSG_NOSIGNAL);  // fits its buffer
    server.reset();
    OwnedCommBuf body;
    const bool taken = pkg_recv(fd.get(), &body) == 0;
    Require(!taken || comm_buf_len(&body) <= input.size());
}
