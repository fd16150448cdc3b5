// The program's side of a session: connects to the daemon, runs commands, asks
// for help and completions. Signals come in through a descriptor, so that a key
// or a resize can arrive at any moment and be taken at the right one.
// Threads: one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "display.h"
#include "host/client_new/cli_protocol.h"

// What woke the program while it waited.
enum class Event {
    kFrame,      // the daemon sent one
    kInput,      // standard input is readable
    kInterrupt,  // SIGINT
    kResize,     // SIGWINCH
    kContinue,   // SIGCONT: the terminal may have been somebody else's
    kQuit,       // SIGTERM or SIGHUP
    kLost,       // the daemon closed the session
};

struct Connection {
    UniqueFd socket;
    UniqueFd signals;
    client_new::FrameReader reader{client_new::REPLY_PAYLOAD_MAX};
    client_new::Mode mode = client_new::Mode::kExec;
    bool answers_ping = false;
    bool serves_person = false;  // the daemon has hints, and says when a command goes on
    bool second_list = false;
    int64_t asked_ms = 0;      // since when the daemon owes an answer, monotonic; 0: it does not
    bool left = false;         // the session ended by a command
    int status = 0;            // exit status that the last command asks for
    bool interrupted = false;  // SIGINT came while it ran
    std::string lost;          // why the daemon closed the session, for standard error
    bool dismissed = false;    // it was the daemon that wanted so
    Display display;
};

enum class Outcome { kEnded, kQuit, kLost };

// Here and below: a daemon that shows no sign of life for ten seconds counts as gone. A
// command may be silent for as long as it likes, where the daemon answers pings.

// Opens a session. False: there is no daemon, said so on standard error; or it
// does not want us.
bool connection_open(Connection* connection, bool second_list);

// Opens a session anew after one that was lost. kLost: there is no daemon now, and nothing
// is said.
Outcome connection_open_again(Connection* connection);

// Takes a signal that has come. True: it asks the program to end.
bool connection_asked_to_end(Connection* connection);

// Waits for a frame, a signal or, if asked, standard input.
Event connection_wait(Connection* connection, bool input_too, client_new::Frame* frame);

// Runs a command to its end; output and refusals go to standard output and error. kEnded:
// status says how it went.
Outcome connection_run(Connection* connection, std::string_view line);

// Asks with FRAME_HELP or FRAME_COMPLETE. False: the session is lost or over.
bool connection_ask(Connection* connection, client_new::FrameType type, std::string_view line,
                    std::string* reply);
