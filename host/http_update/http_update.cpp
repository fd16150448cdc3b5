// The daemon's side of the registration packets. The descriptors are blocking
// sockets shared by a reading and several sending threads, so every call passes
// MSG_DONTWAIT and waits in poll() only when the socket is not ready: a packet
// that is there costs one system call a read, and one a send.

#include "frame/platform/http_update.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>
#include <span>

#include "base/clock.h"
#include "base/sync.h"

namespace {

constexpr int RECEIVE_LIMIT_MS = 500;
constexpr int SEND_LIMIT_MS = 5000;

// Waits until fd is ready for events; the clock is first read here, so that the
// usual call, which never waits, does not pay for it.
bool socket_wait(int fd, short events, int limit_ms, std::optional<Deadline>& deadline) {
    if (!deadline) deadline.emplace(limit_ms);
    for (;;) {
        pollfd entry{fd, events, 0};
        const int left_ms = deadline->LeftMs();
        const int ready = poll(&entry, 1, left_ms);
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return false;
        if (ready == 0 && left_ms == 0) {
            errno = ETIMEDOUT;
            return false;
        }
    }
}

// One recv() of what is there, after waiting for it where necessary.
ssize_t receive_some(int fd, void* destination, size_t size, std::optional<Deadline>& deadline) {
    for (;;) {
        const ssize_t got = recv(fd, destination, size, MSG_DONTWAIT);
        if (got >= 0) return got;
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return -1;
        if (!socket_wait(fd, POLLIN, RECEIVE_LIMIT_MS, deadline)) return -1;
    }
}

// Exclusive use of a descriptor by one sender. The senders at work form a list
// of records on their own stacks, so nothing is kept for a connection that has
// ended, and a stuck app delays only those who send to the same app.
class DescriptorLock {
  public:
    // False: the deadline has passed before the other senders were done.
    [[nodiscard]] bool Acquire(int fd, std::optional<Deadline>& deadline);
    // False: another sender waits for the peer. One that is at work is waited for.
    [[nodiscard]] bool AcquireNow(int fd);
    // Says that the sender, who has it, begins to wait for the peer.
    void PeerIsSlow();
    void Release();

  private:
    static const DescriptorLock* Holder(int fd) REQUIRES(s_lock);
    void Take(int fd) REQUIRES(s_lock);

    static Mutex s_lock;  // leaf
    static pthread_cond_t s_changed;
    static DescriptorLock* s_first GUARDED_BY(s_lock);

    int fd_ GUARDED_BY(s_lock) = -1;
    bool peer_is_slow_ GUARDED_BY(s_lock) = false;
    DescriptorLock* next_ GUARDED_BY(s_lock) = nullptr;
};

Mutex DescriptorLock::s_lock;
pthread_cond_t DescriptorLock::s_changed = PTHREAD_COND_INITIALIZER;
DescriptorLock* DescriptorLock::s_first = nullptr;

const DescriptorLock* DescriptorLock::Holder(int fd) {
    const DescriptorLock* held = s_first;
    while (held != nullptr && held->fd_ != fd) held = held->next_;
    return held;
}

void DescriptorLock::Take(int fd) {
    fd_ = fd;
    next_ = s_first;
    s_first = this;
}

bool DescriptorLock::Acquire(int fd, std::optional<Deadline>& deadline) {
    const MutexLock guard(s_lock);
    while (Holder(fd) != nullptr) {
        if (!deadline) deadline.emplace(SEND_LIMIT_MS);
        const timespec until = deadline->At();
        const int error =
            pthread_cond_clockwait(&s_changed, s_lock.Native(), CLOCK_MONOTONIC, &until);
        if (error == ETIMEDOUT && Holder(fd) != nullptr) return false;
    }
    Take(fd);
    return true;
}

bool DescriptorLock::AcquireNow(int fd) {
    const MutexLock guard(s_lock);
    while (const DescriptorLock* holder = Holder(fd)) {
        if (holder->peer_is_slow_) return false;
        (void)pthread_cond_wait(&s_changed, s_lock.Native());
    }
    Take(fd);
    return true;
}

void DescriptorLock::PeerIsSlow() {
    const MutexLock guard(s_lock);
    if (peer_is_slow_) return;
    peer_is_slow_ = true;
    (void)pthread_cond_broadcast(&s_changed);
}

void DescriptorLock::Release() {
    const MutexLock guard(s_lock);
    DescriptorLock** link = &s_first;
    while (*link != this) link = &(*link)->next_;
    *link = next_;
    (void)pthread_cond_broadcast(&s_changed);
}

// Takes count sent bytes off the front of the two parts.
void parts_advance(iovec (&parts)[2], size_t count) {
    for (iovec& part : parts) {
        const size_t taken = std::min(count, part.iov_len);
        part.iov_base = static_cast<uint8_t*>(part.iov_base) + taken;
        part.iov_len -= taken;
        count -= taken;
    }
}

// Whether a full socket is waited for.
enum class Patience { LIMITED, NONE };

int send_all(int fd, iovec (&parts)[2], Patience patience, DescriptorLock* lock,
             std::optional<Deadline>& deadline) {
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    bool begun = false;
    for (;;) {
        const ssize_t sent = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            begun = begun || sent > 0;
            parts_advance(parts, static_cast<size_t>(sent));
            if (parts[0].iov_len + parts[1].iov_len == 0) return 0;
            continue;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN && patience == Patience::LIMITED) {
            lock->PeerIsSlow();
            if (socket_wait(fd, POLLOUT, SEND_LIMIT_MS, deadline)) continue;
        }
        if (begun) {
            // The next sender's packet must not pass for the rest of this one.
            const int error = errno;
            (void)shutdown(fd, SHUT_WR);
            errno = error;
        }
        return -1;
    }
}

