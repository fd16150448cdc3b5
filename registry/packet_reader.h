// Gathers the packets of an app's connection from whatever has arrived of them.
// Nothing here waits: an app may send a packet byte by byte, or never send the rest.
//
// Threads: a reader belongs to the main loop.
#pragma once

#include <cstdint>
#include <span>

#include "frame/platform/http_update_packets.h"

struct PacketReader {
    int have = 0;  // of the packet's first bytes
    int skip = 0;  // bytes left of a packet that is too long
    // Not filled, so that a silent connection takes no page for it.
    uint8_t bytes[HTTP_UPDATE_PACKET_HEADER_SIZE + HTTP_UPDATE_APP_PAYLOAD_MAX];

    // A packet has begun that is not there whole.
    [[nodiscard]] bool begun() const { return have > 0 || skip > 0; }
};

struct AppPacket {
    uint16_t type;
    std::span<const uint8_t> payload;  // in the reader, until its next read
};

// Takes what has arrived, up to the end of the packet. 1: *packet is set; 0: there is
// none yet, or one of more than HTTP_UPDATE_APP_PAYLOAD_MAX bytes, which is skipped;
// -1, logged: the stream has ended or failed. Called when sock is readable, of which
// SO_OOBINLINE is set: a byte out of band counts as readable, but could not be read.
[[nodiscard]] int packet_read(int sock, PacketReader* reader, AppPacket* packet);
