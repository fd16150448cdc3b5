// What the daemon sends, on its way to the operator. Where standard output is no terminal,
// output passes byte for byte and everything beside it is dropped; on a terminal there is a
// progress line, and a person who types gets carets, hints and whole pages.
// Threads: one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "filter.h"
#include "host/client_new/cli_protocol.h"
#include "progress_line.h"

struct Display {
    bool person = false;       // commands are typed; set before the session is opened
    bool output_lost = false;  // output could not be written; said so
    std::string typed;         // prompt and line that stand above the cursor, for a caret
    size_t typed_prompt = 0;   // bytes of them that are the prompt

    // Of the command that runs:
    std::vector<Filter> filters;
    std::string line;     // filtered output up to its line end
    bool holds = false;   // until the command ends, or says that it goes on
    std::string held;     // for the pager; the caller's after display_end()
    std::string nearest;  // keyword to offer with the next refusal
    ProgressLine progress;
};

// Whether the daemon is to send more than output.
[[nodiscard]] bool display_serves_person(const Display& display);

// Before each command. hold: its output is kept together for the pager unless it goes on.
void display_begin(Display* display, std::vector<Filter> filters, bool hold);

// Any frame of a command but its end.
void display_frame(Display* display, const client_new::Frame& frame);

// After each command, however it ended.
void display_end(Display* display);

// Writes to standard output. Says once when that fails, and goes on.
void display_write(Display* display, std::string_view text);
