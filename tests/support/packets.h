// Packets of the registration socket, put together byte by byte, so that layouts are
// checked against something else than the structs. Machines here are little-endian.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <utility>

#include "frame/platform/http_update.h"

// The bytes of a record or a number.
template <typename Record>
std::string Bytes(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}
inline std::string Number(size_t value) { return Bytes(static_cast<uint16_t>(value)); }
inline std::string Field(std::string text, size_t size) {
    text.resize(size, '\0');
    return text;
}
inline std::string Fact(const std::string& name, const std::string& text) {
    return Number(name.size() + 1) + Number(text.size() + 1) + name + '\0' + text + '\0';
}

inline void SendPacket(int fd, int type, const std::string& payload) {
    EXPECT_EQ(http_update_reg_send_normal(fd, static_cast<uint16_t>(type), payload.data(),
                                          static_cast<int>(payload.size())),
              0);
}
// Type and payload of the next packet; type 0 without one. flags as in recv().
inline std::pair<int, std::string> ReceivePacket(int fd, int flags = MSG_WAITALL) {
    http_update_packet_header header{};
    if (recv(fd, &header, sizeof(header), flags) != sizeof(header)) return {0, ""};
    std::string payload(header.length, '\0');
    EXPECT_EQ(http_update_reg_receive_assign(fd, payload.data(), header.length), header.length);
    return {header.type, payload};
}
