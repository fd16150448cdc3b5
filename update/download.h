// Fetches one file from the first of its sources that works, with progress on
// the operator's terminal in a foreground run.
// Threads: the thread of the update run that holds the running state.
#pragma once

#include <libxml/tree.h>

#include "frame/platform/http_util.h"
#include "http/status.h"

// The download context of one server's pass; the library's record is zero while
// there is none. A foreground pass says on the terminal that it begins.
class DownloadPass {
  public:
    explicit DownloadPass(bool foreground);
    ~DownloadPass();
    DownloadPass(const DownloadPass&) = delete;
    DownloadPass& operator=(const DownloadPass&) = delete;
};

// Tries the "downpath" children of a file element in order, ten at most, and
// downloads into path. UPDATE_OK, UPDATE_CANCELLED, UPDATE_NO_STORAGE,
// UPDATE_NO_MEMORY, or UPDATE_DOWNLOAD_FAIL when no source worked.
[[nodiscard]] UpdateStatus down_file_try_downpaths(xmlNodePtr file, const char* path);

// Progress callbacks: a foreground run shows dots and reads Ctrl+C, the others
// only record the sizes.
int down_progress_show(DownloadCtx* context, int32_t count);
int down_progress_record(DownloadCtx* context, int32_t count);
