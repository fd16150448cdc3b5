// App SDK, the connection: one handle is one. Its receiving side (buffer, requests
// not yet waited for) belongs to the thread that registers and waits; its sending
// side and what it remembers of its apps are under a lock, for any thread.

#include "host/http_update/http_update_app.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/clock.h"
#include "base/local_socket.h"
#include "base/sync.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "base/working_dir.h"
#include "frame/platform/http_update.h"
#include "host/http_update/app_request.h"

namespace {

constexpr int REPLY_LIMIT_MS = 10000;
constexpr int CONNECT_LIMIT_S = 5;  // a daemon that is busy takes nobody
constexpr size_t PACKET_MAX = HTTP_UPDATE_PACKET_HEADER_SIZE + HTTP_UPDATE_PAYLOAD_MAX;

// What apps see is what travels.
static_assert(HTTP_APP_NAME_MAX + 1 == HTTP_UPDATE_NAME_SIZE &&
              HTTP_APP_VERSION_MAX + 1 == HTTP_UPDATE_VERSION_SIZE &&
              HTTP_APP_SAVE_PATH_MAX + 1 == HTTP_UPDATE_SAVE_PATH_SIZE);
static_assert(HTTP_APP_ONE_FILE == HTTP_UPDATE_FLAG_ONE_FILE &&
              HTTP_APP_MANUAL == HTTP_UPDATE_FLAG_MANUAL &&
              HTTP_APP_INCREMENTAL == HTTP_UPDATE_FLAG_INCREMENTAL);
static_assert(HTTP_APP_REGISTERED == HTTP_UPDATE_REGIST_OK &&
              HTTP_APP_NO_MEMORY == HTTP_UPDATE_REGIST_NO_MEMORY &&
              HTTP_APP_TABLE_FULL == HTTP_UPDATE_REGIST_TABLE_FULL &&
              HTTP_APP_NAME_TAKEN == HTTP_UPDATE_REGIST_DUPLICATE);
static_assert(HTTP_APP_SUCCESS == HTTP_UPDATE_RESULT_SUCCESS &&
              HTTP_APP_UPDATING == HTTP_UPDATE_RESULT_UPDATING);

}  // namespace

struct http_app {
    char socket_path[sizeof(sockaddr_un::sun_path)] = "";

    Mutex lock;  // held while sending and while the connection changes
    UniqueFd fd GUARDED_BY(lock);
    // What each app registers with next time; an empty name is a free place.
    http_msg_regist known[HTTP_UPDATE_APP_MAX] GUARDED_BY(lock) = {};

    // The receiving thread's own.
    int receive_fd = -1;  // fd's number
    ParsedRequest* first_request = nullptr;
    size_t begin = 0;  // unread bytes of the buffer: [begin, end)
    size_t end = 0;
    uint8_t buffer[PACKET_MAX];  // its pages are taken as packets come
};

