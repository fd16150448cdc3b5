// Fetches one file from the first of its sources that works, with progress on
// the operator's terminal in a foreground run.
// Threads: the thread of the update run that holds the running state.
#pragma once

#include <libxml/tree.h>

#include <cstdint>

#include "frame/platform/http_util.h"
#include "http/attempt.h"
#include "http/status.h"
#include "update/run_kind.h"

// What the downloads of one server's pass share. A foreground pass, which can be
// cancelled, says on the terminal that it begins.
struct DownloadPass {
    DownloadPass(UpdateRunKind run_kind, Attempt* the_attempt);
    DownloadPass(const DownloadPass&) = delete;  // the context points here
    DownloadPass& operator=(const DownloadPass&) = delete;

    const UpdateRunKind kind;
    Attempt* const attempt;
    DownloadCtx context{};
    const char* path = nullptr;  // local path of the file being fetched
    // Of the file's sources so far, as the library tells:
    uint64_t fetched_bytes = 0;
    uint64_t resumed_bytes = 0;
    Cause cause{};  // why the last one failed
    // Of a foreground run's display:
    bool first_call = true;
    int32_t unflushed = 0;  // bytes since the terminal was flushed
    // Of the progress line's numbers:
    int64_t told_ms = 0;  // when it last got some, monotonic
    uint64_t told_total = 0;
};

// Tries the "downpath" children of a file element in order, ten at most, and
// downloads into path. UPDATE_OK, UPDATE_CANCELLED, UPDATE_NO_STORAGE,
// UPDATE_NO_MEMORY, or UPDATE_DOWNLOAD_FAIL when no source worked.
[[nodiscard]] UpdateStatus down_file_try_downpaths(DownloadPass* pass, xmlNodePtr file,
                                                   const char* path);

// Progress callbacks: a foreground run, whose pass is the context's user, shows
// dots and reads Ctrl+C; the others only record the sizes.
int down_progress_show(DownloadCtx* context, int32_t count);
int down_progress_record(DownloadCtx* context, int32_t count);
