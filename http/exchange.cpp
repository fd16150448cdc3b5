// A request is built in one buffer and sent whole; a response's header is read into
// another, with whatever of the body came along. Both are bounded, so that neither a long
// configuration nor a server can make them grow. Servers know the request byte for byte.
#include "http/exchange.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/text.h"
#include "frame/log.h"
#include "http/socket_io.h"

static constexpr uint16_t HTTP_PORT = 80;
static constexpr char HEAD_END[] = "\r\n\r\n";
static constexpr char CONTENT_LENGTH[] = "Content-Length:";
static constexpr size_t STATUS_CODE_AT = 9;  // behind "HTTP/1.x "

// The body directly behind the header of length bytes. Returns the whole length.
static int append_body(char (&text)[PKG_REQUEST_SIZE], size_t length, CommBuf* body) {
    const uint32_t count = comm_buf_len(body);
    const size_t room = sizeof(text) - length;
    if (count >= room) {
        http_client_debug_print(HTTPC_LOG_ERROR, "pkg_create-->comm buf too long %d %d",
                                static_cast<int>(count), static_cast<int>(room));
        return -1;
    }
    const int32_t got = count == 0 ? 0 : comm_buf_read(body, text + length, count);
    if (got != static_cast<int32_t>(count)) {
        http_client_debug_print(HTTPC_LOG_ERROR, "pkg_create<-->comm read %d fail for %d",
                                static_cast<int>(count), got);
        return -1;
    }
    return static_cast<int>(length + count);
}

int pkg_create(char (&text)[PKG_REQUEST_SIZE], HttpRequest* request) {
    if (request->method != HTTP_METHOD_GET && request->method != HTTP_METHOD_POST) {
        http_client_debug_print(HTTPC_LOG_ERROR, "request method %d invalid", request->method);
        return -1;
    }
    const bool post = request->method == HTTP_METHOD_POST;
    size_t length = 0;
    // Host and path are bounded: the header can't fill the text.
    (void)text_appendf(text, sizeof(text), &length, "%s %s HTTP/1.0\r\n", post ? "POST" : "GET",
                       request->path);
    if (request->port == HTTP_PORT) {
        (void)text_appendf(text, sizeof(text), &length, "Host: %s\r\n", request->host);
    } else {
        (void)text_appendf(text, sizeof(text), &length, "Host: %s:%d\r\n", request->host,
                           request->port);
    }
    (void)text_appendf(text, sizeof(text), &length,
                       "Accept: */*\r\nAccept-Language: zh-cn\r\nUser-Agent: Http-client/1.0\r\n");
    if (!post) {
        (void)text_appendf(text, sizeof(text), &length, "\r\n");
        return static_cast<int>(length);
    }
    (void)text_appendf(text, sizeof(text), &length, "Content-Length: %u\r\n",
                       comm_buf_len(&request->body));
    (void)text_appendf(text, sizeof(text), &length, "Content-Type:%s",
                       " application/x-www-form-urlencoded");
    (void)text_appendf(text, sizeof(text), &length, "\r\n\r\n");
    return append_body(text, length, &request->body);
}

int pkg_send(int fd, HttpRequest* request, Attempt* attempt) {
    if (fd < 0 || request == nullptr) return -1;
    char text[PKG_REQUEST_SIZE]{};
    const int length = pkg_create(text, request);
    if (length < 0) {
        cause_set_errno(cause_of(attempt), CausePhase::Query, EMSGSIZE, 0);
        return -1;
    }
    if (sock_send(fd, text, static_cast<size_t>(length), {.cancel = cancel_of(attempt)}) != 0) {
        cause_set_errno(cause_of(attempt), CausePhase::Query, errno, SOCK_SILENCE_S);
        http_client_debug_print(HTTPC_LOG_ERROR, "sock %d<-->send [%s] error [%s]", fd, text,
                                strerror(errno));
        return -1;
    }
    http_client_debug_print(HTTPC_LOG_SEND, "sock %d<-->", fd);
    http_client_debug_print(HTTPC_LOG_SEND, "%s", text);
    return 0;
}

