// Reading from and writing to a server's non-blocking socket, every wait bounded.
//
// A phase (sending the request, receiving the header, receiving the body) ends
// as failed when its waits have timed out SockLimits::timeouts times in all, or
// when the peer falls behind the pace that downloads keep, too (base/pace.h). The
// count alone would let a peer that sends a byte every four seconds hold its thread
// for months.
//
// Threads: any; works on its arguments only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/pace.h"
#include "buffer/comm_buf.h"
#include "http/cancel.h"

constexpr int SOCK_READABLE = 1;
constexpr int SOCK_WRITABLE = 2;
constexpr double SOCK_WAIT_DEFAULT = -1.0;  // stands for 5 seconds
constexpr int SOCK_SILENCE_S = 50;          // of a peer, that ends a phase by default

// Descriptors must be below this: sock_wait brings its own set for select, larger
// than the C library's.
constexpr int SOCK_FD_MAX = 65536;

struct SockLimits {
    double wait_s = SOCK_WAIT_DEFAULT;
    int timeouts = 10;
    // The slowest honest links (a 9600 bit/s radio or satellite modem, 960 bytes/s) keep
    // twice the pace, and all the time-outs allowed (50 s) fit into less than half of
    // its window. So a peer that sends one byte a second is given up after two minutes.
    int64_t pace_window_ms = Pace::WINDOW_MS;
    Cancel* cancel = nullptr;  // ends a phase within a second, with errno ECANCELED
};

// Waits until the socket is ready for events, a mask of SOCK_READABLE and
// SOCK_WRITABLE. Above 0: ready; 0: timed out, errno is ETIMEDOUT; below 0:
// error.
[[nodiscard]] int sock_wait(int fd, int events, double timeout_s);

// Reads what is there, at most count bytes, after waiting for it. 0: the peer has
// closed; -1: error, or time-out with errno ETIMEDOUT.
[[nodiscard]] long sock_read(int fd, void* buffer, size_t count, double timeout_s);

// A phase that fails leaves the reason in errno: ETIMEDOUT for its time-outs, ETIME for
// its pace, ECANCELED, 0 when the peer has closed, EMSGSIZE when the end has not come in
// the buffer, ENOMEM, or what the system said.

// 0: every byte was sent; else -1.
[[nodiscard]] int sock_send(int fd, const void* data, size_t count, const SockLimits& limits = {});

// Reads into a zero-filled text buffer until end has appeared in it; what the
// peer sent right behind it may be there too. Returns the bytes in the buffer (at
// most size - 1), or -1.
[[nodiscard]] int sock_recv_endstr(int fd, char* buffer, int size, const char* end,
                                   const SockLimits& limits = {});

// Appends exactly count bytes to the buffer. 0, or -1 with some of them appended.
[[nodiscard]] int sock_recv_commbuf(int fd, CommBuf* buffer, uint32_t count,
                                    const SockLimits& limits = {});
