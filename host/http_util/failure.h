// How a download fails.
// Threads: any.
#pragma once

#include <cerrno>

#include "frame/platform/http_util.h"

// Results beside those of frame/platform/http_util.h. All of them mean that this
// source failed; they tell a reader of the log why.
enum DownloadFailure {
    DOWNLOAD_BAD_URL = 2,        // not http or https, or malformed
    DOWNLOAD_NO_ADDRESS = 3,     // the name has no IPv4 address
    DOWNLOAD_NO_CONNECTION = 4,  // no connection, bad source address, or TLS refused
    DOWNLOAD_BAD_STATUS = 5,     // a status other than success, or too many redirects
    DOWNLOAD_BROKEN = 6,         // cut, too slow, or not as long as announced
    DOWNLOAD_NO_LENGTH = 7,      // nothing would tell a whole file from a cut one
    DOWNLOAD_BAD_FILE = 9,       // the file can't be made, written or synced, or was replaced
    DOWNLOAD_NO_PROGRAM = 10,    // the download program can't be started
    DOWNLOAD_BAD_CALL = 12,      // an argument is missing
    DOWNLOAD_BAD_ANSWER = 13,    // a header that contradicts itself, or an encoded body
};

// Result of a call on the file that has failed with that errno.
[[nodiscard]] inline int file_error(int error) {
    const bool full = error == ENOSPC || error == EDQUOT || error == EFBIG;
    return full ? HTTP_DOWNLOAD_NO_STORAGE : DOWNLOAD_BAD_FILE;
}
