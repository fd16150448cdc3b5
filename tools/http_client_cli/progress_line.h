// The line that shows how a download goes, below the output of the command, which it must
// not disturb: the cursor always stands where the output ends, and the line is gone before
// more of it comes.
// Threads: one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "host/client_new/cli_protocol.h"

struct ProgressLine {
    struct Sample {
        int64_t at_ms;  // monotonic
        uint64_t received;
    };
    size_t column = 0;  // where the output ends
    bool drawn = false;
    uint32_t file = 0;  // what the samples are of
    std::string app;
    std::deque<Sample> samples;  // of the last seconds, the oldest first
};

// Draws the line; payload: of a FRAME_PROGRESS.
void progress_line_draw(ProgressLine* line, std::string_view payload);

void progress_line_erase(ProgressLine* line);

// Output is written: to be told of all of it, after the line was erased.
void progress_line_note(ProgressLine* line, std::string_view output);

// What is shown of the numbers at a point of time. Remembers them for the rate.
[[nodiscard]] std::string progress_line_text(ProgressLine* line,
                                             const client_new::ProgressPayload& numbers,
                                             int64_t now_ms);
