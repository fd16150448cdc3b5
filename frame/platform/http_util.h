// HTTP download library (libhttp_util.so).
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct DownloadCtx;

// Called as data comes in, and about once a second with count 0 while a server
// stalls. count is the number of bytes that came since the last call. The
// library updates received and total before it calls. While the size is unknown
// total is never equal to received. Returns 0 to go on, -1 to stop.
// Threads: the thread of the download call.
typedef int (*http_download_progress_func)(struct DownloadCtx* context, int32_t count);

// Context of a download; the layout is the library's.
struct DownloadCtx {
    uint8_t reserved_0[8];
    uint64_t received;  // bytes of the current file so far
    uint64_t total;     // size of the current file
    uint8_t reserved_24[8];
    http_download_progress_func progress;  // set by the program
    uint8_t reserved_40[8];
    void* user;  // set by the program for its callback
};

// Source address of a download, without gaps.
struct __attribute__((packed)) http_util_tlv {
    uint8_t type;      // 1: source IPv4 address
    uint16_t length;   // 4, host byte order
    uint32_t address;  // network byte order
};

// Results that callers tell apart; any other value: this source failed.
#define HTTP_DOWNLOAD_OK 0
#define HTTP_DOWNLOAD_NO_MEMORY 1
#define HTTP_DOWNLOAD_NO_STORAGE 8
#define HTTP_DOWNLOAD_COMPLETE_ALREADY 11
#define HTTP_DOWNLOAD_CANCELLED 20

// Downloads url (http or https only) into path. flag 0 fetches all of it; flag 1
// may go on with a partial file, or keep a complete one (11), when the server
// proves that it is still the same file. 0 or 11: all bytes of the file are on
// disk, synced, the announced length matches, and path still names the file.
// After a failure path may hold a partial file; it never holds an error page.
// Threads: any; the call blocks, one call at a time on one context.
int http_download_file_progress(struct DownloadCtx* context, const char* url, const char* path,
                                unsigned int flag);

// The same, with connection and name look-up leaving from the source address.
int http_download_file_progress_tlv(struct DownloadCtx* context, const char* url, const char* path,
                                    unsigned int flag, const struct http_util_tlv* source);

// Optional: a library may lack it. Says that path, which a download with flag 1 has
// completed, is going to be somebody else's file: whatever the library has noted on it
// to spare it from being fetched again goes away. Nothing happens to any other file.
// Threads: any.
#ifdef __GNUC__
__attribute__((weak))
#endif
void http_download_file_release(const char* path);

// Why a download failed, as far as the library can tell.
#define HTTP_DOWNLOAD_REASON_UNKNOWN 0
#define HTTP_DOWNLOAD_REASON_ADDRESS 1   // the name has none; number: the DNS client's result
#define HTTP_DOWNLOAD_REASON_CONNECT 2   // number: errno, 0 where there is none (TLS)
#define HTTP_DOWNLOAD_REASON_STATUS 3    // number: the HTTP status
#define HTTP_DOWNLOAD_REASON_TOO_SLOW 4  // below the library's pace
#define HTTP_DOWNLOAD_REASON_BROKEN 5    // it ended before its end
#define HTTP_DOWNLOAD_REASON_ANSWER 6    // the header can't be used, or redirects without end
#define HTTP_DOWNLOAD_REASON_FILE 7      // number: errno of what was done to the file, or 0
#define HTTP_DOWNLOAD_REASON_LIBRARY 8   // of the library's own; number: its result

struct http_download_outcome {
    uint64_t resumed;    // bytes of the file that were there and were not asked for again
    uint64_t fetched;    // bytes of bodies that came
    int32_t reason;      // HTTP_DOWNLOAD_REASON_; counts after a failure only
    int32_t number;      // goes with it
    int32_t redirected;  // 1: it failed at a place that the URL's server had pointed to
};

// Optional: a library may lack it. What the last download on that context came to. 0; -1
// when there was none: *outcome is untouched then.
// Threads: the context's.
#ifdef __GNUC__
__attribute__((weak))
#endif
int http_download_last_outcome(const struct DownloadCtx* context,
                               struct http_download_outcome* outcome);

// Switches the library's own debugging (to the system log) on and off.
// Threads: any.
void http_open_debug(void);
void http_close_debug(void);

#ifdef __cplusplus
}

static_assert(sizeof(DownloadCtx) == 56);
static_assert(offsetof(DownloadCtx, received) == 8 && offsetof(DownloadCtx, total) == 16);
static_assert(offsetof(DownloadCtx, progress) == 32 && offsetof(DownloadCtx, user) == 48);
static_assert(sizeof(http_util_tlv) == 7);
#endif
