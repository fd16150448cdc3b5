// File-name arrays: count pointers to zero-filled buffers of FILENAME_SIZE bytes,
// each holding a file's name or, later, its full local path.
// The array does not know its count. Whoever obtains one owns it and releases it
// with filename_free; OwnedFilenames does.
// Threads: any; works on its arguments only.
#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <cstdint>

constexpr int32_t FILECNT_MAX = 100;
constexpr size_t FILENAME_SIZE = 256;

using FilenameArray = char**;

// A new array, or null when count is not positive or memory is short.
[[nodiscard]] FilenameArray filename_malloc(int32_t count);
void filename_free(FilenameArray array, int32_t count);

// An array with its count.
struct OwnedFilenames {
    OwnedFilenames() = default;
    ~OwnedFilenames() { filename_free(array, count); }
    OwnedFilenames(const OwnedFilenames&) = delete;
    OwnedFilenames& operator=(const OwnedFilenames&) = delete;

    FilenameArray array = nullptr;
    int32_t count = 0;
};

// Deletes the named files from disk; a missing file is no error.
void filename_unlink(FilenameArray array, int32_t count);

// 0 when one of the first count entries equals path, else -1.
[[nodiscard]] int filename_find(FilenameArray array, const char* path, int32_t count);

// Takes the names of an app element's "file" children, as many as its "filecnt"
// says: 0 with count and array (null for a count of 0), or -1 with count 0 and
// no array.
[[nodiscard]] int filename_count(xmlNodePtr app, int32_t* count, FilenameArray* array);
