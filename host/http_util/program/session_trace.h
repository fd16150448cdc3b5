// What libcurl tells of a transfer, for the library's debugging.
// Threads: the program's only one.
#pragma once

#include <curl/curl.h>

// CURLOPT_DEBUGFUNCTION: libcurl's story and the headers of both sides, without the
// values of those that carry secrets, as TRACE. The user pointer is the socket's.
int on_trace(CURL* easy, curl_infotype type, char* data, size_t size, void* socket);
