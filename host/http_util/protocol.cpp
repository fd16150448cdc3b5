// Packets between the download library and its program. Neither believes the other's
// lengths: the program talks to servers, and may be in their hands.

#include "host/http_util/protocol.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace {

// 0 for what is no type.
size_t size_of(MessageType type) {
    switch (type) {
        case MessageType::Target:
            return sizeof(TargetMessage);
        case MessageType::Get:
            return sizeof(GetMessage);
        case MessageType::Body:
            return sizeof(BodyMessage);
        case MessageType::Drop:
            return sizeof(DropMessage);
        case MessageType::Ready:
            return sizeof(ReadyMessage);
        case MessageType::Place:
            return sizeof(PlaceMessage);
        case MessageType::Head:
            return sizeof(HeadMessage);
        case MessageType::Progress:
            return sizeof(ProgressMessage);
        case MessageType::End:
            return sizeof(EndMessage);
        case MessageType::Trace:
            return sizeof(TraceMessage);
    }
    return 0;
}

template <size_t... N>
void terminate(char (&... fields)[N]) {
    ((fields[N - 1] = '\0'), ...);
}

void texts_terminate(AnyMessage* message) {
    switch (message->type) {
        case MessageType::Target:
            return terminate(message->target.base, message->target.reference);
        case MessageType::Get:
            return terminate(message->get.validator);
        case MessageType::Place:
            return terminate(message->place.host, message->place.url, message->place.resource);
        case MessageType::Head: {
            HeadMessage& head = message->head;
            return terminate(head.tag, head.modified, head.range, head.encoding, head.transfer,
                             head.location);
        }
        case MessageType::End:
            return terminate(message->end.text);
        case MessageType::Trace:
            return terminate(message->trace.text);
        case MessageType::Body:
        case MessageType::Drop:
        case MessageType::Ready:
        case MessageType::Progress:
            return;
    }
}

// False when nothing came in time.
bool readable_wait(int socket, int wait_ms) {
    pollfd waited{socket, POLLIN, 0};
    // A signal shortens one wait; the caller asks again.
    return poll(&waited, 1, wait_ms) > 0;
}

union Control {
    cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(int))];
};

UniqueFd descriptor_take(msghdr* packet) {
    const cmsghdr* header = CMSG_FIRSTHDR(packet);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS ||
        header->cmsg_len != CMSG_LEN(sizeof(int))) {
        return UniqueFd();
    }
    int fd = -1;
    memcpy(&fd, CMSG_DATA(header), sizeof(fd));
    return UniqueFd(fd);
}

}  // namespace

Received message_receive(int socket, AnyMessage* message, int wait_ms, UniqueFd* file) {
    iovec bytes{message, sizeof(*message)};
    Control control{};
    msghdr packet{};
    packet.msg_iov = &bytes;
    packet.msg_iovlen = 1;
    if (file != nullptr) {
        packet.msg_control = &control;
        packet.msg_controllen = sizeof(control);
    }
    ssize_t got = recvmsg(socket, &packet, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got < 0 && errno == EAGAIN && wait_ms != 0) {
        if (!readable_wait(socket, wait_ms)) return Received::Nothing;
        got = recvmsg(socket, &packet, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    }
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return Received::Nothing;
    if (got <= 0) return Received::Gone;
    if (file != nullptr) *file = descriptor_take(&packet);
    if (static_cast<size_t>(got) < sizeof(MessageType) ||
        static_cast<size_t>(got) != size_of(message->type)) {
        return Received::Gone;
    }
    texts_terminate(message);
    return Received::Message;
}

bool message_send_bytes(int socket, const void* record, size_t size, int file, bool must_arrive) {
    iovec bytes{const_cast<void*>(record), size};
    Control control{};
    msghdr packet{};
    packet.msg_iov = &bytes;
    packet.msg_iovlen = 1;
    if (file >= 0) {
        packet.msg_control = &control;
        packet.msg_controllen = sizeof(control.bytes);
        cmsghdr* header = CMSG_FIRSTHDR(&packet);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(file));
        memcpy(CMSG_DATA(header), &file, sizeof(file));
    }
    const int flags = MSG_NOSIGNAL | (must_arrive ? 0 : MSG_DONTWAIT);
    ssize_t sent = -1;
    do {
        sent = sendmsg(socket, &packet, flags);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(size);
}
