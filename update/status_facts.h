// How the updates of this device stand: what goes on, what was, what comes next. One
// record, from which every way of telling it is made.
// Threads: any that may wait for the disk.
#pragma once

#include <cstdint>

#include "resume/resume_timer.h"
#include "update/history.h"
#include "update/progress.h"

// Times are seconds since 1970.
struct UpdateStatusFacts {
    const char* version;  // of the daemon
    int64_t now_s;
    int64_t uptime_s;  // of the daemon

    // The run under way:
    bool is_running;
    RunRecord current;        // where it is known; number 0: it is not
    UpdateProgress progress;  // of its file
    uint64_t bytes_per_s;     // of the file, since it was begun
    int64_t silence_s;        // since bytes of it came
    bool size_is_known;       // progress.file_size is the server's word

    // The newest run that is over:
    bool has_last;
    RunRecord last;
    RunOutcome last_outcome;

    uint32_t success_number;  // the newest success; 0: none is known
    UpdateRunKind success_kind;
    int64_t success_s;  // when it ended

    // The next daily run:
    bool is_manual;        // there is none
    bool time_is_default;  // drawn at start, not configured
    int64_t daily_s;
    uint32_t daily_apps;  // apps that it would update now

    uint32_t registered_apps;
    ResumeOutlook resume;
    HistoryTotals totals;
    int history_error;  // 0, or why the history could not be read (errno)
};

// facts is zero-filled.
void update_status_facts(UpdateStatusFacts* facts);

// When the daily update comes after that run, which is ending: it is not the one that
// comes next, though its ten minutes may not be over. Seconds since 1970; 0: manual mode.
[[nodiscard]] int64_t update_next_daily_after(const RunRecord& run);

// What a result of history_read is to a person.
[[nodiscard]] const char* history_error_words(int error);