namespace {

// 0 when text fits a field of N bytes with its terminator; null is empty.
template <size_t N>
int field_fill(char (&field)[N], const char* text) {
    return text_copy(field, text == nullptr ? "" : text) ? 0 : -ENAMETOOLONG;
}

// The same for a name, which must not be empty.
int name_fill(char (&field)[HTTP_UPDATE_NAME_SIZE], const char* name) {
    if (name == nullptr || name[0] == '\0') return -EINVAL;
    return field_fill(field, name);
}

http_msg_regist* known_find_locked(http_app* app, const char* name) REQUIRES(app->lock) {
    for (http_msg_regist& known : app->known) {
        if (strcmp(known.name, name) == 0) return &known;
    }
    return nullptr;
}

int send_locked(http_app* app, uint16_t type, const void* payload, size_t size)
    REQUIRES(app->lock) {
    if (!app->fd.valid()) return -ENOTCONN;
    const int length = static_cast<int>(size);
    return http_update_reg_send_normal(app->fd.get(), type, payload, length) < 0 ? -errno : 0;
}

// Drops the connection with everything that came over it.
void connection_close(http_app* app) {
    {
        const MutexLock guard(app->lock);
        app->fd.reset();
    }
    app->receive_fd = -1;
    app->begin = app->end = 0;
    while (app->first_request != nullptr) {
        ParsedRequest* parsed = app->first_request;
        app->first_request = parsed->next;
        http_app_request_free(&parsed->request);
    }
}

struct Packet {
    uint16_t type;
    std::span<const uint8_t> payload;  // in the handle's buffer, until the next read
};

// Takes the next packet out of the buffer, if it is there whole.
bool packet_take(http_app* app, Packet* packet) {
    http_update_packet_header header{};
    const size_t have = app->end - app->begin;
    if (have < sizeof(header)) return false;
    memcpy(&header, app->buffer + app->begin, sizeof(header));
    if (have < sizeof(header) + header.length) return false;
    packet->type = header.type;
    packet->payload = {app->buffer + app->begin + sizeof(header), header.length};
    app->begin += sizeof(header) + header.length;
    return true;
}

// One recv() into the buffer. 1: bytes came; 0: none there; negative: the
// connection has ended.
int buffer_fill(http_app* app) {
    if (app->begin > 0) {
        memmove(app->buffer, app->buffer + app->begin, app->end - app->begin);
        app->end -= app->begin;
        app->begin = 0;
    }
    const ssize_t got =
        recv(app->receive_fd, app->buffer + app->end, sizeof(app->buffer) - app->end, MSG_DONTWAIT);
    if (got > 0) {
        app->end += static_cast<size_t>(got);
        return 1;
    }
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
    const int result = got == 0 ? -ECONNRESET : -errno;
    connection_close(app);
    return result;
}

// Next packet of the connection. 1: *packet is set; 0: time is up (deadline null:
// never), or a signal came; negative: the connection has ended.
int packet_wait(http_app* app, const Deadline* deadline, Packet* packet) {
    for (;;) {
        if (packet_take(app, packet)) return 1;
        if (app->receive_fd < 0) return -ENOTCONN;
        pollfd entry{app->receive_fd, POLLIN, 0};
        const int left_ms = deadline == nullptr ? -1 : deadline->LeftMs();
        const int ready = poll(&entry, 1, left_ms);
        if (ready < 0) return errno == EINTR ? 0 : -errno;
        if (ready == 0 && left_ms == 0) return 0;
        if (ready > 0) {
            const int filled = buffer_fill(app);
            if (filled < 0) return filled;
        }
    }
}

// A request that can't be read is answered as failed where its app's name can, or
// the daemon would count the app as busy for ever.
int request_refuse(http_app* app, std::span<const uint8_t> payload, int error) {
    char name[HTTP_UPDATE_NAME_SIZE] = "";
    if (payload.size() >= sizeof(name)) memcpy(name, payload.data(), sizeof(name));
    if (name[0] != '\0' && name[sizeof(name) - 1] == '\0') {
        (void)http_app_answer(app, name, error, nullptr);
    }
    return -error;
}

// Puts a request at the end of those not yet waited for. 0 or negative.
int request_queue(http_app* app, std::span<const uint8_t> payload) {
    ParsedRequest* parsed = app_request_parse(payload);
    if (parsed == nullptr) return request_refuse(app, payload, errno);
    ParsedRequest** link = &app->first_request;
    while (*link != nullptr) link = &(*link)->next;
    *link = parsed;
    return 0;
}

// Sends a registration and waits for its answer; update requests that come in
// between are kept. 0, the daemon's answer, or negative.
int register_exchange(http_app* app, const http_msg_regist& payload) {
    int sent = 0;
    {
        const MutexLock guard(app->lock);
        sent = send_locked(app, HTTP_MSG_TYPE_REGIST, &payload, sizeof(payload));
    }
    if (sent < 0) return sent;
    const Deadline deadline(REPLY_LIMIT_MS);
    for (;;) {
        Packet packet{};
        const int got = packet_wait(app, &deadline, &packet);
        if (got < 0) return got;
        if (got == 0) {
            if (deadline.LeftMs() > 0) continue;
            return -ETIMEDOUT;
        }
        if (packet.type == HTTP_MSG_TYPE_UPDATE_REQ) (void)request_queue(app, packet.payload);
        if (packet.type != HTTP_MSG_TYPE_REGIST_RSP) continue;
        http_msg_regist_rsp reply{};
        if (packet.payload.size() != sizeof(reply)) return -EBADMSG;
        memcpy(&reply, packet.payload.data(), sizeof(reply));
        // Another name: the late answer to a registration that timed out.
        if (text_view(reply.name) != text_view(payload.name)) continue;
        return reply.result < 0 ? -EBADMSG : reply.result;
    }
}

// Sends a message about one app and, where the app is known, keeps what a new
// registration has to repeat.
template <class Payload, class Keep>
int send_and_keep(http_app* app, uint16_t type, const Payload& payload, Keep keep) {
    const MutexLock guard(app->lock);
    const int result = send_locked(app, type, &payload, sizeof(payload));
    http_msg_regist* known = known_find_locked(app, payload.name);
    // Kept even when the connection is gone: the next one will carry it.
    if (known != nullptr) keep(known);
    return result;
}

}  // namespace

