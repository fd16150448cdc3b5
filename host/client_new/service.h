// The listening socket and the traffic of the sessions.
// Threads: the main loop's only.
#pragma once

#include <string>

#include "frame/platform/tq_thread.h"

namespace client_new {

// Listens at the path, for the daemon's own user alone; once it does, a further call
// changes nothing. A stale socket file is replaced. False: the socket can't be had;
// nothing is left behind.
bool service_listen(tq_thread_master* master, const std::string& path);

// Commands are taken from now on; who came earlier was kept waiting. False: nobody
// listens yet.
bool service_start();

// Adds a task without which the service would be deaf, by arm(), which is called again
// for some seconds while it fails. Then the process ends, and a restart mends it.
void service_must(const char* name, bool (*arm)());

}  // namespace client_new
