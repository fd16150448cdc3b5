// Where the update client's files lie: in one working directory below each of two
// prefixes, which come from the environment and are cut to 31 bytes. Who wants to
// meet the daemon (a platform library, the terminal, an app) has to cut them alike.
// Threads: the process's own prefixes are read before other threads exist; the
// rest works on its arguments and the environment only.
#pragma once

#include <cstddef>

constexpr size_t DIR_PREFIX_SIZE = 32;
constexpr size_t PATH_SIZE = 128;  // of a joined path, terminator included

// Below both prefixes.
constexpr char WORKING_DIR[] = "/oam/http_client";

struct DirPrefix {
    const char* variable;
    char text[DIR_PREFIX_SIZE];  // the default until it has been read
};
constexpr DirPrefix TMP_DIR{"TMPDIR", "/tmp"};                 // until the next restart
constexpr DirPrefix DATA_DIR{"DATA_VEMO_DIR", "/data/.vemo"};  // for good

// What the daemon goes by: its own copies, read once at start.
extern DirPrefix process_tmp_dir;
extern DirPrefix process_data_dir;

// Takes the text from the environment. False: the variable is not set, and the
// text stays.
bool dir_prefix_read(DirPrefix* prefix);

// The prefix by the environment of this moment: for everybody but the daemon.
DirPrefix dir_prefix_now(DirPrefix prefix);

// The prefix and relative (which begins with "/"), cut to 127 bytes.
void dir_prefix_join(const DirPrefix& prefix, const char* relative, char (&path)[PATH_SIZE]);

// The path of a file of the working directory.
void working_path(const DirPrefix& prefix, const char* name, char (&path)[PATH_SIZE]);