int packet_send(int fd, uint16_t type, std::span<const uint8_t> payload, Patience patience) {
    http_update_packet_header header{};
    header.version = HTTP_UPDATE_PACKET_VERSION;
    header.type = type;
    header.length = static_cast<uint16_t>(payload.size());
    // sendmsg() only reads through the pointer that iovec declares writable.
    iovec parts[2] = {{&header, sizeof(header)},
                      {const_cast<uint8_t*>(payload.data()), payload.size()}};

    std::optional<Deadline> deadline;
    DescriptorLock lock;
    const bool patient = patience == Patience::LIMITED;
    if (!(patient ? lock.Acquire(fd, deadline) : lock.AcquireNow(fd))) {
        errno = patient ? ETIMEDOUT : EAGAIN;
        return -1;
    }
    const int result = send_all(fd, parts, patience, &lock, deadline);
    const int error = errno;
    lock.Release();
    errno = error;
    return result;
}

int packet_check_and_send(int fd, uint16_t type, const void* payload, int length,
                          Patience patience) {
    if (length < 0 || length > HTTP_UPDATE_PAYLOAD_MAX) {
        errno = EMSGSIZE;
        return -1;
    }
    if (payload == nullptr && length > 0) {
        errno = EINVAL;
        return -1;
    }
    const auto* bytes = static_cast<const uint8_t*>(payload);
    return packet_send(fd, type, {bytes, static_cast<size_t>(length)}, patience);
}

}  // namespace

int http_update_reg_receive_assign(int fd, void* destination, int count) {
    if (count < 0 || (destination == nullptr && count > 0)) {
        errno = EINVAL;
        return -1;
    }
    std::optional<Deadline> deadline;
    int received = 0;
    while (received < count) {
        const ssize_t got = receive_some(fd, static_cast<uint8_t*>(destination) + received,
                                         static_cast<size_t>(count - received), deadline);
        if (got < 0) return -1;
        if (got == 0) {
            errno = received > 0 ? ECONNRESET : 0;  // callers print it
            return received;
        }
        received += static_cast<int>(got);
    }
    return received;
}

int http_update_reg_receive_skip(int fd, int count) {
    if (count < 0) {
        errno = EINVAL;
        return -1;
    }
    std::optional<Deadline> deadline;
    char discarded[4096];
    while (count > 0) {
        const size_t size = std::min(sizeof(discarded), static_cast<size_t>(count));
        const ssize_t got = receive_some(fd, discarded, size, deadline);
        if (got == 0) errno = ECONNRESET;
        if (got <= 0) return -1;
        count -= static_cast<int>(got);
    }
    return 0;
}

int http_update_reg_send_normal(int fd, uint16_t type, const void* payload, int length) {
    return packet_check_and_send(fd, type, payload, length, Patience::LIMITED);
}

int http_update_reg_send_now(int fd, uint16_t type, const void* payload, int length) {
    return packet_check_and_send(fd, type, payload, length, Patience::NONE);
}

void http_update_client_get_tmtime(char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) return;
    const time_t now = time(nullptr);
    tm local{};
    char text[64] = "";
    if (localtime_r(&now, &local) != nullptr) {
        (void)strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    }
    const size_t kept = strnlen(text, size - 1);
    memcpy(buffer, text, kept);
    buffer[kept] = '\0';
}
