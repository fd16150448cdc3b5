// Engine of the download library: everything that needs libcurl. It is a shared
// object of its own, which libhttp_util.so loads when the first download begins,
// so that a daemon that downloads nothing does not carry libcurl and the thirty
// libraries behind it.
// Threads: any; one call at a time on one context.
#pragma once

#include <atomic>
#include <cstdint>

#include "frame/platform/http_util.h"

// Results beside those of frame/platform/http_util.h. All of them mean that this
// source failed; they tell a reader of the log why.
enum DownloadFailure {
    DOWNLOAD_BAD_URL = 2,        // not http or https, or malformed
    DOWNLOAD_NO_ADDRESS = 3,     // the name has no IPv4 address
    DOWNLOAD_NO_CONNECTION = 4,  // no connection, bad source address, or TLS refused
    DOWNLOAD_BAD_STATUS = 5,     // a status other than success, or too many redirects
    DOWNLOAD_BROKEN = 6,         // cut, stalled, or not as long as announced
    DOWNLOAD_NO_LENGTH = 7,      // nothing would tell a whole file from a cut one
    DOWNLOAD_BAD_FILE = 9,       // the file can't be made, written or synced
    DOWNLOAD_NO_ENGINE = 10,     // this library can't be loaded or started
    DOWNLOAD_BAD_CALL = 12,      // an argument is missing
};

// When a server is given up.
struct DownloadLimits {
    long connect_s = 20;
    long stall_s = 60;             // this long below...
    long stall_bytes_per_s = 100;  // ...this rate
};

struct DownloadJob {
    DownloadCtx* context = nullptr;
    const char* url = nullptr;
    const char* path = nullptr;
    bool resume = false;                       // a partial file may be continued
    uint32_t source = 0;                       // network byte order; 0: any
    const std::atomic<bool>* debug = nullptr;  // lines to the system log while true
    DownloadLimits limits;
};

extern "C" {
// Downloads; results as http_download_file_progress() gives them.
[[nodiscard]] int http_util_engine_download(const DownloadJob* job);
}
