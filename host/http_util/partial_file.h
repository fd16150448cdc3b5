// The file of a download, from what lies at its path before to the synced whole.
//
// Nothing at the path is touched before a server has answered with success: an error
// leaves an old file as it was. The bytes are written by the download program, into
// the descriptor of this object; what they are worth is decided here. A file that may
// be continued carries a mark (mark.h) from the beginning, and keeps it when it is
// complete: while its path waits for the rest of an update, the mark spares it from
// being fetched again.
// Threads: one download's; syncs run beside it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/side_call.h"
#include "base/unique_fd.h"
#include "host/http_util/mark.h"
#include "host/http_util/progress.h"

// Calls that return int: 0, HTTP_DOWNLOAD_NO_STORAGE, HTTP_DOWNLOAD_NO_MEMORY or
// DOWNLOAD_BAD_FILE.
class PartialFile {
  public:
    // path must outlive the object. keep: the file is marked, so that a later download
    // may continue it.
    PartialFile(const char* path, bool keep) : path_(path), keep_(keep) {}

    // Looks for a file that may be continued. It counts only when nobody else can have
    // had a hand in it: a regular file of this process's user, that others can't write,
    // without a second name. True: facts() tells what it is, size() bytes of it count.
    [[nodiscard]] bool Find();
    [[nodiscard]] const FileFacts& facts() const { return mark_.facts; }
    [[nodiscard]] uint64_t size() const { return size_; }
    [[nodiscard]] bool whole() const { return size_ == mark_.facts.total; }

    // Puts an empty file in place of whatever lies at the path, when there is room for
    // size_bytes (0: unknown). It is a new file, not the old one emptied: an app may be
    // running from the old one, and a link is replaced, not followed. facts null:
    // nothing would prove the file later.
    [[nodiscard]] int Create(uint64_t size_bytes, const FileFacts* facts);
    // Continues the file found, after its size() bytes.
    [[nodiscard]] int Continue();

    // After one of these two: the descriptor to write to,
    [[nodiscard]] int fd() const { return fd_.get(); }
    // and how large a file of unknown size may become: a reserve of the file system
    // stays free, a sixteenth of it but at most 16 MiB.
    [[nodiscard]] uint64_t Room() const;

    // The file has size bytes now. From time to time a marked file is synced, so that a
    // power cut costs no more than what came since.
    [[nodiscard]] int Advance(uint64_t size);
    // Makes it a complete file: synced with its directory entry, and still the one at
    // its path. HTTP_DOWNLOAD_CANCELLED, too; the disk goes on by itself then.
    [[nodiscard]] int Complete(Progress* progress);
    // Syncs what a failed download leaves, and notes how much that is.
    void Keep();

  private:
    // What the disk has to do; on a thread beside the download, since it may take long.
    struct Sync {
        UniqueFd file;
        UniqueFd directory;  // where valid: its entry, too
        Mark mark;           // what is true then
        bool marked = false;
        int error = 0;
        void operator()();
    };

    [[nodiscard]] bool OpenDirectory();
    [[nodiscard]] int OpenNew();
    [[nodiscard]] bool RoomFor(uint64_t size_bytes) const;
    [[nodiscard]] bool IsAtPath() const;
    [[nodiscard]] bool SyncBegin(bool at_end);
    [[nodiscard]] int SyncTake(int wait_ms);
    [[nodiscard]] int SyncWait(Progress* progress);
    [[nodiscard]] int SyncFailed(int error);

    const char* path_;
    const bool keep_;
    UniqueFd fd_;
    UniqueFd directory_;
    Mark mark_;
    bool marked_ = false;  // the file carries mark_
    bool open_ = false;    // Create or Continue succeeded
    uint64_t size_ = 0;    // bytes of the file that count
    SideCall<Sync> sync_;
    uint64_t sync_size_ = 0;  // when the last sync began
    int64_t sync_ms_ = 0;
};
