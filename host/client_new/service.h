// The listening socket and the traffic of the sessions.
// Threads: the main loop's only.
#pragma once

#include <string>

#include "frame/platform/tq_thread.h"

namespace client_new {

// Listens at the path, for the daemon's own user alone. A stale socket file is
// replaced. False: the socket can't be had; nothing is left behind.
bool service_listen(tq_thread_master* master, const std::string& path);

// Commands are taken from now on; who came earlier was kept waiting.
bool service_start();

}  // namespace client_new
