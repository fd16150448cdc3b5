// The program's work: targets of the library, one after the other, over connections that
// are kept for the next one.
// Threads: the program's only one.
#pragma once

#include "host/http_util/protocol.h"

// Everything that is needed of the file system, read while it can be; the library's side
// of the socket hears from it first in session_run().
[[nodiscard]] bool session_prepare();

// Serves until the library has gone, or wants nothing more for a few seconds.
void session_run(int socket, const ReadyMessage& ready);
