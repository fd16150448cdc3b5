// System-information library (libtqsys.so).
// Threads: any.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Each returns a newly allocated zero-terminated text that the caller releases
// with free(), or null on failure.
char* tqsys_get_os_name(void);
char* tqsys_get_project(void);
char* tqsys_get_release_type(void);
char* tqsys_get_release(void);
char* tqsys_get_hw_version(void);

// Optional: where a library lacks it the path itself is opened. Opens a file that the
// device platform provides (such as /proc/macaddr) for reading. Returns a descriptor
// that the caller closes, or -1 with errno.
// On the host, HTTP_CLIENT_DEVICE_ROOT names a directory put in front of path.
#ifdef __GNUC__
__attribute__((weak))
#endif
int tqsys_open_device_file(const char* path);

#ifdef __cplusplus
}
#endif
