// What happens when C++'s own allocations (texts, lists of the libraries) find no memory.
// None of them can report a failure, and one of them must not take the apps' service down:
// a reserve is given back, so that the very call succeeds. Only when that was not enough,
// or is not there again yet, the process ends, with a line that says so.
// The C library's calls (malloc, calloc) and new (std::nothrow) just fail, as ever: their
// callers answer for it.
// Threads: any.
#pragma once

// Start-up: takes the reserve.
void memory_reserve_init();

// Takes a new reserve where the last one was needed; without memory for it nothing
// changes. For a timer.
void memory_reserve_refill();