http_app* http_app_open(const char* socket_path) {
    auto* app = new (std::nothrow) http_app;
    if (app == nullptr) return nullptr;
    char usual_path[PATH_SIZE];
    dir_prefix_join(dir_prefix_now(TMP_DIR), HTTP_UPDATE_SOCKET_PATH, usual_path);
    const bool whole =
        text_copy(app->socket_path, socket_path == nullptr ? usual_path : socket_path);
    const int result = whole ? http_app_reconnect(app) : -ENAMETOOLONG;
    if (result != 0) {
        http_app_close(app);
        errno = -result;
        return nullptr;
    }
    return app;
}

void http_app_close(http_app* app) {
    if (app == nullptr) return;
    connection_close(app);
    delete app;
}

int http_app_register(http_app* app, const http_app_info* info) {
    if (app == nullptr || info == nullptr) return -EINVAL;
    http_msg_regist payload{};
    payload.flags = info->flags;
    int result = name_fill(payload.name, info->name);
    if (result == 0) result = field_fill(payload.version, info->version);
    if (result == 0) result = field_fill(payload.save_path, info->save_path);
    if (result != 0) return result;
    {
        const MutexLock guard(app->lock);
        const bool place = known_find_locked(app, payload.name) != nullptr ||
                           known_find_locked(app, "") != nullptr;
        if (!place) return HTTP_APP_TABLE_FULL;
    }
    result = register_exchange(app, payload);
    if (result != 0) return result;

    const MutexLock guard(app->lock);
    http_msg_regist* known = known_find_locked(app, payload.name);
    if (known == nullptr) {
        known = known_find_locked(app, "");
        if (known != nullptr) *known = payload;
    } else if (payload.save_path[0] != '\0') {
        (void)text_copy(known->save_path, payload.save_path);
    }
    return 0;
}

int http_app_reconnect(http_app* app) {
    if (app == nullptr) return -EINVAL;
    connection_close(app);
    UniqueFd fd;
    int result = -local_connect(app->socket_path, CONNECT_LIMIT_S, &fd);
    if (result != 0) return result;
    app->receive_fd = fd.get();
    http_msg_regist known[HTTP_UPDATE_APP_MAX];
    {
        const MutexLock guard(app->lock);
        app->fd = std::move(fd);
        memcpy(known, app->known, sizeof(known));
    }
    for (const http_msg_regist& payload : known) {
        if (payload.name[0] == '\0') continue;
        const int registered = register_exchange(app, payload);
        if (registered < 0) return registered;
        if (result == 0) result = registered;
    }
    return result;
}

int http_app_wait(http_app* app, int timeout_ms, http_app_request** request) {
    if (app == nullptr || request == nullptr) return -EINVAL;
    const Deadline deadline(timeout_ms < 0 ? 0 : timeout_ms);
    while (app->first_request == nullptr) {
        Packet packet{};
        const int got = packet_wait(app, timeout_ms < 0 ? nullptr : &deadline, &packet);
        if (got <= 0) return got;
        // Anything else is a late reply, or a newer daemon's news.
        if (packet.type != HTTP_MSG_TYPE_UPDATE_REQ) continue;
        const int result = request_queue(app, packet.payload);
        if (result < 0) return result;
    }
    ParsedRequest* parsed = app->first_request;
    app->first_request = parsed->next;
    *request = &parsed->request;
    return 1;
}

