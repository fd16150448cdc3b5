// Outcome of a version check or an update run, for a whole server pass and for
// each app within it, with its message.
// Threads: any; constants and arguments only.
#pragma once

#include <concepts>
#include <cstdint>

enum UpdateStatus : uint32_t {
    UPDATE_OK = 0,
    UPDATE_NO_APPS = 1,
    UPDATE_NOT_REGISTERED = 2,
    UPDATE_RUNNING = 3,
    UPDATE_CONNECT_FAIL = 4,
    UPDATE_SEND_FAIL = 5,
    UPDATE_RECEIVE_FAIL = 6,
    UPDATE_NO_MEMORY = 7,
    UPDATE_BAD_REPLY = 8,
    UPDATE_ALL_BUSY = 9,
    UPDATE_LATEST = 10,
    UPDATE_NOT_STARTED = 11,
    UPDATE_DOWNLOADING = 12,
    UPDATE_CANCELLED = 13,
    UPDATE_NO_STORAGE = 14,
    UPDATE_DOWNLOAD_FAIL = 15,
    UPDATE_NOTIFY_FAIL = 16,
};

// Message of a code; "Unknown error." for any code without one.
[[nodiscard]] const char* update_status_str(UpdateStatus code);

// "%warning: " or "%notice: ". It holds a percent sign: always an argument of a
// format, never the format. A report line is "%s%s\n" of prefix and message.
[[nodiscard]] const char* update_status_prefix(UpdateStatus code);

// The same for a code that is a bare number; other enumerations have no message.
[[nodiscard]] const char* update_status_str(std::integral auto code) {
    return update_status_str(static_cast<UpdateStatus>(code));
}
[[nodiscard]] const char* update_status_prefix(std::integral auto code) {
    return update_status_prefix(static_cast<UpdateStatus>(code));
}
