// A limit on the whole invocation: it ends wherever the program waits then, be it for the
// daemon, for the reader of its output or for another program.
// Threads: one.
#pragma once

// In so many seconds (from 1) the process ends with a line on standard error and this exit
// status. The terminal then gets back the settings that it has now.
void time_limit_start(unsigned seconds, int exit_status);

// A file that is deleted then; null: none. The path must live until it is taken back.
void time_limit_removes(const char* path);
