// The steps of start-up that belong to the process itself: option, single
// instance, CPU affinity, signals.
// Threads: main thread.
#pragma once

// Reads the one option, -d with an optional category letter, into DebugMask.
// Ends the process with code 1 on any other command line.
void http_client_parse_args(int argc, char** argv);

// Takes the lock of the single-instance file and writes the process id into it.
// Ends the process with code 0 when another instance holds it, 1 when the file
// can't be used. The lock is held until the process ends.
void http_client_is_continue();

// Binds the process to the CPUs that the platform has a rule for, if any.
void http_client_bind_cpus();

void http_client_signal_init();
