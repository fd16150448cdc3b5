// What the operator's long commands have in common: a thread of their own, and
// the line that says how it went.
// Threads: the main loop, or a command's thread; output goes to its terminal.
#pragma once

#include <pthread.h>

#include "http/status.h"

// Starts a thread. False when there is none, which the operator is told.
[[nodiscard]] bool command_thread_create(pthread_t* thread, void* (*body)(void*), void* argument);

// Prints the report line of a code.
void command_status_print(UpdateStatus status);
