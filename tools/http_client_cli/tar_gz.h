// A small writer of .tar.gz files (POSIX ustar).
// Threads: one.
#pragma once

#include <zlib.h>

#include <string>
#include <string_view>

// Writes beside the final path; nothing is there until TarGzFinish.
struct TarGz {
    std::string path;
    std::string temporary;
    gzFile file = nullptr;
    int fd = -1;  // kept for the sync; the file has its own
};

// Mode 0600. False: errno says why.
[[nodiscard]] bool tar_gz_create(TarGz* tar, const std::string& path);

// name: at most 100 bytes, no slash in front. Cut names and failed writes are
// reported by tar_gz_finish.
void tar_gz_add(TarGz* tar, std::string_view name, std::string_view content, long mtime_s);

// Completes the file, syncs it and puts it in place. False: nothing is in place,
// nothing is left behind.
[[nodiscard]] bool tar_gz_finish(TarGz* tar);
