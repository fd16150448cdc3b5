// The download library's own debugging: lines to the system log while it is on.
// Threads: any.
#pragma once

#include <curl/curl.h>

#include <atomic>

// One line, cut to its buffer. Nothing when debug is null or false.
[[gnu::format(printf, 2, 3)]] void trace(const std::atomic<bool>* debug, const char* format, ...);

// URL without the user name and password that may stand in it. text is the buffer.
const char* trace_url(const char* url, char (&text)[512]);

// CURLOPT_DEBUGFUNCTION: libcurl's story and the headers of both sides, without
// the values of those that carry secrets. The user pointer is the debug switch.
int trace_curl(CURL* easy, curl_infotype type, char* data, size_t size, void* debug);
