// The payload of an update request (frame/platform/http_update_packets.h), taken
// apart for an app.
// Threads: any; works on its arguments only.
#pragma once

#include <cstdint>
#include <span>

#include "host/http_update/http_update_app.h"

struct ParsedRequest {
    http_app_request request;  // first, so that its address is the record's too
    ParsedRequest* next;       // for the owner's use
};

// Copies the payload into a record of its own, to be released with
// http_app_request_free(&parsed->request). Returns null with errno EBADMSG when
// a length does not fit or a text has a zero byte inside, ENOMEM without memory.
[[nodiscard]] ParsedRequest* app_request_parse(std::span<const uint8_t> payload);
