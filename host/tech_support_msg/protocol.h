// How a support program asks the daemon for its reports on the host. Header
// only; both sides include it.
//
// The daemon listens on a local stream socket at tech_support_socket_path (mode
// 0600). One connection carries one request line and its reply, then the daemon
// closes it:
//
//   report N\n   report number N (decimal, up to 9 digits)
//                -> complete LENGTH\n and LENGTH bytes of text, or
//                   no report\n when there is no report of that number
//   files\n      -> the path of each offered file, one a line; a file need not
//                   exist
//
// Anything else is closed without a reply, and so is a connection that keeps its
// request or doesn't read while TECH_SUPPORT_CONNECTION_MAX others come after it.
// A reply that ends before its LENGTH is not a report.
// Threads: any; works on its arguments and the environment only.
#pragma once

#include <cstddef>
#include <string>

#include "base/working_dir.h"

constexpr size_t TECH_SUPPORT_REQUEST_MAX = 64;  // with its line end
constexpr size_t TECH_SUPPORT_CONNECTION_MAX = 4;
constexpr size_t TECH_SUPPORT_REPORT_MAX = 1 << 20;  // a longer report is cut and says so

inline std::string tech_support_socket_path() {
    char path[PATH_SIZE];
    working_path(dir_prefix_now(TMP_DIR), ".tech_support", path);
    return path;
}
