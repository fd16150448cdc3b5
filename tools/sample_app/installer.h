// What the sample app does with a delivered file: looks at it, whole.
// Threads: any; works on its arguments only.
#pragma once

#include <cstdint>
#include <string>

struct InstalledFile {
    uint64_t size_bytes = 0;
    std::string sha256;  // lower-case hexadecimal
};

// Reads the file to its end. 0, or the errno of what failed; *out is then
// unchanged.
[[nodiscard]] int file_install(const char* path, InstalledFile* out);
