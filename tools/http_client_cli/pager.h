// Long text a page at a time.
// Threads: one.
#pragma once

#include <string_view>

#include "connection.h"

// Writes the text, which goes on a terminal that a person types at. Where it is longer than
// the window, each page waits for a key: space the next page, Enter a line, q or Ctrl+C no
// more. False: the program is to end; the session may be lost, too.
[[nodiscard]] bool pager_show(Connection* connection, std::string_view text);
