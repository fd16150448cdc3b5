// Support bundle: what the daemon and the system say of the service, its files and its
// dump files, in one archive with an index.
// Threads: one.
#pragma once

// Runs a command of the daemon as this program does; returns its exit status.
using CommandRunner = int (*)(const char* command);

// Writes FILE.tar.gz. Returns the program's exit status: 0, 1 when something was left out,
// 2 when there is no bundle. Both are said on standard error.
int tech_support_write(const char* path, CommandRunner run);