// Leading decimal number as atoi reads it; one that no int holds becomes the
// nearest that does, so that it can't pass for a small length.
static int number_parse(const char* text) {
    return static_cast<int>(std::clamp<long>(strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}

// The status code's text, or null when there is no whole status line.
static const char* status_code_find(const char* head) {
    if (strstr(head, "HTTP/1.1 ") == nullptr && strstr(head, "HTTP/1.0 ") == nullptr) {
        return nullptr;
    }
    const char* code = head + STATUS_CODE_AT;
    return strstr(code, "\r\n") == nullptr ? nullptr : code + strspn(code, " ");
}

int pkg_status_parse(const char* head) {
    const char* code = status_code_find(head);
    return code == nullptr ? -1 : number_parse(code);
}

const char* pkg_head_first_parse(const char* head) {
    const char* code_text = status_code_find(head);
    if (code_text == nullptr) return nullptr;
    const int code = number_parse(code_text);
    http_client_debug_print(HTTPC_LOG_CONNECT, "status_code is [%d]", code);
    return code == 200 ? strstr(head + STATUS_CODE_AT, "\r\n") + 2 : nullptr;
}

int32_t pkg_content_length_parse(const char* fields) {
    // Only at the start of a line: proxies and stores add fields whose names end
    // in this one.
    const char* field = strstr(fields, CONTENT_LENGTH);
    while (field != nullptr && field != fields && field[-1] != '\n') {
        field = strstr(field + 1, CONTENT_LENGTH);
    }
    if (field == nullptr) return -1;
    const char* value = field + strlen(CONTENT_LENGTH);
    value += strspn(value, " ");
    if (*value == '\0' || *value == '\r' || *value == '\n') return -1;
    return number_parse(value);
}

int32_t pkg_head_parse(const char* head) {
    const char* fields = pkg_head_first_parse(head);
    if (fields == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "pkg_head_parse-->parse head first fail [%s]",
                                head);
        return -1;
    }
    const int32_t length = pkg_content_length_parse(fields);
    http_client_debug_print(HTTPC_LOG_CONNECT, "pkg_head_parse-->connent length %d", length);
    return length;
}

static void note_socket_error(Attempt* attempt) {
    cause_set_errno(cause_of(attempt), CausePhase::Reply, errno, SOCK_SILENCE_S);
}

static void note_head_error(Attempt* attempt, const char* head, int32_t length) {
    const int status = pkg_status_parse(head);
    if (status >= 0 && status != 200) {
        return cause_set(cause_of(attempt), CausePhase::Reply, CauseReason::HttpStatus, status);
    }
    const char* text = status < 0    ? "it is not HTTP"
                       : length >= 0 ? "larger than 2 MiB"
                                     : "no Content-Length";
    cause_set_unusable(cause_of(attempt), CausePhase::Reply, text);
}

int pkg_recv(int fd, CommBuf* body, Attempt* attempt) {
    const SockLimits limits{.cancel = cancel_of(attempt)};
    char head[PKG_HEAD_SIZE]{};
    const int received = sock_recv_endstr(fd, head, sizeof(head), HEAD_END, limits);
    if (received < 0) {
        note_socket_error(attempt);
        return -1;
    }
    http_client_debug_print(HTTPC_LOG_CONNECT, "sock %d<-->head len %d", fd, received);
    http_client_debug_print(HTTPC_LOG_CONNECT, "sock %d<-->\r\n[%s]", fd, head);

    // The header text ends with its last line end: a body that came along with it
    // has no say in the header's fields.
    auto* end =
        static_cast<char*>(memmem(head, static_cast<size_t>(received), HEAD_END, strlen(HEAD_END)));
    const char* body_start = end + strlen(HEAD_END);
    end[2] = '\0';
    const int32_t length = pkg_head_parse(head);
    if (length < 0 || length > PKG_CONTENT_LENGTH_MAX) {
        if (length >= 0) {
            http_client_debug_dump("server response exceed max size %d", PKG_CONTENT_LENGTH_MAX);
        }
        note_head_error(attempt, head, length);
        return -1;
    }
    const auto came_along = static_cast<int32_t>(received - (body_start - head));
    const int32_t kept = std::min(came_along, length);
    if (comm_buf_append(body, body_start, kept) != kept) {
        http_client_debug_print(HTTPC_LOG_ERROR, "sock %d<-->write date fail", fd);
        cause_set(cause_of(attempt), CausePhase::Reply, CauseReason::NoMemory);
        return -1;
    }
    if (kept == length ||
        sock_recv_commbuf(fd, body, static_cast<uint32_t>(length - kept), limits) == 0) {
        return 0;
    }
    note_socket_error(attempt);
    return -1;
}
