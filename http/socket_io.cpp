// Two limits bound each phase of an exchange: how often nothing came in time, and how slow
// the peer may be on the whole. Where somebody may cancel, waits are cut into slices; the
// limits count whole waits all the same.
#include "http/socket_io.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/clock.h"
#include "base/pace.h"
#include "frame/log.h"
#include "frame/loop.h"

static constexpr double WAIT_DEFAULT_S = 5.0;
static constexpr double WAIT_SLICE_S = 0.5;
static constexpr size_t CHUNK_SIZE = 2048;

namespace {

// Descriptor set for select. The C library's macros abort for descriptors above
// 1,023, which a device with many apps reaches; the kernel itself takes any size.
struct WaitSet {
    explicit WaitSet(int fd) { words[fd / 64] |= uint64_t{1} << (fd % 64); }
    fd_set* get() { return reinterpret_cast<fd_set*>(words); }

    uint64_t words[SOCK_FD_MAX / 64]{};
};
static_assert(sizeof(fd_mask) == sizeof(uint64_t));

// The patience of one phase.
class Phase {
  public:
    explicit Phase(const SockLimits& limits)
        : pace_(monotonic_ms(), limits.pace_window_ms),
          allowed_(limits.timeouts),
          left_(limits.timeouts) {}

    // Called when nothing could be moved, with errno as it was left. True when
    // that was a time-out and another one is allowed.
    bool MayRetry() { return errno == ETIMEDOUT && --left_ > 0; }

    // Called when total bytes have been moved so far. False with errno ETIMEDOUT
    // when the peer is too slow.
    [[nodiscard]] bool KeepsPace(size_t total) {
        if (pace_.Keeps(monotonic_ms(), total)) return true;
        errno = ETIMEDOUT;
        too_slow_ = true;
        return false;
    }

    [[nodiscard]] int Retries() const { return allowed_ - left_; }
    // What the phase says of itself that has failed with that error.
    [[nodiscard]] int Reason(int error) const { return too_slow_ ? ETIME : error; }

  private:
    Pace pace_;
    int allowed_;
    int left_;
    bool too_slow_ = false;
};

}  // namespace

int sock_wait(int fd, int events, double timeout_s) {
    if (fd < 0 || fd >= SOCK_FD_MAX) {
        errno = EBADF;
        return -1;
    }
    const double wait_s = timeout_s == SOCK_WAIT_DEFAULT ? WAIT_DEFAULT_S : timeout_s;
    timeval left{};
    left.tv_sec = static_cast<time_t>(wait_s);
    left.tv_usec = static_cast<suseconds_t>((wait_s - static_cast<double>(left.tv_sec)) * 1e6);
    WaitSet readable(fd);
    WaitSet writable(fd);
    int ready = 0;
    do {
        // An interrupted select leaves the sets alone and in left what remains.
        ready = select(fd + 1, (events & SOCK_READABLE) != 0 ? readable.get() : nullptr,
                       (events & SOCK_WRITABLE) != 0 ? writable.get() : nullptr, nullptr, &left);
    } while (ready < 0 && errno == EINTR);
    loop_turned();
    if (ready == 0) errno = ETIMEDOUT;
    return ready;
}

static long read_ready(int fd, void* buffer, size_t count) {
    ssize_t got = 0;
    do {
        got = read(fd, buffer, count);
    } while (got < 0 && errno == EINTR);
    return got;
}

long sock_read(int fd, void* buffer, size_t count, double timeout_s) {
    while (sock_wait(fd, SOCK_READABLE, timeout_s) > 0) {
        const long got = read_ready(fd, buffer, count);
        // The kernel may find, after all, nothing to read: wait again.
        if (got >= 0 || errno != EAGAIN) return got;
    }
    return -1;
}

// As sock_wait, in slices where somebody may cancel.
static int phase_wait(int fd, int events, const SockLimits& limits) {
    if (limits.cancel == nullptr) return sock_wait(fd, events, limits.wait_s);
    double left_s = limits.wait_s == SOCK_WAIT_DEFAULT ? WAIT_DEFAULT_S : limits.wait_s;
    do {
        if (limits.cancel->Requested()) {
            errno = ECANCELED;
            return -1;
        }
        const double slice_s = std::min(left_s, WAIT_SLICE_S);
        const int ready = sock_wait(fd, events, slice_s);
        if (ready != 0) return ready;
        left_s -= slice_s;
    } while (left_s > 0);
    return 0;
}

