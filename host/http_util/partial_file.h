// The file of a download, from what lies at its path before to the synced whole.
//
// A file that is not complete carries the extended attribute
// "user.http_client.partial": what the server said of it (validator, size), which
// resource it is part of, and how many of its bytes are known to be on disk. It
// goes away with the file, and from a complete file; a file without it is never
// continued. Nothing at the path is touched before a server has answered with
// success: an error leaves an old file as it was.
// Threads: one download's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "base/unique_fd.h"

constexpr size_t VALIDATOR_SIZE = 256;
constexpr size_t RESOURCE_SIZE = 1024;

// What makes a partial file continuable.
struct PartialFacts {
    uint64_t total = 0;                   // size of the whole file
    char validator[VALIDATOR_SIZE] = "";  // strong entity tag or date, as for If-Range
    char resource[RESOURCE_SIZE] = "";    // path and query of the URL
};

// Calls that return int: 0, HTTP_DOWNLOAD_NO_STORAGE, HTTP_DOWNLOAD_NO_MEMORY or
// DOWNLOAD_BAD_FILE.
class PartialFile {
  public:
    // path must outlive the object.
    explicit PartialFile(const char* path) : path_(path) {}

    // Looks for a partial file of the resource. True: facts() is what to show the
    // server, and size() bytes can be kept.
    [[nodiscard]] bool Find(const char* resource);
    [[nodiscard]] const PartialFacts& facts() const { return facts_; }
    [[nodiscard]] uint64_t size() const { return size_; }

    // Puts an empty file in place of whatever lies at the path, when there is room
    // for size bytes (0: unknown). It is a new file, not the old one emptied: an app
    // may be running from the old one, and a link is replaced, not followed.
    // facts null: the file can't be continued later.
    [[nodiscard]] int Create(uint64_t size_bytes, const PartialFacts* facts);
    // Continues the file found, after its first offset bytes.
    [[nodiscard]] int Continue(uint64_t offset);

    // Gathers bytes into writes of 256 KiB: libcurl hands over 16 KiB at a time, and
    // file systems take large pieces up to a third faster.
    [[nodiscard]] int Write(const char* bytes, size_t size);
    // Writes what was gathered, as far as it goes: also before a failed download is left.
    [[nodiscard]] int Flush();
    // Makes the flushed file a complete one, synced with its directory entry.
    [[nodiscard]] int Complete();
    // Syncs what was flushed of a failed download and notes how much that is.
    void Keep();

  private:
    struct Free {
        void operator()(char* block) const { free(block); }
    };

    [[nodiscard]] int Begin(uint64_t offset);
    void Mark(uint64_t synced_bytes) const;

    const char* path_;
    UniqueFd fd_;
    PartialFacts facts_{};
    bool marked_ = false;  // the file carries the attribute
    bool open_ = false;    // Create or Continue succeeded
    std::unique_ptr<char, Free> buffer_;
    size_t gathered_ = 0;  // bytes of the buffer
    uint64_t size_ = 0;    // bytes of the file that count
};
