// One download from its first request to the synced file. The talking is done by the
// download program (agent.h); everything that is decided is decided here.
// Threads: any; one call at a time on one context.
#pragma once

#include <atomic>
#include <cstdint>

#include "frame/platform/http_util.h"
#include "host/http_util/failure.h"

struct DownloadJob {
    DownloadCtx* context = nullptr;
    const char* url = nullptr;
    const char* path = nullptr;
    bool resume = false;                       // a file of before counts, and so will this one
    uint32_t source = 0;                       // network byte order; 0: any
    const std::atomic<bool>* debug = nullptr;  // lines to the system log while true
    uint32_t connect_ms = 20000;               // at most, for a connection
};

// Results as http_download_file_progress() gives them.
[[nodiscard]] int download_run(const DownloadJob& job);
