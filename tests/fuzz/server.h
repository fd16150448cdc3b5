// The only server there is for libcurl: each connection gets the next answer of those that
// "\n~\n" separates, then always the last, and its end.
#pragma once

#include <sys/socket.h>

#include "base/unique_fd.h"
#include "tests/fuzz/fuzz.h"

static std::string_view s_answers;
static UniqueFd s_server;

extern "C" int connect(int fd, const sockaddr*, socklen_t) {
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0);
    const UniqueFd client(ends[0]);
    s_server.reset(ends[1]);
    std::string_view others = s_answers;
    const std::string_view answer = Take(&others, "\n~\n");
    if (!others.empty()) s_answers = others;
    (void)send(ends[1], answer.data(), answer.size(), MSG_NOSIGNAL);
    (void)shutdown(ends[1], SHUT_WR);
    return dup2(client.get(), fd) == fd ? 0 : -1;
}
