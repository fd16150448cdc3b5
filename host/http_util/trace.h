// The download library's own debugging: lines to the system log while it is on.
// Threads: any.
#pragma once

#include <atomic>

[[nodiscard]] inline bool trace_is_on(const std::atomic<bool>* debug) {
    return debug != nullptr && debug->load(std::memory_order_relaxed);
}

// One line, cut to its buffer. Nothing when debug is null or false.
[[gnu::format(printf, 2, 3)]] void trace(const std::atomic<bool>* debug, const char* format, ...);

// URL without the user name and password that may stand in it. text is the buffer.
const char* trace_url(const char* url, char (&text)[512]);
