// Filling of fixed-size text fields: always zero-terminated, never past the end.
// Header only; host/ and tools/ use it too.
// Threads: any; works on its arguments only.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

// Fills the whole field: the text (up to an inner zero byte, at most N - 1
// bytes), then zeroes. Returns false when the text was cut.
template <size_t N>
bool text_copy(char (&field)[N], std::string_view text) {
    const size_t length = strnlen(text.data() == nullptr ? "" : text.data(), text.size());
    const size_t kept = length < N - 1 ? length : N - 1;
    if (kept > 0) memmove(field, text.data(), kept);
    memset(field + kept, 0, N - kept);
    return kept == length;
}

// The text of a field that may lack its terminator (it came from a packet).
template <size_t N>
std::string_view text_view(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

// Appends formatted text at *length of a buffer of size bytes, cut to the room
// left; *length stays the length of the text. Returns false when it was cut.
[[gnu::format(printf, 4, 0)]] inline bool text_vappendf(char* buffer, size_t size, size_t* length,
                                                        const char* format, va_list args) {
    const size_t room = size - *length;
    const int written = vsnprintf(buffer + *length, room, format, args);
    if (written < 0) return false;
    const bool whole = static_cast<size_t>(written) < room;
    *length += whole ? static_cast<size_t>(written) : room - 1;
    return whole;
}

[[gnu::format(printf, 4, 5)]] inline bool text_appendf(char* buffer, size_t size, size_t* length,
                                                       const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool whole = text_vappendf(buffer, size, length, format, args);
    va_end(args);
    return whole;
}
