// The steps of start-up that belong to the process itself: option, single
// instance, CPU affinity, health monitor, signals, watchdog.
// Threads: main thread.
#pragma once

#include "frame/platform/tq_thread.h"

// The main thread's event loop. Written once at start; never destroyed.
extern tq_thread_master* http_client_master;

// Whether the health monitor knows the process. The public timer tries again
// while it does not.
extern bool ham_registered;

// Reads the one option, -d with an optional category letter, into DebugMask.
// Ends the process with code 1 on any other command line.
void http_client_parse_args(int argc, char** argv);

// Takes the lock of the single-instance file and writes the process id into it.
// Ends the process with code 0 when another instance holds it, 1 when the file
// can't be used. The lock is held until the process ends.
void http_client_is_continue();

// Binds the process to the CPUs that the platform has a rule for, if any.
void http_client_bind_cpus();

void http_client_registe_ham();
void http_client_signal_init();

// Registers the calling thread with the watchdog and feeds it from the loop
// every 60 seconds.
void http_client_dead_detection(tq_thread_master* master);
int http_client_feed_dog(tq_thread* task);
