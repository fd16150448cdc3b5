// The admin thread with its own event loop: the daily update and the resume
// timer run there; and the public timer on the main loop, which retries every
// minute what failed at start.
// Threads: as each call says.
#pragma once

#include <cstdint>

#include "frame/platform/tq_thread.h"
#include "http/status.h"
#include "registry/app_set.h"
#include "update/run_kind.h"

// The admin thread's loop. Written once by that thread, used on it alone.
extern tq_thread_master* http_update_admin_master;

// Main thread, start-up: clears the update progress, sets auto mode, draws the
// default time and starts the admin thread. Ends the process with code 1 when
// there is no thread.
void http_update_admin_init();

// Main thread, start-up: installs the registration server on the loop and arms
// the public timer. Ends the process with code 1 when the timer can't be added.
int http_update_admin_reg_install(tq_thread_master* master);

// Main thread, start-up: what the public timer tries besides, every minute until it returns
// true.
using AdminRetry = bool (*)(tq_thread_master* master);
void http_update_admin_retry(AdminRetry again);

// The timers.
int http_update_admin_timer_proc(tq_thread* task);
int http_update_admin_public_timer(tq_thread* task);

// 0 when the daily update is due now, else -1. Admin thread.
[[nodiscard]] int http_update_admin_time_check();

// When the next daily update is due, seconds since 1970: now, as long as its ten minutes
// are not over and it has not run; not within the next not_before_s seconds. In manual
// mode 0. Any thread.
[[nodiscard]] int64_t http_update_admin_next_daily(int64_t not_before_s = 0);

// Seconds since the start of the daemon. Any thread.
[[nodiscard]] int64_t http_update_admin_uptime();

// Report of the daily run's passes.
void http_update_admin_report(const AppSet& requested, UpdateRunKind kind, const char* host,
                              UpdateStatus status);

// 0 to n - 1; a number in [0, 1); draws the default time. Main thread, before
// others start.
[[nodiscard]] int http_update_admin_rand(int n);
[[nodiscard]] double http_update_admin_rand_fraction();
void http_update_admin_rand_time();
