// What a download came to, kept in the bytes of its context that are the library's own:
// the caller asks for it when the download has ended.
// Threads: the context's.
#pragma once

#include "frame/platform/http_util.h"

void outcome_store(const http_download_outcome& outcome, DownloadCtx* context);

// False when nothing was stored; *outcome is untouched then.
[[nodiscard]] bool outcome_load(const DownloadCtx& context, http_download_outcome* outcome);
