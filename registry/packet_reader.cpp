// The kernel is asked how much there is, and the packet library for no more than that,
// so it finds it at once. What has come of a packet is kept here and not in the socket:
// that would stay readable, which keeps the loop busy, and it need not hold a packet
// that comes in small pieces.
#include "registry/packet_reader.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "frame/log.h"
#include "frame/platform/http_update.h"

namespace {

constexpr int HEADER_SIZE = HTTP_UPDATE_PACKET_HEADER_SIZE;
constexpr int PAYLOAD_MAX = HTTP_UPDATE_APP_PAYLOAD_MAX;

http_update_packet_header header_of(const PacketReader& reader) {
    http_update_packet_header header{};
    memcpy(&header, reader.bytes, sizeof(header));
    return header;
}

// result is the library's.
int failure_log(int sock, const PacketReader& reader, int result) {
    const int error = errno;
    const char* text = strerror(error);
    if (reader.have < HEADER_SIZE) {
        http_client_debug_dump("[%d]<-->receive fail [%d],errno [%d, %s]", sock,
                               result < 0 ? result : reader.have, error, text);
    } else {
        http_client_debug_dump("received %d fail for %d, errno %s", header_of(reader).length,
                               result < 0 ? result : reader.have - HEADER_SIZE, text);
    }
    return -1;
}

// Readable without a byte: the end or an error, neither of which lets a read wait.
int end_log(int sock, const PacketReader& reader) {
    uint8_t byte = 0;
    const int result = http_update_reg_receive_assign(sock, &byte, sizeof(byte));
    if (result >= 0) errno = reader.begun() ? ECONNRESET : 0;
    return failure_log(sock, reader, result);
}

// Takes what is there up to the packet's first size bytes. False: failed, and logged.
bool part_take(int sock, PacketReader* reader, int size, int* there) {
    const int count = std::min(size - reader->have, *there);
    if (count <= 0) return true;
    const int taken = http_update_reg_receive_assign(sock, reader->bytes + reader->have, count);
    if (taken != count) return failure_log(sock, *reader, taken) == 0;
    reader->have += count;
    *there -= count;
    return true;
}

int part_skip(int sock, PacketReader* reader, int there) {
    const int count = std::min(reader->skip, there);
    if (http_update_reg_receive_skip(sock, count) < 0) return -1;
    reader->skip -= count;
    return 0;
}

}  // namespace

int packet_read(int sock, PacketReader* reader, AppPacket* packet) {
    int there = 0;
    if (ioctl(sock, FIONREAD, &there) != 0 || there <= 0) return end_log(sock, *reader);
    if (reader->skip > 0) return part_skip(sock, reader, there);

    if (!part_take(sock, reader, HEADER_SIZE, &there)) return -1;
    if (reader->have < HEADER_SIZE) return 0;
    const http_update_packet_header header = header_of(*reader);
    if (header.length > PAYLOAD_MAX) {
        http_client_debug_dump("The pkt len:%d is large than %d", header.length, PAYLOAD_MAX);
        reader->have = 0;
        reader->skip = header.length;
        return part_skip(sock, reader, there);
    }
    if (!part_take(sock, reader, HEADER_SIZE + header.length, &there)) return -1;
    if (reader->have < HEADER_SIZE + header.length) return 0;
    reader->have = 0;
    *packet = {header.type, std::span(reader->bytes).subspan(HEADER_SIZE, header.length)};
    return 1;
}
