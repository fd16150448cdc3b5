// Entry points of the download library: a thin skin of C over the course of a download,
// and the one switch that all of them share.

#include "frame/platform/http_util.h"

#include "host/http_util/download.h"
#include "host/http_util/mark.h"
#include "host/http_util/outcome.h"

static std::atomic<bool> s_debug{false};

int http_download_file_progress(DownloadCtx* context, const char* url, const char* path,
                                unsigned int flag) {
    return http_download_file_progress_tlv(context, url, path, flag, nullptr);
}

int http_download_file_progress_tlv(DownloadCtx* context, const char* url, const char* path,
                                    unsigned int flag, const http_util_tlv* source) {
    if (context == nullptr || url == nullptr || path == nullptr) return DOWNLOAD_BAD_CALL;
    if (source != nullptr && (source->type != 1 || source->length != 4)) return DOWNLOAD_BAD_CALL;
    DownloadJob job;
    job.context = context;
    job.url = url;
    job.path = path;
    job.resume = flag == 1;
    job.source = source == nullptr ? 0 : source->address;
    job.debug = &s_debug;
    return download_run(job);
}

int http_download_last_outcome(const DownloadCtx* context, http_download_outcome* outcome) {
    return context != nullptr && outcome != nullptr && outcome_load(*context, outcome) ? 0 : -1;
}

void http_download_file_release(const char* path) {
    if (path != nullptr) mark_remove(path);
}

void http_open_debug() { s_debug.store(true, std::memory_order_relaxed); }

void http_close_debug() { s_debug.store(false, std::memory_order_relaxed); }
