// Small files: opened only when they are what they should be, read and written
// whole, and replaced so that a crash leaves the old one or the new one.
// Results: 0 or an errno value, as everywhere in base/.
// Threads: any; replacing the same path takes one thread at a time.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <span>
#include <string_view>

#include "base/unique_fd.h"

// What may be demanded of a file beyond being a regular one, where others can write
// to its directory.
constexpr unsigned FILE_NO_LINK = 1;         // not a symbolic link (ELOOP)
constexpr unsigned FILE_OURS = 2;            // the effective user's or root's (EPERM)
constexpr unsigned FILE_OURS_TO_CHANGE = 4;  // neither group nor others may write (EPERM)
constexpr unsigned FILE_ONE_NAME = 8;        // no hard link to it from elsewhere (EMLINK)

// Opens a file that is there. access is O_RDONLY, O_WRONLY or O_RDWR; the call never
// waits, whatever lies there. EINVAL: not a regular file.
[[nodiscard]] int file_open(const char* path, int access, unsigned demands, UniqueFd* file);

// Reads until the buffer is full or the file ends; *size says how much that was.
[[nodiscard]] int file_read_some(int fd, std::span<char> buffer, size_t* size);

struct FileBytes {
    struct Free {
        void operator()(char* memory) const { free(memory); }
    };
    std::unique_ptr<char, Free> bytes;
    size_t size = 0;
    time_t modified_s = 0;

    [[nodiscard]] std::string_view View() const { return {bytes.get(), size}; }
};

// Opens and reads a whole file of at most limit bytes; a zero byte stands behind them. EFBIG: it is
// larger. A file that shrinks meanwhile gives what there was.
[[nodiscard]] int file_read(const char* path, unsigned demands, size_t limit, FileBytes* bytes);

// Writes all of it, waiting where a non-blocking descriptor takes no more.
[[nodiscard]] int file_write_all(int fd, std::string_view bytes);

// Makes the bytes the content of path, by way of path + ".new". After a failure the
// old file is there still; only when the directory could not be synced (EIO) the new
// one is, and may not survive a power cut.
[[nodiscard]] int file_replace(const char* path, std::string_view bytes, mode_t mode);

// Makes the last change to path's directory survive a power cut, where the file
// system can do that.
[[nodiscard]] int file_sync_directory(const char* path);
