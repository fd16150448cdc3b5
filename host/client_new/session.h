// One operator's terminal as the daemon sees it: what waits to be sent to it, the
// keys typed there, and whether it is still there.
//
// Threads: the main loop and the threads of running commands, under cli_lock;
// fields marked so belong to the main loop alone. Nothing here waits, except
// session_wait_for_room.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/sync.h"
#include "base/unique_fd.h"
#include "frame/platform/tq_thread.h"
#include "host/client_new/cli_protocol.h"
#include "host/client_new/growing_bytes.h"

namespace client_new {

// The library's only lock, a leaf: under it nothing waits, nothing is called
// back, and nothing else is locked. Sends under it never block.
extern Mutex cli_lock;

struct Session {
    // Main loop only.
    tq_thread* read_task = nullptr;
    tq_thread* write_task = nullptr;
    FrameReader input{REQUEST_PAYLOAD_MAX};
    std::deque<std::string> waiting_lines;
    bool opened = false;
    bool second_list = false;

    bool person = false;  // a person looks on; set before its first command

    UniqueFd socket;  // set once; closed with the record, on the main loop

    bool busy GUARDED_BY(cli_lock) = false;  // a command runs
    Mode mode GUARDED_BY(cli_lock) = Mode::kExec;
    bool leave GUARDED_BY(cli_lock) = false;  // the session ends with its command
    bool gone GUARDED_BY(cli_lock) = false;   // what is sent now is dropped
    // When it came, typed or saw a command end; monotonic.
    int64_t active_ms GUARDED_BY(cli_lock) = monotonic_ms();
    GrowingBytes text GUARDED_BY(cli_lock);   // output not yet in a frame
    GrowingBytes queue GUARDED_BY(cli_lock);  // frames not yet sent
    std::deque<int> keys GUARDED_BY(cli_lock);
};

// Adds output; sends when about 8 KiB have gathered. Here and below: a session for which
// memory is short is dropped.
void session_print_locked(Session* session, std::string_view text) REQUIRES(cli_lock);

// Adds a frame behind all output made so far, and sends.
void session_send_locked(Session* session, FrameType type, std::string_view payload)
    REQUIRES(cli_lock);

// Sends what the socket takes now. What then remains is the main loop's to send.
void session_flush_locked(Session* session) REQUIRES(cli_lock);

bool session_has_unsent_locked(const Session* session) REQUIRES(cli_lock);

// From now on the terminal counts as gone. The socket is shut down, which wakes
// whoever waits for it, and closed with the record.
void session_drop_locked(Session* session) REQUIRES(cli_lock);

// Remembers a key until the running command asks for it.
void session_add_key_locked(Session* session, int key) REQUIRES(cli_lock);

// The next key, -1 when there is none, CLI_KEY_CTRL_C when the terminal is gone.
int session_next_key_locked(Session* session) REQUIRES(cli_lock);

// Called on a command's own thread: waits until the terminal has read enough for
// more output, or 5 seconds; a terminal that reads nothing for so long counts as
// gone. Holds no lock while it waits.
void session_wait_for_room(const std::shared_ptr<Session>& session) EXCLUDES(cli_lock);

}  // namespace client_new
