// The person at the terminal: typed lines with their filters, words that the program itself
// knows, what is told at leaving, and a daemon that goes away.
// Threads: one.
#pragma once

#include <string_view>

#include "connection.h"

// Runs a line: one of the program's own ("help", "quit", where the daemon has no such
// command and a person types), or the daemon's, through its filters and the pager.
Outcome operator_run(Connection* connection, std::string_view line);

// Says which settings would be lost with the daemon, where there are some.
void operator_leave(Connection* connection);

// The session is lost: says why, and waits for the daemon. True: there is a new session, in
// exec mode. False: the daemon wants none, or the operator none any more.
[[nodiscard]] bool operator_reconnect(Connection* connection);
