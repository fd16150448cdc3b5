// Where the daemon keeps its files: two directory prefixes from the environment,
// the working directories below them, and the making of directories.
// Threads: the prefixes are read once at start, before other threads exist;
// everything else may be called from any thread.
#pragma once

#include "base/working_dir.h"

// Reads TMPDIR and DATA_VEMO_DIR (31 characters each; "/tmp" and "/data/.vemo"
// where unset).
void http_client_get_env_dir();

// Join the temporary or the data prefix with relative (which begins with "/"),
// cut to 127 characters. Do nothing when an argument is null.
void http_client_tmp_path(const char* relative, char (*path)[PATH_SIZE]);
void http_client_data_path(const char* relative, char (*path)[PATH_SIZE]);

// 0 when the path may be created: below 128 characters and at most 10
// components; else -1.
[[nodiscard]] int http_client_path_check(const char* path);

// Creates the directory and its missing parents with mode 0777, so that they survive a
// power cut. 0 on success, also when it exists; -1, with errno, leaves the parents made so
// far.
[[nodiscard]] int http_client_make_path(const char* path);

// The same for relative below the data prefix.
[[nodiscard]] int http_client_make_data_dir(const char* relative);

// Size of the file in bytes; -1 when path is null or there is no such file. A
// size beyond the range of the result counts as its largest value.
[[nodiscard]] int http_client_file_size(const char* path);

// Sets the file-creation mask to 0 and creates both working directories. Ends
// the process with code 1 when the temporary one can't be created; without the
// data directory start-up goes on.
void http_client_vsd_make_dir();
