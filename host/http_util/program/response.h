// The header of a response, as a record.
// Threads: the program's only one.
#pragma once

#include <curl/curl.h>

#include "host/http_util/protocol.h"

// Of the last response that easy has got.
[[nodiscard]] HeadMessage response_head(CURL* easy);
