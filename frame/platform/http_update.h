// Registration-packet library (libhttp_update.so), the daemon's side: packets on
// the local stream socket between the daemon and its apps.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "frame/platform/http_update_packets.h"

#ifdef __cplusplus
extern "C" {
#endif

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
// outside 0 to HTTP_UPDATE_PAYLOAD_MAX is refused with EMSGSIZE before a byte is sent.
// Threads: any.
int http_update_reg_send_normal(int fd, uint16_t type, const void* payload, int length);

// Optional: a library may lack it. The same without waiting for the peer: what can't be
// sent at once fails with EAGAIN, be it that the socket is full or that another sender
// waits for it to become empty.
// Threads: any.
#ifdef __GNUC__
__attribute__((weak))
#endif
int http_update_reg_send_now(int fd, uint16_t type, const void* payload, int length);

// Writes the current local time as "YYYY-MM-DD HH:MM:SS", zero-terminated, cut
// to size bytes.
// Threads: any.
void http_update_client_get_tmtime(char* buffer, size_t size);

#ifdef __cplusplus
}
#endif
