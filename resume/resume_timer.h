// The retries: a one-shot timer on the admin loop starts a resume run of the
// listed apps and arms itself again while there are any. A budget of retries
// gives up the entry at the front of the list when it is used up.
// Threads: as each call says.
#pragma once

#include "base/sync.h"
#include "frame/platform/tq_thread.h"
#include "resume/resume_list.h"
#include "update/update_run.h"

// Delay before the first resume run after the admin thread's start, in seconds.
constexpr int RESUME_START_DELAY_S = 1800;

// Start-up, on the admin thread, before any other call: the loop that the timer
// runs on from now. None is pending.
void resume_timer_init(tq_thread_master* loop);

// A delay drawn at random, 1800 to 7200 seconds. Any thread.
[[nodiscard]] int resume_delay();

// Arms the timer, unless it is pending already (it then stays as it is) or the
// list is empty (which refills the budget). Admin thread.
void resume_timer_add(int seconds);

// A list that could not be read at start, and can now, gets its timer. Admin thread, every
// minute.
void resume_timer_catch_up();

// What is going to be resumed, and when. Any thread.
struct ResumeOutlook {
    uint32_t apps;         // of the list
    int32_t retries_left;  // before its first entry is given up
    bool is_armed;         // else a run is under way, or there is nothing to do
    int64_t seconds_left;  // until the next run
};
[[nodiscard]] ResumeOutlook resume_outlook();

// The timer: one resume run. Admin thread.
int resume_timer_proc(tq_thread* task);

// UpdateReportFn of resume runs.
void resume_report(const AppSet& requested, UpdateRunKind kind, const char* host,
                   UpdateStatus status);

// The report of the list: to the operator's terminal when output is 1, to
// technical support when it is 0. Main thread.
void resume_show(int output);
