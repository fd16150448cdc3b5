// Handling of the messages that apps send; frame/platform/http_update_packets.h has
// their types and layouts.
//
// Threads: reg_msg_dispatch on the main loop only.
#pragma once

#include <cstdint>
#include <span>

#include "frame/platform/http_update_packets.h"

// Handles one message received on the connection sock. Negative: the connection
// is to be ended. Messages that make no sense are logged and ignored.
[[nodiscard]] int reg_msg_dispatch(int sock, uint16_t type, std::span<const uint8_t> payload);
