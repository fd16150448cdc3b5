// Syslog library (libsyslog_new.so).
// Threads: any.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Delivers one formatted line to the system log. priority is syslog's (7 is
// debug), module and level go into the line; the meaning of output is the
// library's (the daemon passes 2). The result carries nothing of use.
int printk_syslog_ext(int priority, const char* module, const char* level, int output,
                      const char* format, ...) __attribute__((format(printf, 5, 6)));

#ifdef __cplusplus
}
#endif
