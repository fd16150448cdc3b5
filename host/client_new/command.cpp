// Table of open commands, and the calls by which handlers and their threads reach
// their terminals.
#include "host/client_new/command.h"

#include <pthread.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "base/clock.h"
#include "base/text.h"

namespace client_new {

namespace {

// Sessions are few, but each terminal that goes away may leave a command behind
// that still has to come to its end.
constexpr size_t COMMANDS_MAX = 32;
constexpr size_t CAPTURED_MAX = 512;
// How long an unknown thread waits for the handler that may be about to name it.
constexpr int64_t UNKNOWN_WAIT_MS = 5000;

struct Command {
    cli_record record;                 // its address names the command
    std::shared_ptr<Session> session;  // null: no terminal
    std::string captured;              // what it printed without a terminal
    pthread_t thread;                  // valid when threaded
    bool threaded;
    bool handler_running;
    bool ended;    // by its thread; final, even before the thread was named
    bool refused;  // with a text of its own
    int outcome;   // CLI_OUTCOME_
};

std::vector<std::unique_ptr<Command>> s_commands GUARDED_BY(cli_lock);
Command* s_current GUARDED_BY(cli_lock);  // whose handler runs on the main loop
uint64_t s_handlers_run GUARDED_BY(cli_lock);
pthread_cond_t s_changed = PTHREAD_COND_INITIALIZER;  // a thread was named, a handler returned
pthread_t s_main_thread;
int s_wake_fd = -1;

void wake_main_loop() {
    if (s_wake_fd >= 0) (void)eventfd_write(s_wake_fd, 1);  // fails only when it is set anyway
}

bool on_main_loop() { return pthread_equal(pthread_self(), s_main_thread) != 0; }

Command* find_record_locked(const cli_record* record) REQUIRES(cli_lock) {
    for (const auto& command : s_commands) {
        if (&command->record == record) return command.get();
    }
    return nullptr;
}

Command* find_thread_locked(pthread_t thread) REQUIRES(cli_lock) {
    for (const auto& command : s_commands) {
        if (command->threaded && !command->ended && pthread_equal(command->thread, thread)) {
            return command.get();
        }
    }
    return nullptr;
}

// The command that the calling thread works for, or null. May wait, with the lock
// released, for a handler to name the thread.
Command* find_caller_locked() REQUIRES(cli_lock) {
    if (on_main_loop()) return s_current;
    const uint64_t handler = s_handlers_run;
    const timespec until = Deadline(UNKNOWN_WAIT_MS).At();
    for (;;) {
        Command* command = find_thread_locked(pthread_self());
        const bool may_be_named = s_current != nullptr && s_handlers_run == handler;
        if (command != nullptr || !may_be_named) return command;
        if (pthread_cond_clockwait(&s_changed, cli_lock.Native(), CLOCK_MONOTONIC, &until) != 0) {
            return find_thread_locked(pthread_self());
        }
    }
}

uint8_t end_status(const Command& command) {
    const bool refused = command.refused || command.outcome == CLI_OUTCOME_NO_MEMORY;
    return refused ? END_REFUSED : static_cast<uint8_t>(command.outcome);
}

void end_session_line_locked(Session* session, uint8_t status) REQUIRES(cli_lock) {
    session->busy = false;
    session->active_ms = monotonic_ms();
    session->keys.clear();  // typed for this command only
    const EndPayload end{status, session->mode, static_cast<uint8_t>(session->leave ? 1 : 0),
                         END_ANSWERS_PING | END_SERVES_PERSON};
    session_send_locked(session, FRAME_END, {reinterpret_cast<const char*>(&end), sizeof(end)});
}

// Releases the command; its record is gone.
void finish_locked(Command* command) REQUIRES(cli_lock) {
    if (command->session != nullptr) {
        end_session_line_locked(command->session.get(), end_status(*command));
    }
    std::erase_if(s_commands, [&](const auto& other) { return other.get() == command; });
    wake_main_loop();
}

Command* add_locked(const Match& match, const std::shared_ptr<Session>& session)
    REQUIRES(cli_lock) {
    s_commands.push_back(std::make_unique<Command>());
    Command* command = s_commands.back().get();
    command->record = match.record;
    command->session = session;
    command->handler_running = true;
    s_current = command;
    return command;
}

// The handler has returned: a command without a thread is over.
void handler_returned_locked(Command* command) REQUIRES(cli_lock) {
    s_current = nullptr;
    ++s_handlers_run;
    command->handler_running = false;
    (void)pthread_cond_broadcast(&s_changed);
    if (!command->threaded || command->ended) {
        finish_locked(command);
    } else if (command->session != nullptr && command->session->person) {
        session_send_locked(command->session.get(), FRAME_RUNNING, "");
    }
}

void capture_locked(Command* command, std::string_view text) REQUIRES(cli_lock) {
    std::string& captured = command->captured;
    if (captured.size() < CAPTURED_MAX) captured.append(text.substr(0, CAPTURED_MAX));
}

void refuse_locked(Command* command, std::string_view text) REQUIRES(cli_lock) {
    command->refused = true;
    if (command->session == nullptr) {
        capture_locked(command, text);
    } else {
        session_send_locked(command->session.get(), FRAME_REFUSAL, text);
    }
}

// After output: has the main loop send the rest, and holds a thread that is too
// fast for its terminal. The main loop itself never waits.
void flush_or_throttle(const std::shared_ptr<Session>& session) EXCLUDES(cli_lock) {
    if (!on_main_loop()) session_wait_for_room(session);
    bool unsent = false;
    {
        const MutexLock guard(cli_lock);
        unsent = session_has_unsent_locked(session.get());
    }
    if (unsent) wake_main_loop();
}

// The terminal of the caller's command where a person looks on, or null.
Session* person_locked() REQUIRES(cli_lock) {
    const Command* command = find_caller_locked();
    const bool somebody = command != nullptr && command->session != nullptr;
    return somebody && command->session->person ? command->session.get() : nullptr;
}

// Sends to the person at the terminal, who is never waited for.
void tell_locked(Session* session, FrameType type, std::string_view payload) REQUIRES(cli_lock) {
    session_send_locked(session, type, payload);
    if (session_has_unsent_locked(session)) wake_main_loop();
}

void print(std::string_view text) EXCLUDES(cli_lock) {
    std::shared_ptr<Session> session;
    {
        const MutexLock guard(cli_lock);
        Command* command = find_caller_locked();
        if (command == nullptr) return;
        if (command->session == nullptr) {
            capture_locked(command, text);
            return;
        }
        session_print_locked(command->session.get(), text);
        if (!session_has_unsent_locked(command->session.get())) return;
        session = command->session;
    }
    flush_or_throttle(session);
}

}  // namespace

void command_init(int wake_fd) {
    s_main_thread = pthread_self();
    s_wake_fd = wake_fd;
}

void command_run(const std::shared_ptr<Session>& session, const Match& match) {
    Command* command = nullptr;
    {
        const MutexLock guard(cli_lock);
        if (s_commands.size() < COMMANDS_MAX) {
            command = add_locked(match, session);
            session->busy = true;
        }
    }
    if (command == nullptr) {
        command_skip(session, "% Too many commands are running\n");
        return;
    }
    match.handler(&command->record);
    const MutexLock guard(cli_lock);
    handler_returned_locked(command);
}

void command_skip(const std::shared_ptr<Session>& session, std::string_view refusal) {
    const MutexLock guard(cli_lock);
    if (!refusal.empty()) session_send_locked(session.get(), FRAME_REFUSAL, refusal);
    end_session_line_locked(session.get(), refusal.empty() ? END_ACCEPTED : END_REFUSED);
}

SilentOutcome command_run_silent(const Match& match) {
    Command* outer = nullptr;
    Command* command = nullptr;
    {
        const MutexLock guard(cli_lock);
        outer = s_current;
        command = add_locked(match, nullptr);
    }
    match.handler(&command->record);
    const MutexLock guard(cli_lock);
    SilentOutcome outcome{std::move(command->captured), command->outcome == CLI_OUTCOME_NO_MEMORY};
    handler_returned_locked(command);
    s_current = outer;
    return outcome;
}

std::shared_ptr<Session> command_session() {
    const MutexLock guard(cli_lock);
    return s_current == nullptr ? nullptr : s_current->session;
}

void command_refuse(std::string_view text) {
    const MutexLock guard(cli_lock);
    if (s_current != nullptr) refuse_locked(s_current, text);
}

std::string format_text(const char* format, va_list args) {
    char text[1024];
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(text, sizeof(text), format, args);
    std::string result;
    if (length >= 0 && static_cast<size_t>(length) < sizeof(text)) {
        result.assign(text, static_cast<size_t>(length));
    } else if (length >= 0) {
        result.resize(static_cast<size_t>(length));
        (void)vsnprintf(result.data(), result.size() + 1, format, again);
    }
    va_end(again);
    return result;
}

}  // namespace client_new

