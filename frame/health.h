// The device's health monitor: it is told that this process exists, and that its loops
// still turn.
// Threads: main thread.
#pragma once

#include "frame/platform/tq_thread.h"

// Whether the monitor knows the process.
extern bool ham_registered;

// Start-up: registers the process. A failure is logged.
void http_client_registe_ham();

// Tries again while the monitor does not know the process.
void http_client_retry_ham();

// Registers the calling thread with the watchdog and feeds it from the loop
// every 60 seconds.
void http_client_dead_detection(tq_thread_master* master);
int http_client_feed_dog(tq_thread* task);
