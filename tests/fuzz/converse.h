// A peer of one of the daemon's sockets, on the host's real event loop.
#pragma once

#include <sys/socket.h>

#include "base/local_socket.h"
#include "frame/platform/tq_thread.h"
#include "tests/fuzz/fuzz.h"

// Sends the input, and nothing after it; the loop turns until the daemon has closed the
// connection. What it has answered.
static std::string Converse(tq_thread_master* loop, const char* path, std::string_view input) {
    UniqueFd peer;
    Require(local_connect(path, 1, &peer) == 0);
    (void)send(peer.get(), input.data(), input.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)shutdown(peer.get(), SHUT_WR);
    std::string answer;
    for (;;) {
        char bytes[65536];
        const ssize_t got = recv(peer.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN)) return answer;
        if (got > 0) {
            answer.append(bytes, static_cast<size_t>(got));
            continue;
        }
        tq_thread task{};
        Require(tq_thread_fetch(loop, &task) != nullptr);
        tq_thread_call(&task);
    }
}
