// Frames, signals and the life of one command. Signals are read from a descriptor, so that
// one poll waits for the daemon, the keyboard and them. While a command runs, Ctrl+C is
// sent to it as a key, and it decides what that means.
//
// A daemon that is stopped, or whose loop is held, must not hold a script for ever. So
// while an answer is waited for it is pinged, and it owes that answer within the limit; a
// daemon of an older release, which knows no ping, owes only what it gives at once.
#include "connection.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "base/clock.h"
#include "base/local_socket.h"

using client_new::Frame;
using client_new::FrameReader;
using client_new::FrameType;
using client_new::GrowingBytes;

namespace {

constexpr std::string_view KEY_INTERRUPT = "\x03";
constexpr int ANSWER_LIMIT_S = 10;
constexpr int64_t ANSWER_LIMIT_MS = ANSWER_LIMIT_S * 1000;
constexpr int64_t QUIET_MS = 2000;  // before a ping

bool open_signals(Connection* connection) {
    sigset_t set;
    (void)sigemptyset(&set);
    for (const int number : {SIGINT, SIGWINCH, SIGCONT, SIGTERM, SIGHUP}) {
        (void)sigaddset(&set, number);
    }
    connection->signals.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    return connection->signals.valid() && sigprocmask(SIG_BLOCK, &set, nullptr) == 0;
}

Event connection_lost(Connection* connection, std::string_view reason) {
    connection->lost = reason;
    return Event::kLost;
}

Event daemon_silent(Connection* connection) {
    (void)shutdown(connection->socket.get(), SHUT_RDWR);  // a frame may be half sent
    return connection_lost(connection, "the daemon does not answer");
}

// A failure shows in the next read, after what the daemon said before; but one of a
// daemon that takes nothing is final.
void send_frame(Connection* connection, FrameType type, std::string_view payload) {
    GrowingBytes bytes;
    if (!client_new::frame_append(&bytes, type, payload)) {
        (void)connection_lost(connection, strerror(ENOMEM));
        return;
    }
    std::string_view rest = bytes.View();
    while (!rest.empty()) {
        const ssize_t count =
            send(connection->socket.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) (void)daemon_silent(connection);
        if (count < 0) return;
        rest.remove_prefix(static_cast<size_t>(count));
    }
}

// A question that the daemon answers at once, whatever runs.
void ask_frame(Connection* connection, FrameType type, std::string_view payload) {
    send_frame(connection, type, payload);
    connection->asked_ms = monotonic_ms();
}

// True when *event is to be told.
bool take_signal(Connection* connection, Event* event) {
    signalfd_siginfo info{};
    if (read(connection->signals.get(), &info, sizeof(info)) != ssize_t{sizeof(info)}) return false;
    *event = info.ssi_signo == SIGINT     ? Event::kInterrupt
             : info.ssi_signo == SIGWINCH ? Event::kResize
             : info.ssi_signo == SIGCONT  ? Event::kContinue
                                          : Event::kQuit;
    return true;
}

// True when *event is to be told: a frame is whole, or the session is lost.
bool take_frame(Connection* connection, Frame* frame, Event* event) {
    const FrameReader::Result result = connection->reader.Next(frame);
    if (result == FrameReader::Result::kIncomplete) return false;
    *event = Event::kFrame;
    if (result == FrameReader::Result::kTooLong) {
        *event = connection_lost(connection, "the daemon sent something unreadable");
    } else if (frame->type == client_new::FRAME_BYE) {
        *event = connection_lost(connection, frame->payload);
        connection->dismissed = true;
    }
    return true;
}

// How long to wait for the daemon; -1: for ever.
int wait_ms(const Connection& connection, bool for_command) {
    if (connection.asked_ms != 0) {
        const int64_t left_ms = connection.asked_ms + ANSWER_LIMIT_MS - monotonic_ms();
        return static_cast<int>(std::max(left_ms, int64_t{0}));
    }
    return for_command && connection.answers_ping ? QUIET_MS : -1;
}

// False: the daemon is gone.
bool receive(Connection* connection) {
    char bytes[16384];
    const ssize_t count = recv(connection->socket.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
    if (count > 0) {
        connection->asked_ms = 0;
        return connection->reader.Add({bytes, static_cast<size_t>(count)});
    }
    return count < 0 && (errno == EINTR || errno == EAGAIN);
}

void end_command(Connection* connection, const Frame& frame) {
    client_new::EndPayload end{};
    if (frame.payload.size() >= sizeof(end)) memcpy(&end, frame.payload.data(), sizeof(end));
    connection->answers_ping = (end.offers & client_new::END_ANSWERS_PING) != 0;
    connection->serves_person = (end.offers & client_new::END_SERVES_PERSON) != 0;
    connection->mode = end.mode;
    connection->left = end.leave != 0;
    connection->status = end.status;
}

// Shows frames until the command's end. forward_interrupt: SIGINT is the
// command's business; otherwise it ends the program.
Outcome finish_command(Connection* connection, bool forward_interrupt) {
    for (;;) {
        Frame frame{};
        const Event event = connection_wait(connection, false, &frame);
        if (event == Event::kLost) return Outcome::kLost;
        if (event == Event::kQuit) return Outcome::kQuit;
        if (event == Event::kInterrupt) {
            if (!forward_interrupt) return Outcome::kQuit;
            connection->interrupted = true;
            send_frame(connection, client_new::FRAME_KEY, KEY_INTERRUPT);
        }
        if (event != Event::kFrame) continue;
        if (frame.type == client_new::FRAME_END) {
            end_command(connection, frame);
            return Outcome::kEnded;
        }
        display_frame(&connection->display, frame);
    }
}

Outcome open_session(Connection* connection) {
    const client_new::OpenPayload open{
        client_new::PROTOCOL_VERSION,
        (connection->second_list ? client_new::OPEN_SECOND_LIST : 0) |
            (display_serves_person(connection->display) ? client_new::OPEN_PERSON : 0)};
    ask_frame(connection, client_new::FRAME_OPEN,
              {reinterpret_cast<const char*>(&open), sizeof(open)});
    return finish_command(connection, false);
}

}  // namespace

bool connection_open(Connection* connection, bool second_list) {
    const std::string path = client_new::cli_socket_path();
    errno = local_connect(path.c_str(), ANSWER_LIMIT_S, &connection->socket);
    if (errno != 0 || !open_signals(connection)) {
        (void)fprintf(stderr, "http_client_cli: no daemon at %s: %s\n", path.c_str(),
                      strerror(errno));
        return false;
    }
    connection->second_list = second_list;
    return open_session(connection) == Outcome::kEnded;
}

Outcome connection_open_again(Connection* connection) {
    UniqueFd socket;
    const std::string path = client_new::cli_socket_path();
    if (local_connect(path.c_str(), ANSWER_LIMIT_S, &socket) != 0) return Outcome::kLost;
    connection->socket = std::move(socket);
    connection->reader = FrameReader{client_new::REPLY_PAYLOAD_MAX};
    connection->asked_ms = 0;
    connection->lost.clear();
    connection->dismissed = false;
    return open_session(connection);
}

bool connection_asked_to_end(Connection* connection) {
    Event event{};
    return take_signal(connection, &event) && (event == Event::kInterrupt || event == Event::kQuit);
}

Event connection_wait(Connection* connection, bool input_too, Frame* frame) {
    for (;;) {
        Event event{};
        if (!connection->lost.empty()) return Event::kLost;
        if (take_frame(connection, frame, &event)) return event;
        pollfd waiting[] = {{connection->signals.get(), POLLIN, 0},
                            {connection->socket.get(), POLLIN, 0},
                            {STDIN_FILENO, POLLIN, 0}};
        const int ready = poll(waiting, input_too ? 3 : 2, wait_ms(*connection, !input_too));
        if (ready < 0) continue;
        if (ready == 0) {
            if (connection->asked_ms != 0) return daemon_silent(connection);
            ask_frame(connection, client_new::FRAME_PING, "");
            continue;
        }
        if (waiting[0].revents != 0 && take_signal(connection, &event)) return event;
        if (waiting[1].revents != 0) {
            if (!receive(connection)) {
                return connection_lost(connection, "the daemon has closed the session");
            }
            continue;
        }
        if (input_too && waiting[2].revents != 0) return Event::kInput;
    }
}

Outcome connection_run(Connection* connection, std::string_view line) {
    connection->interrupted = false;
    if (line.size() > client_new::LINE_LENGTH_MAX) {
        (void)fprintf(stderr, "%% Line too long (at most %zu bytes)\n",
                      client_new::LINE_LENGTH_MAX);
        connection->status = client_new::END_REFUSED;
        return Outcome::kEnded;
    }
    send_frame(connection, client_new::FRAME_COMMAND, line);
    return finish_command(connection, true);
}

bool connection_ask(Connection* connection, FrameType type, std::string_view line,
                    std::string* reply) {
    if (line.size() > client_new::LINE_LENGTH_MAX) return true;  // there is no such command
    ask_frame(connection, type, line);
    for (;;) {
        Frame frame{};
        const Event event = connection_wait(connection, false, &frame);
        if (event == Event::kLost || event == Event::kQuit) return false;
        if (event != Event::kFrame || frame.type != client_new::FRAME_REPLY) continue;
        *reply = frame.payload;
        return true;
    }
}
