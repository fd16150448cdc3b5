// Support bundle: the daemon's reports and its dump files in one archive.
// Threads: one.
#pragma once

// Writes FILE.tar.gz. Returns the program's exit status; what went wrong is said
// on standard error.
int tech_support_write(const char* path);
