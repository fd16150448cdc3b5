// One HTTP/1.0 request and its response on a connected socket: no keep-alive, no
// chunks, no redirects. Only status 200 with a Content-Length is a response.
// Threads: any; works on its arguments only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "buffer/comm_buf.h"
#include "http/attempt.h"

constexpr int32_t HTTP_METHOD_GET = 1;
constexpr int32_t HTTP_METHOD_POST = 2;

constexpr size_t PKG_REQUEST_SIZE = 4096;                    // header and body, terminator included
constexpr size_t PKG_HEAD_SIZE = 2048;                       // of a response, terminator included
constexpr int32_t PKG_CONTENT_LENGTH_MAX = 2 * 1024 * 1024;  // of a response

struct HttpRequest {
    int32_t method;
    uint16_t port;
    char host[128];
    char path[256];
    OwnedCommBuf body;  // of a POST
};

// Writes the request text into a zero-filled buffer, consuming the body. Returns
// its length, or -1 for another method or a request that does not fit.
[[nodiscard]] int pkg_create(char (&text)[PKG_REQUEST_SIZE], HttpRequest* request);

// 0: the whole request was sent; else -1, the body may then be consumed in part.
[[nodiscard]] int pkg_send(int fd, HttpRequest* request, Attempt* attempt = nullptr);

// The status code, or -1 when there is no status line.
[[nodiscard]] int pkg_status_parse(const char* head);

// First header field after the status line, or null when there is no status line
// or its code is not 200.
[[nodiscard]] const char* pkg_head_first_parse(const char* head);

// Value of the Content-Length field among the header fields, or -1.
[[nodiscard]] int32_t pkg_content_length_parse(const char* fields);

// Content-Length of a response with status 200, else negative.
[[nodiscard]] int32_t pkg_head_parse(const char* head);

// Appends the response's body, cut to its Content-Length (0 to
// PKG_CONTENT_LENGTH_MAX), to the buffer. 0; else -1, perhaps with a part of the
// body appended.
[[nodiscard]] int pkg_recv(int fd, CommBuf* body, Attempt* attempt = nullptr);
