// The resume list: apps whose update could not be completed, each with the local
// paths of its files, so that a resume run can take them up again. It is also
// the record of which files on disk belong to unfinished updates: an app that is
// dropped takes along those of its files that nobody needs any more.
//
// Threads: any. Every operation takes resume_lock itself, except the two for walks:
// who walks the list holds it, and keeps no pointer to an entry when letting go.
// It is a leaf lock, never held while a file is deleted, a run goes on or, unless
// an entry can't be written to the resume file, a line is logged.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/sync.h"
#include "update/filename_list.h"

// State of a file. Only a file that was not fetched has nothing on disk.
enum ResumeState : int32_t {
    RESUME_DOWN_SUCCESS = 0,
    RESUME_DOWN_FAIL = -1,  // a partial file may be on disk
    RESUME_NO_DOWN = 1,
};

constexpr int32_t RESUME_RETRY_MAX = 5;
constexpr size_t RESUME_NAME_SIZE = 256;

struct ResumeLink {
    ResumeLink* next;
    ResumeLink* prev;
};

struct ResumeFile : ResumeLink {
    ResumeState state;
    char path[FILENAME_SIZE];
};

struct ResumeApp : ResumeLink {
    uint32_t count;  // of its files
    char name[RESUME_NAME_SIZE];
    ResumeLink files;  // head of its ResumeFile records, in the order of the app's file list
};

// An entry outside the list, with its files.
struct ResumeAppFree {
    void operator()(ResumeApp* app) const;
};
using OwnedResumeApp = std::unique_ptr<ResumeApp, ResumeAppFree>;

extern Mutex resume_lock;

// Head of the circular list of ResumeApp, newest first.
extern ResumeLink ResumeList GUARDED_BY(resume_lock);

// The list differs from the resume file.
extern bool resume_changed GUARDED_BY(resume_lock);

// Resume runs left before the entry at the front of the list is given up.
extern std::atomic<int32_t> resume_retry_count;

// For walks; null at the end.
[[nodiscard]] ResumeApp* resume_next_app(const ResumeLink* after) REQUIRES(resume_lock);
[[nodiscard]] ResumeFile* resume_next_file(const ResumeApp* app, const ResumeLink* after)
    REQUIRES(resume_lock);

[[nodiscard]] bool resume_empty();
[[nodiscard]] uint32_t resume_app_count();

// Name of the entry at that position from the front; false beyond the end.
[[nodiscard]] bool resume_app_name(uint32_t position, char (&name)[RESUME_NAME_SIZE]);

// Removes all entries; their files stay on disk.
void resume_clear();

// Records an app at the front, in place of an older entry of that name (whose
// files go as by resume_free_app with n + 1). The first n of the count paths
// were fetched, the one at n failed, the others were not tried. incremental: the
// first n were handed to the app already and are left out of the entry.
// n is an index of the array, which stays the caller's. 0, or -1 when nothing was
// recorded.
[[nodiscard]] int resume_add(const char* name, FilenameArray array, int32_t count, int32_t n,
                             bool incremental);

// Takes the app's entry off the list. Its paths, whose number goes to count, are
// the caller's, who releases them with filename_free; null when there is no
// entry or memory is short (the entry is then lost and its files are deleted).
[[nodiscard]] FilenameArray resume_get(const char* name, int32_t* count);

// Drops the app's entry, if there is one, and deletes its files that were at
// least partly fetched, except those among the first k entries of the array
// (which may be null).
void resume_free_app(const char* name, FilenameArray array, int32_t k);

// Drops the entry at the front with all its files, but those that are held.
void resume_free_first();

// Holds the files of a pass while a run fetches them and hands them over: an entry that
// is given up meanwhile leaves them alone. One at a time; the array is the caller's and
// outlives the hold.
class ResumeHold {
  public:
    ResumeHold(FilenameArray array, int32_t count);
    ~ResumeHold();
    ResumeHold(const ResumeHold&) = delete;
    ResumeHold& operator=(const ResumeHold&) = delete;
};

// Notes on the first k named files themselves that an app is handed them, for when the
// resume file can't be brought up to date: after a restart the list would bring back a
// finished update, and at the entry's end delete what is installed. Where the file
// system keeps no attributes nothing is noted.
void resume_note_delivered(FilenameArray array, int32_t k);

// Deletes the first k named files after a failed operator run. The list stays.
void resume_del_files(const char* name, FilenameArray array, int32_t k);