int http_app_fd(const http_app* app) { return app == nullptr ? -EINVAL : app->receive_fd; }

int http_app_answer(http_app* app, const char* name, int32_t result, const char* version) {
    if (app == nullptr) return -EINVAL;
    http_msg_update_rsp payload{};
    payload.result = result;
    int checked = name_fill(payload.name, name);
    if (checked == 0) checked = field_fill(payload.version, version);
    if (checked != 0) return checked;
    return send_and_keep(app, HTTP_MSG_TYPE_UPDATE_RSP, payload, [&](http_msg_regist* known) {
        const bool changed = result == HTTP_APP_SUCCESS && payload.version[0] != '\0';
        if (changed) (void)text_copy(known->version, payload.version);
    });
}

int http_app_set_version(http_app* app, const char* name, const char* version) {
    if (app == nullptr) return -EINVAL;
    http_msg_version payload{};
    int checked = name_fill(payload.name, name);
    if (checked == 0) checked = field_fill(payload.version, version);
    if (checked != 0) return checked;
    return send_and_keep(app, HTTP_MSG_TYPE_VERSION, payload, [&](http_msg_regist* known) {
        (void)text_copy(known->version, payload.version);
    });
}

int http_app_set_manual(http_app* app, const char* name, int manual) {
    if (app == nullptr) return -EINVAL;
    http_msg_mode payload{};
    payload.mode = manual != 0 ? HTTP_UPDATE_MODE_MANUAL : HTTP_UPDATE_MODE_AUTO;
    const int checked = name_fill(payload.name, name);
    if (checked != 0) return checked;
    return send_and_keep(app, HTTP_MSG_TYPE_MODE, payload, [&](http_msg_regist* known) {
        known->flags =
            manual != 0 ? known->flags | HTTP_APP_MANUAL : known->flags & ~HTTP_APP_MANUAL;
    });
}

int http_app_set_save_path(http_app* app, const char* name, const char* save_path) {
    if (app == nullptr) return -EINVAL;
    http_msg_savepath payload{};
    int checked = name_fill(payload.name, name);
    if (checked == 0) checked = field_fill(payload.save_path, save_path);
    if (checked != 0) return checked;
    return send_and_keep(app, HTTP_MSG_TYPE_SAVEPATH, payload, [&](http_msg_regist* known) {
        (void)text_copy(known->save_path, payload.save_path);
    });
}

int http_app_deregister(http_app* app, const char* name) {
    if (app == nullptr) return -EINVAL;
    char field[HTTP_UPDATE_NAME_SIZE] = "";
    const int checked = name_fill(field, name);
    if (checked != 0) return checked;
    const MutexLock guard(app->lock);
    http_msg_regist* known = known_find_locked(app, field);
    if (known != nullptr) *known = http_msg_regist{};
    return send_locked(app, HTTP_MSG_TYPE_DEREGIST, field, strlen(field) + 1);
}

const char* http_app_result_text(int result) {
    switch (result) {
        case HTTP_APP_REGISTERED:
            return "done";
        case HTTP_APP_NO_MEMORY:
            return "the daemon is out of memory";
        case HTTP_APP_TABLE_FULL:
            return "no place left in the daemon's table, or the save path was not stored";
        case HTTP_APP_NAME_TAKEN:
            return "another connection has registered the name";
        case -EINVAL:
            return "an argument is missing";
        case -ENAMETOOLONG:
            return "a text is too long";
        case -ETIMEDOUT:
            return "the daemon does not answer";
        case -EBADMSG:
            return "a packet from the daemon made no sense";
        case -ENOENT:
        case -ECONNREFUSED:
            return "no daemon is running";
        case -ENOTCONN:
        case -ECONNRESET:
        case -EPIPE:
            return "the daemon has ended the connection";
        default:
            return result < 0 ? strerror(-result) : "an answer unknown to this library";
    }
}
