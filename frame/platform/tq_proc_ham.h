// Process-health library (libtq_proc_ham.so).
// Threads: any. The meaning of the numbers is the library's; the daemon passes
// them on and relies on the sign of the result alone (exactly 0 counts as
// success where the public timer retries the registration).
#pragma once

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// Registers what is done when the process ends. Negative: failure.
int reg_process_exit_action(int kind, int action);

// Registers the calling thread for watchdog supervision, and resets its
// watchdog. Negative: failure.
int ham_client_reg_thread_notify(pid_t process, pid_t thread, int timeout_s, int action);
int ham_client_reset_thread_notify(pid_t process, pid_t thread, int timeout_s, int action);

#ifdef __cplusplus
}
#endif
