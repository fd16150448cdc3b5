// What the host's loops offer beyond frame/platform/tq_thread.h, for the other
// libraries of host/ only: the daemon and a device's own library know nothing of
// it.
// Threads: as in tq_thread.h.
#pragma once

#include "frame/platform/tq_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

// Runs func once when fd is writable (a peer that went away and errors count).
// Reading and writing tasks may wait on the same descriptor side by side. name
// is kept by address. Returns the task's handle, or null.
struct tq_thread* tq_thread_add_write_withname(struct tq_thread_master* master, tq_thread_func func,
                                               void* arg, int fd, const char* name);

#ifdef __cplusplus
}
#endif
