// Running commands: whose output is whose, and when a command is over.
//
// A handler runs on the main loop. It may leave the command to a worker thread,
// which may print and even end the command before the handler has named it. So
// output of a thread that is not known yet waits while a handler runs, until the
// thread is named or the handler has returned; then it goes to its terminal, or
// nowhere when the thread belongs to no command.
//
// Threads: functions here are for the main loop only; the calls of client_new.h
// that are implemented beside them (output, keys, command threads) are for any.
#pragma once

#include <memory>
#include <string>

#include "host/client_new/match.h"
#include "host/client_new/session.h"

namespace client_new {

// Makes the calling thread the main loop's. wake_fd: an eventfd that is written
// when the main loop has something to send or a session can go on; -1: there are no
// sessions yet.
void command_init(int wake_fd);

// Runs the handler for a session that is not busy. When it returns, the command
// has ended or a worker thread will end it.
void command_run(const std::shared_ptr<Session>& session, const Match& match);

// Ends a line of a session that is not busy, without any command: refused with
// the text, or accepted when it is empty.
void command_skip(const std::shared_ptr<Session>& session, std::string_view refusal)
    EXCLUDES(cli_lock);

struct SilentOutcome {
    std::string said;  // refused or printed, cut to some hundred bytes
    bool no_memory;    // nothing was changed, for memory was short
};
// Runs the handler without a terminal; also from within the handler of a command.
SilentOutcome command_run_silent(const Match& match);

// The session of the handler that runs, or null.
std::shared_ptr<Session> command_session();

// Refuses the command whose handler runs.
void command_refuse(std::string_view text);

// printf into a string.
std::string format_text(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

}  // namespace client_new
