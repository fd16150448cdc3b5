// Output queue and keys of one terminal. What is printed is queued and never waits for
// the terminal on the main loop; the queue is bounded, so that a terminal that does not
// read costs itself and nobody else.
#include "host/client_new/session.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/clock.h"
#include "frame/platform/client_new.h"

namespace client_new {

Mutex cli_lock;

namespace {

constexpr size_t FLUSH_BYTES = 8192;
// A command's own thread waits when more than this is unsent. The main loop never
// waits; a handler that runs there and floods a terminal that does not read loses
// the terminal at the second figure.
constexpr size_t WAIT_BYTES = 65536;
constexpr size_t QUEUE_MAX_BYTES = 1048576;
constexpr size_t KEYS_MAX = 64;
constexpr int64_t ROOM_WAIT_MS = 5000;

// False: the session is gone, because memory was short.
bool queue_frame_locked(Session* session, FrameType type, std::string_view payload)
    REQUIRES(cli_lock) {
    const bool queued = frame_append(&session->queue, type, payload);
    if (!queued) session_drop_locked(session);
    return queued;
}

void frame_text_locked(Session* session) REQUIRES(cli_lock) {
    const GrowingBytes taken = std::move(session->text);
    for (std::string_view text = taken.View(); !text.empty();) {
        const std::string_view part = text.substr(0, REPLY_PAYLOAD_MAX);
        if (!queue_frame_locked(session, FRAME_OUTPUT, part)) return;
        text.remove_prefix(part.size());
    }
}

// True: the terminal is gone, or read enough.
bool has_room(Session* session) EXCLUDES(cli_lock) {
    const MutexLock guard(cli_lock);
    session_flush_locked(session);
    return session->gone || session->queue.size() <= WAIT_BYTES;
}

}  // namespace

void session_print_locked(Session* session, std::string_view text) {
    if (session->gone) return;
    if (!session->text.Append(text)) {
        session_drop_locked(session);
        return;
    }
    if (session->text.size() >= FLUSH_BYTES) session_flush_locked(session);
}

void session_send_locked(Session* session, FrameType type, std::string_view payload) {
    if (session->gone) return;
    frame_text_locked(session);
    if (session->gone) return;
    if (queue_frame_locked(session, type, payload.substr(0, REPLY_PAYLOAD_MAX))) {
        session_flush_locked(session);
    }
}

void session_flush_locked(Session* session) {
    if (session->gone) return;
    frame_text_locked(session);
    size_t sent = 0;
    while (sent < session->queue.size()) {
        const std::string_view rest = session->queue.View().substr(sent);
        const ssize_t count =
            send(session->socket.get(), rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno != EAGAIN) {
            session_drop_locked(session);
            return;
        }
        if (count < 0) break;
        sent += static_cast<size_t>(count);
    }
    session->queue.DropFront(sent);
    if (session->queue.size() > QUEUE_MAX_BYTES) session_drop_locked(session);
}

bool session_has_unsent_locked(const Session* session) {
    return !session->gone && !session->queue.empty();
}

void session_drop_locked(Session* session) {
    session->gone = true;
    session->text.Clear();
    session->queue.Clear();
    (void)shutdown(session->socket.get(), SHUT_RDWR);  // fails when the peer is gone already
}

void session_add_key_locked(Session* session, int key) {
    if (session->keys.size() < KEYS_MAX) {
        session->keys.push_back(key);
    } else if (key == CLI_KEY_CTRL_C) {
        session->keys.back() = key;  // asking to stop must not be lost behind a pasted text
    }
}

int session_next_key_locked(Session* session) {
    if (session->gone) return CLI_KEY_CTRL_C;
    if (session->keys.empty()) return -1;
    const int key = session->keys.front();
    session->keys.pop_front();
    return key;
}

void session_wait_for_room(const std::shared_ptr<Session>& session) {
    const Deadline deadline(ROOM_WAIT_MS);
    while (!has_room(session.get())) {
        const int left_ms = deadline.LeftMs();
        if (left_ms == 0) {
            const MutexLock guard(cli_lock);
            session_drop_locked(session.get());
            return;
        }
        pollfd waiting{session->socket.get(), POLLOUT, 0};
        (void)poll(&waiting, 1, left_ms);  // the loop looks again anyway
    }
}

}  // namespace client_new
