// Outcome of a version check or an update run, for a whole server pass and for
// each app within it, with its message.
// Threads: any; constants and arguments only.
#pragma once

#include <cstdint>

using UpdateStatus = uint32_t;
constexpr UpdateStatus UPDATE_OK = 0;
constexpr UpdateStatus UPDATE_NO_APPS = 1;
constexpr UpdateStatus UPDATE_NOT_REGISTERED = 2;
constexpr UpdateStatus UPDATE_RUNNING = 3;
constexpr UpdateStatus UPDATE_CONNECT_FAIL = 4;
constexpr UpdateStatus UPDATE_SEND_FAIL = 5;
constexpr UpdateStatus UPDATE_RECEIVE_FAIL = 6;
constexpr UpdateStatus UPDATE_NO_MEMORY = 7;
constexpr UpdateStatus UPDATE_BAD_REPLY = 8;
constexpr UpdateStatus UPDATE_ALL_BUSY = 9;
constexpr UpdateStatus UPDATE_LATEST = 10;
constexpr UpdateStatus UPDATE_NOT_STARTED = 11;
constexpr UpdateStatus UPDATE_DOWNLOADING = 12;
constexpr UpdateStatus UPDATE_CANCELLED = 13;
constexpr UpdateStatus UPDATE_NO_STORAGE = 14;
constexpr UpdateStatus UPDATE_DOWNLOAD_FAIL = 15;
constexpr UpdateStatus UPDATE_NOTIFY_FAIL = 16;

// Message of a code; "Unknown error." for any code without one.
[[nodiscard]] const char* update_status_str(UpdateStatus code);

// "%warning: " or "%notice: ". It holds a percent sign: always an argument of a
// format, never the format. A report line is "%s%s\n" of prefix and message.
[[nodiscard]] const char* update_status_prefix(UpdateStatus code);
