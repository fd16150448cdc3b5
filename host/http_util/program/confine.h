// What the program is not able to do, whoever gets hold of it: become anybody, gain a
// privilege, open a file, start a program, talk to a process, use another network than
// IPv4 streams.
// Threads: the program's only one.
#pragma once

#include <cstdint>

// Gives the rights away, for good. *not_confined: READY_ bits of what this kernel or this
// user does not let go. False: too much of it remains, or something else went wrong.
[[nodiscard]] bool confine(uint32_t* not_confined);

// Tries what must fail now, and prints a line for each attempt: name, and errno or 0.
void confine_try();
