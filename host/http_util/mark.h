// The mark on a file that may be continued: an extended attribute of the file itself,
// so that it goes where the file goes and ends with it. It says which file of a server
// this is, and how much of it a power cut leaves.
// Threads: any.
#pragma once

#include <cstdint>

#include "host/http_util/protocol.h"

constexpr size_t BOOT_SIZE = 40;

// What a server said of a file.
struct FileFacts {
    uint64_t total = 0;                   // size of the whole
    char validator[VALIDATOR_SIZE] = "";  // strong entity tag, else a date, as for If-Range
    // Path and query of the URL; only beside a date. Two files of one server may share
    // size and date, and differ here; mirrors of one file don't.
    char resource[RESOURCE_SIZE] = "";

    [[nodiscard]] bool tagged() const { return validator[0] == '"'; }
};

struct Mark {
    FileFacts facts;
    // The start of the machine in which all bytes of the file count, those of the page
    // cache, too. "": none; only the synced ones count.
    char boot[BOOT_SIZE] = "";
    uint64_t synced = 0;  // bytes known to be on disk
};

// This start of the machine; "" where it can't be told.
const char* boot_id();

// False when there is no mark, or none that makes sense; *mark is then unchanged.
[[nodiscard]] bool mark_read(int fd, Mark* mark);
// False when the file system takes none; the file then can't be continued.
[[nodiscard]] bool mark_write(int fd, const Mark& mark);
// Of an open file, and of the one at a path (a link is not followed). Nothing happens
// where there is no mark.
void mark_remove(int fd);
void mark_remove(const char* path);
