// A small writer of .tar.gz files (POSIX ustar).
// Threads: one.
#pragma once

#include <zlib.h>

#include <string>
#include <string_view>

// Writes beside the final path; nothing is there until tar_gz_finish.
struct TarGz {
    std::string path;
    std::string temporary;
    gzFile file = nullptr;
    int fd = -1;  // kept for the sync; the file has its own
};

// Mode 0600. False: errno says why.
[[nodiscard]] bool tar_gz_create(TarGz* tar, const std::string& path);

// name: 1 to 99 bytes, no slash in front; a longer one is cut. content: below 8 GiB.
// tar_gz_finish reports a failed write.
void tar_gz_add(TarGz* tar, std::string_view name, std::string_view content, long mtime_s);

// Completes the file, syncs it and puts it in place, once for each tar_gz_create.
// False: errno says why; what lay at the path is still there, nothing is left beside it.
[[nodiscard]] bool tar_gz_finish(TarGz* tar);
