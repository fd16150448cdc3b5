// Sessions' sockets on the main loop.
//
// All tasks of the loop belong to the main thread. Threads of commands that leave
// something to send, or end a command, write an eventfd; its task then looks at
// every session. The main loop never waits for a terminal: what a socket does not
// take stays in the session's queue until it is writable.
#include "host/client_new/service.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "base/clock.h"
#include "base/local_socket.h"
#include "frame/platform/syslog_new.h"
#include "host/client_new/command.h"
#include "host/client_new/match.h"
#include "host/client_new/modes.h"
#include "host/client_new/session.h"
#include "host/tq_thread/tq_thread_host.h"

namespace client_new {

namespace {

constexpr size_t SESSIONS_MAX = 16;
constexpr size_t WAITING_LINES_MAX = 16;
constexpr int LISTEN_BACKLOG = 16;
constexpr long ACCEPT_RETRY_S = 1;
constexpr int ARM_TRIES_MAX = 50;
constexpr useconds_t ARM_PAUSE_US = 100000;
constexpr int SYSLOG_OUTPUT = 2;  // as the daemon's own lines

tq_thread_master* s_master = nullptr;
UniqueFd s_listener;
UniqueFd s_wake;
tq_thread* s_listen_task = nullptr;
bool s_commands_taken = false;
std::vector<std::shared_ptr<Session>> s_sessions;
// Sessions that are over and whose command is not. They are kept for their socket: the
// event loop may know its number until the next turn, so no other thread must close it.
std::vector<std::shared_ptr<Session>> s_leaving;

int accept_ready(tq_thread* task);
int wake_ready(tq_thread* task);
int session_readable(tq_thread* task);
int session_writable(tq_thread* task);

void log_error(const char* what) {
    (void)printk_syslog_ext(LOG_ERR, "CLI", "ERROR", SYSLOG_OUTPUT, "%s: %s\n", what,
                            strerror(errno));
}

bool arm_wake() {
    return tq_thread_add_read_withname(s_master, wake_ready, nullptr, s_wake.get(), "cli-wake") !=
           nullptr;
}

bool arm_listener() {
    if (s_listen_task == nullptr) {
        s_listen_task = tq_thread_add_read_withname(s_master, accept_ready, nullptr,
                                                    s_listener.get(), "cli-listen");
    }
    return s_listen_task != nullptr;
}

bool is_gone(Session* session) {
    const MutexLock guard(cli_lock);
    return session->gone;
}

bool is_busy(Session* session) {
    const MutexLock guard(cli_lock);
    return session->busy;
}

void drop_session(Session* session) {
    const MutexLock guard(cli_lock);
    session_drop_locked(session);
}

void end_session(Session* session, std::string_view reason) {
    const MutexLock guard(cli_lock);
    session_send_locked(session, FRAME_BYE, reason);
    session_drop_locked(session);
}

// Takes the session off the loop.
void remove_session(const std::shared_ptr<Session>& session) {
    tq_thread_cancel(session->read_task);
    tq_thread_cancel(session->write_task);
    session->read_task = nullptr;
    session->write_task = nullptr;
    if (is_busy(session.get())) s_leaving.push_back(session);
    std::erase(s_sessions, session);
}

void send_caret(Session* session, const Match& match) {
    const CaretPayload caret{static_cast<uint32_t>(match.wrong_at)};
    std::string payload(reinterpret_cast<const char*>(&caret), sizeof(caret));
    payload += match.nearest;
    const MutexLock guard(cli_lock);
    session_send_locked(session, FRAME_CARET, payload);
}

void run_line(const std::shared_ptr<Session>& session, std::string_view line) {
    Mode mode{};
    {
        const MutexLock guard(cli_lock);
        mode = session->mode;
    }
    const Grammar& grammar = modes_grammar(mode);
    if (line_is_blank(line)) {
        command_skip(session, "");
        return;
    }
    if (line.ends_with('?')) {
        const std::string help = match_help(grammar, line.substr(0, line.size() - 1));
        {
            const MutexLock guard(cli_lock);
            session_print_locked(session.get(), help);
        }
        command_skip(session, "");
        return;
    }
    const Match match = match_line(grammar, line, session->second_list ? 1 : 0);
    if (match.handler == nullptr) {
        if (session->person) send_caret(session.get(), match);
        command_skip(session, match.refusal);
    } else {
        command_run(session, match);
    }
}

// Runs what waits, sends what the socket takes, and puts the session back on the
// loop; or lets it go.
void serve_session(const std::shared_ptr<Session>& session) {
    while (s_commands_taken && !session->waiting_lines.empty() && !is_busy(session.get()) &&
           !is_gone(session.get())) {
        const std::string line = std::move(session->waiting_lines.front());
        session->waiting_lines.pop_front();
        run_line(session, line);
    }
    bool unsent = false;
    {
        const MutexLock guard(cli_lock);
        session_flush_locked(session.get());
        unsent = session_has_unsent_locked(session.get());
    }
    if (is_gone(session.get())) {
        remove_session(session);
        return;
    }
    if (session->read_task == nullptr) {
        session->read_task = tq_thread_add_read_withname(s_master, session_readable, session.get(),
                                                         session->socket.get(), "cli-read");
    }
    if (unsent && session->write_task == nullptr) {
        session->write_task = tq_thread_add_write_withname(
            s_master, session_writable, session.get(), session->socket.get(), "cli-write");
    }
    if (session->read_task == nullptr || (unsent && session->write_task == nullptr)) {
        drop_session(session.get());  // out of memory: nothing would be read from it any more
        remove_session(session);
    }
}

void open_session(Session* session, std::string_view payload) {
    OpenPayload open{};
    if (session->opened || payload.size() < sizeof(open)) {
        end_session(session, "malformed request");
        return;
    }
    memcpy(&open, payload.data(), sizeof(open));
    if (open.version != PROTOCOL_VERSION) {
        end_session(session, "this program and the daemon are of different releases");
        return;
    }
    session->opened = true;
    session->second_list = (open.flags & OPEN_SECOND_LIST) != 0;
    session->person = (open.flags & OPEN_PERSON) != 0;
    session->waiting_lines.emplace_back();  // a blank line: answered when commands are taken
}

void add_keys(Session* session, std::string_view keys) {
    const MutexLock guard(cli_lock);
    const bool for_none = !session->busy && session->waiting_lines.empty();
    if (for_none) return;  // came too late for its command
    for (const char key : keys) session_add_key_locked(session, static_cast<unsigned char>(key));
}

void send_frame(Session* session, FrameType type, std::string_view payload) {
    const MutexLock guard(cli_lock);
    session_send_locked(session, type, payload);
}

std::string completions(const Grammar& grammar, std::string_view line) {
    std::string words;
    for (const std::string_view word : match_complete(grammar, line)) {
        words += word;
        words += '\n';
    }
    return words;
}

Mode mode_of(Session* session) {
    const MutexLock guard(cli_lock);
    return session->mode;
}

void note_activity(Session* session) {
    const MutexLock guard(cli_lock);
    session->active_ms = monotonic_ms();
}

void take_frame(Session* session, const Frame& frame) {
    if (!session->opened && frame.type != FRAME_OPEN) {
        end_session(session, "malformed request");
        return;
    }
    if (frame.type != FRAME_PING) note_activity(session);
    // Other types are of a later release: skipped.
    switch (frame.type) {
        case FRAME_OPEN:
            open_session(session, frame.payload);
            return;
        case FRAME_COMMAND:
            if (session->waiting_lines.size() >= WAITING_LINES_MAX) {
                end_session(session, "too many commands at once");
                return;
            }
            session->waiting_lines.emplace_back(frame.payload);
            return;
        case FRAME_KEY:
            add_keys(session, frame.payload);
            return;
        case FRAME_HELP:
            send_frame(session, FRAME_REPLY,
                       match_help(modes_grammar(mode_of(session)), frame.payload));
            return;
        case FRAME_COMPLETE:
            send_frame(session, FRAME_REPLY,
                       completions(modes_grammar(mode_of(session)), frame.payload));
            return;
        case FRAME_PING:  // no sign of a person
            send_frame(session, FRAME_PONG, "");
            return;
        case FRAME_UNSAVED:
            send_frame(session, FRAME_REPLY, modes_unsaved());
            return;
        case FRAME_OUTPUT:
        case FRAME_REFUSAL:
        case FRAME_END:
        case FRAME_REPLY:
        case FRAME_BYE:
        case FRAME_PONG:
        case FRAME_RUNNING:
        case FRAME_PROGRESS:
        case FRAME_CARET:
        case FRAME_HINT:
            return;
    }
}

void take_frames(Session* session) {
    Frame frame{};
    for (;;) {
        const FrameReader::Result result = session->input.Next(&frame);
        if (result == FrameReader::Result::kIncomplete) return;
        if (result == FrameReader::Result::kTooLong) {
            end_session(session, "malformed request");
            return;
        }
        take_frame(session, frame);
        if (is_gone(session)) return;
    }
}

// One read a turn of the loop, so that a peer that sends much keeps nobody waiting.
void receive(Session* session) {
    char bytes[4096];
    const ssize_t count = recv(session->socket.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
    if (count > 0) {
        if (!session->input.Add({bytes, static_cast<size_t>(count)})) {
            drop_session(session);
            return;
        }
        take_frames(session);
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        drop_session(session);
    }
}

std::shared_ptr<Session> session_of(const tq_thread* task) {
    const auto found = std::ranges::find_if(
        s_sessions, [&](const auto& session) { return session.get() == TQ_THREAD_ARG(task); });
    return found == s_sessions.end() ? nullptr : *found;
}

int session_readable(tq_thread* task) {
    const std::shared_ptr<Session> session = session_of(task);
    if (session == nullptr) return -1;
    session->read_task = nullptr;
    receive(session.get());
    serve_session(session);
    return 0;
}

int session_writable(tq_thread* task) {
    const std::shared_ptr<Session> session = session_of(task);
    if (session == nullptr) return -1;
    session->write_task = nullptr;
    serve_session(session);
    return 0;
}

int wake_ready(tq_thread*) {
    service_must("cli-wake", arm_wake);
    eventfd_t count = 0;
    (void)eventfd_read(s_wake.get(), &count);  // non-blocking; nothing to read is fine
    std::erase_if(s_leaving, [](const auto& session) { return session.use_count() == 1; });
    const std::vector<std::shared_ptr<Session>> sessions = s_sessions;
    for (const auto& session : sessions) serve_session(session);
    return 0;
}

int accept_retry(tq_thread*) {
    service_must("cli-listen", arm_listener);
    return 0;
}

bool arm_accept_retry() {
    return tq_thread_add_timer_withname(s_master, accept_retry, nullptr, ACCEPT_RETRY_S,
                                        "cli-accept") != nullptr;
}

// A place for one more session: the terminal that was idle for longest gives way.
// False: all of them run commands.
bool make_room() {
    if (s_sessions.size() < SESSIONS_MAX) return true;
    std::shared_ptr<Session> idlest;
    int64_t since_ms = INT64_MAX;
    for (const auto& session : s_sessions) {
        const MutexLock guard(cli_lock);
        if (session->busy || session->active_ms >= since_ms) continue;
        idlest = session;
        since_ms = session->active_ms;
    }
    if (idlest == nullptr) return false;
    end_session(idlest.get(), "idle for longest, and another terminal needs the place");
    remove_session(idlest);
    return true;
}

int accept_ready(tq_thread*) {
    s_listen_task = nullptr;
    UniqueFd socket(accept4(s_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    // The listener would stay readable: look again a little later instead of spinning.
    const bool short_of_means = !socket.valid() && (errno == EMFILE || errno == ENFILE ||
                                                    errno == ENOMEM || errno == ENOBUFS);
    if (short_of_means) {
        log_error("accept");
        service_must("cli-accept", arm_accept_retry);
        return -1;
    }
    service_must("cli-listen", arm_listener);
    if (!socket.valid()) return -1;
    auto session = std::make_shared<Session>();
    session->socket = std::move(socket);
    if (!make_room()) {
        end_session(session.get(), "too many sessions are open");
        return 0;
    }
    s_sessions.push_back(session);
    serve_session(session);
    return 0;
}

}  // namespace

void service_must(const char* name, bool (*arm)()) {
    for (int left = ARM_TRIES_MAX; !arm(); usleep(ARM_PAUSE_US)) {
        if (--left > 0) continue;
        log_error(name);
        (void)fprintf(stderr, "%s: can't be armed, the process ends\n", name);
        _exit(EXIT_FAILURE);
    }
}

bool service_listen(tq_thread_master* master, const std::string& path) {
    if (s_listener.valid()) return true;
    command_init(-1);
    UniqueFd listener;
    UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    int error = wake.valid() ? 0 : errno;
    if (error == 0) error = local_listen(path.c_str(), 0600, LISTEN_BACKLOG, &listener);
    if (error != 0) {
        errno = error;
        log_error(path.c_str());
        return false;
    }
    s_master = master;
    s_wake = std::move(wake);
    if (arm_wake()) {
        command_init(s_wake.get());
        s_listener = std::move(listener);
        return true;
    }
    log_error("cli-wake");
    (void)unlink(path.c_str());
    return false;
}

bool service_start() {
    if (!s_listener.valid()) return false;
    s_commands_taken = true;
    service_must("cli-listen", arm_listener);
    return true;
}

}  // namespace client_new
