// Name look-up of a download: by the device's DNS client, from the download's
// source address, while the caller keeps being asked whether to go on.
// Threads: the thread of the download.
#pragma once

#include <cstdint>

#include "host/http_util/progress.h"

// host is a name or a dotted IPv4 address; source and *address are in network byte
// order. 0, HTTP_DOWNLOAD_CANCELLED, HTTP_DOWNLOAD_NO_MEMORY or
// DOWNLOAD_NO_ADDRESS; *address is written on success only. *said is the DNS client's
// result, or negative.
[[nodiscard]] int host_resolve(const char* host, uint32_t source, Progress* progress,
                               uint32_t* address, int* said);