int sock_send(int fd, const void* data, size_t count, const SockLimits& limits) {
    const auto* bytes = static_cast<const char*>(data);
    Phase phase(limits);
    size_t total = 0;
    while (total < count) {
        const ssize_t sent = send(fd, bytes + total, count - total, MSG_NOSIGNAL);
        if (sent >= 0) {
            total += static_cast<size_t>(sent);
            if (total == count || phase.KeepsPace(total)) continue;
        } else {
            if (errno == EINTR) continue;
            if (errno == EAGAIN &&
                (phase_wait(fd, SOCK_WRITABLE, limits) > 0 || phase.MayRetry())) {
                continue;
            }
        }
        const int error = errno;
        http_client_debug_print(HTTPC_LOG_ERROR, "sock %d<-->send fail [%d, %s]", fd, error,
                                strerror(error));
        errno = phase.Reason(error);
        return -1;
    }
    return 0;
}

// One read of a phase that has total bytes already, time-outs retried. The number
// of bytes, or -1 when the phase has failed, with errno saying why; 0 in errno
// means that the peer has closed.
static long phase_read(Phase* phase, int fd, void* buffer, size_t count, size_t total,
                       const SockLimits& limits) {
    for (;;) {
        const bool ready = phase_wait(fd, SOCK_READABLE, limits) > 0;
        const long got = ready ? read_ready(fd, buffer, count) : -1;
        if (ready && got < 0 && errno == EAGAIN) continue;  // nothing to read, after all
        if (got > 0) return phase->KeepsPace(total + static_cast<size_t>(got)) ? got : -1;
        if (got == 0) {
            errno = 0;
            return -1;
        }
        if (!phase->MayRetry()) return -1;
    }
}

int sock_recv_endstr(int fd, char* buffer, int size, const char* end, const SockLimits& limits) {
    if (buffer == nullptr || end == nullptr || size < 1) return -1;
    const size_t room = static_cast<size_t>(size) - 1;
    Phase phase(limits);
    size_t total = 0;
    while (total < room) {
        const long got = phase_read(&phase, fd, buffer + total, room - total, total, limits);
        if (got < 0) {
            const int error = errno;
            http_client_debug_print(HTTPC_LOG_ERROR,
                                    "sock %d<-->select fail retry %d [%s %d] in endstr", fd,
                                    phase.Retries(), strerror(error), error);
            errno = phase.Reason(error);
            return -1;
        }
        total += static_cast<size_t>(got);
        if (memmem(buffer, total, end, strlen(end)) != nullptr) return static_cast<int>(total);
    }
    http_client_debug_print(HTTPC_LOG_ERROR, "sock %d<-->head too long %d", fd,
                            static_cast<int>(total));
    errno = EMSGSIZE;
    return -1;
}

int sock_recv_commbuf(int fd, CommBuf* buffer, uint32_t count, const SockLimits& limits) {
    uint8_t chunk[CHUNK_SIZE];
    Phase phase(limits);
    uint32_t total = 0;
    while (total < count) {
        const size_t wanted = std::min<size_t>(count - total, sizeof(chunk));
        const long got = phase_read(&phase, fd, chunk, wanted, total, limits);
        if (got < 0) {
            const int error = errno;
            http_client_debug_print(HTTPC_LOG_ERROR,
                                    "sock %d<-->select fail retry %d [%s %d] in commbuf receive",
                                    fd, phase.Retries(), strerror(error), error);
            errno = phase.Reason(error);
            return -1;
        }
        const int32_t appended = comm_buf_append(buffer, chunk, static_cast<int32_t>(got));
        if (appended != got) {
            http_client_debug_print(HTTPC_LOG_ERROR, "sock %d<-->data copy %d fail for %d", fd,
                                    static_cast<int>(got), appended);
            errno = ENOMEM;
            return -1;
        }
        total += static_cast<uint32_t>(got);
    }
    http_client_debug_print(HTTPC_LOG_CONNECT, "sock %d<-->recv data success, total %u bytes", fd,
                            total);
    return 0;
}
