// Start of the download program.
// Threads: any.
#pragma once

#include <sys/types.h>

// Told of a program's end, on a thread of its own.
using ProgramEnded = void (*)(pid_t process);

// Starts the program with that end of a pair of packet sockets, which stays the caller's.
// 0: *process is its id until ended is called. Else an errno, and nothing runs.
[[nodiscard]] int program_launch(int socket, ProgramEnded ended, pid_t* process);

// A line about the program for the system log, cut to its size.
void program_log(const char* what, const char* why);
