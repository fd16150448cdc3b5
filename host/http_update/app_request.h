// The payload of an update request, taken apart for an app:
//   0  32  app name, zero-terminated
//  32   2  file count
//  34   2  rest length: payload length - 36
//  36      files: length byte (path length + 1; 0 stands for 256), path, zero byte
//          facts: name length, text length (2 bytes each, closing zeroes counted),
//          name, zero byte, text, zero byte
//          4 zero bytes
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
