// Local stream sockets, on which the programs of a device meet: where they listen
// and how they are reached.
// Results: 0 or an errno value, as everywhere in base/.
// Threads: any; works on its arguments only.
#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <string_view>

#include "base/unique_fd.h"

// Filled up with zeroes. ENAMETOOLONG: the path has more than 107 bytes.
[[nodiscard]] int local_address(std::string_view path, sockaddr_un* address);

// Gives the socket its file, in place of one that an earlier process has left. The
// file's mode is the socket's (fchmod), less the file-creation mask.
[[nodiscard]] int local_bind(int fd, const char* path);

// A listening socket that does not block. Its file has the mode from the first moment
// on, and is gone again after a failure.
[[nodiscard]] int local_listen(const char* path, mode_t mode, int backlog, UniqueFd* listener);

// A connected socket that blocks. limit_s bounds the wait for a listener that takes
// nobody (ETIMEDOUT), and later each send; 0: for ever.
[[nodiscard]] int local_connect(const char* path, int limit_s, UniqueFd* connection);

// Of any socket.
[[nodiscard]] int socket_set_nonblocking(int fd);
