// Registration-packet library (libhttp_update.so), the daemon's side: packets on
// the local stream socket between the daemon and its apps.
//
// A packet is a 12-byte header and a payload, in device byte order:
//   0  2  header version (1; receivers accept anything)
//   2  2  message type
//   4  2  payload length
//   6  6  zero (receivers accept anything)
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct http_update_packet_header {
    uint16_t version;
    uint16_t type;
    uint16_t length;
    uint16_t reserved[3];
};

#define HTTP_UPDATE_PACKET_HEADER_SIZE 12
#define HTTP_UPDATE_PACKET_VERSION 1

// Reads exactly count bytes of the stream. Returns count, or less (0 included)
// at an end of stream, -1 on an error. A peer that stalls or dribbles holds the
// caller for half a second a call, so for at most one second a packet; then the
// call fails with ETIMEDOUT.
// Threads: one reader a socket.
int http_update_reg_receive_assign(int fd, void* destination, int count);

// Reads and discards count bytes, within the same time. Negative: failure.
int http_update_reg_receive_skip(int fd, int count);

// Sends one whole packet. Senders on the same socket never interleave. A peer
// that does not read makes the call fail after 5 seconds, the time spent
// waiting for another sender included. Negative: failure (the stream may then
// end in the middle of a packet, so the connection must be ended); a length
// outside 0 to 65535 is refused with EMSGSIZE before a byte is sent.
// Threads: any.
int http_update_reg_send_normal(int fd, uint16_t type, const void* payload, int length);

// Writes the current local time as "YYYY-MM-DD HH:MM:SS", zero-terminated, cut
// to size bytes.
// Threads: any.
void http_update_client_get_tmtime(char* buffer, size_t size);

#ifdef __cplusplus
}
#endif