using namespace client_new;

void cli_printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = format_text(format, args);
    va_end(args);
    print(text);
}

void cli_printf_cdb(cli_record* record, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = format_text(format, args);
    va_end(args);
    const MutexLock guard(cli_lock);
    Command* command = find_record_locked(record);
    if (command == nullptr) command = find_caller_locked();
    if (command != nullptr) refuse_locked(command, text);
}

void cli_command_outcome(cli_record* record, int outcome) {
    const MutexLock guard(cli_lock);
    Command* command = find_record_locked(record);
    const bool known = outcome >= CLI_OUTCOME_DONE && outcome <= CLI_OUTCOME_NO_MEMORY;
    if (command != nullptr && known) command->outcome = outcome;
}

void cli_hint(const char* text) {
    const MutexLock guard(cli_lock);
    Session* session = person_locked();
    if (session != nullptr) tell_locked(session, FRAME_HINT, text);
}

void cli_progress(const cli_progress_numbers* numbers) {
    ProgressPayload payload{numbers->received, numbers->total, numbers->file, numbers->files, {}};
    (void)text_copy(payload.app, numbers->app);
    const MutexLock guard(cli_lock);
    Session* session = person_locked();
    // Stale numbers are of no use: those that can't go out now never do.
    if (session == nullptr || session_has_unsent_locked(session)) return;
    tell_locked(session, FRAME_PROGRESS,
                {reinterpret_cast<const char*>(&payload), sizeof(payload)});
}

void cli_flush(void) {
    std::shared_ptr<Session> session;
    {
        const MutexLock guard(cli_lock);
        const Command* command = find_caller_locked();
        if (command == nullptr || command->session == nullptr) return;
        session = command->session;
        session_flush_locked(session.get());
    }
    flush_or_throttle(session);
}

int cli_getc_no_block(void) {
    const MutexLock guard(cli_lock);
    const Command* command = find_caller_locked();
    if (command == nullptr || command->session == nullptr) return -1;
    return session_next_key_locked(command->session.get());
}

void cli_proc_thread_start(cli_record* record, pthread_t thread) {
    const MutexLock guard(cli_lock);
    Command* command = find_record_locked(record);
    // Thread numbers are used again: after the end this one may be somebody else's.
    if (command == nullptr || command->ended || command->threaded) return;
    command->thread = thread;
    command->threaded = true;
    (void)pthread_cond_broadcast(&s_changed);
}

void cli_proc_thread_end(cli_record* record, pthread_t) {
    const MutexLock guard(cli_lock);
    Command* command = find_record_locked(record);
    if (command == nullptr || command->ended) return;
    command->ended = true;
    if (!command->handler_running) finish_locked(command);
}
