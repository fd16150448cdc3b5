// Frames between the operator's program and the daemon's command-line service,
// and the place where the two meet. Header only; both sides include it.
//
// A frame is an 8-byte header and its payload, on a local stream socket, in the
// device's byte order. The program opens with FRAME_OPEN; the daemon answers
// with FRAME_END, and again once for every FRAME_COMMAND. Between a command and
// its end come the command's output and refusals, in the order in which they
// were made. FRAME_HELP and FRAME_COMPLETE get one FRAME_REPLY each. FRAME_BYE
// says why the daemon closes the connection.
// Threads: any; works on its arguments only.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/working_dir.h"

namespace client_new {

constexpr uint32_t PROTOCOL_VERSION = 1;
constexpr size_t LINE_LENGTH_MAX = 1023;  // of a command line
constexpr size_t REQUEST_PAYLOAD_MAX = 4096;
constexpr size_t REPLY_PAYLOAD_MAX = 65536;

enum FrameType : uint16_t {
    // Program to daemon.
    FRAME_OPEN = 1,      // OpenPayload
    FRAME_COMMAND = 2,   // a command line without its line end
    FRAME_KEY = 3,       // keys typed for the command that runs
    FRAME_HELP = 4,      // the line up to the cursor
    FRAME_COMPLETE = 5,  // the line up to the cursor
    // Daemon to program.
    FRAME_OUTPUT = 16,   // for standard output, as it stands
    FRAME_REFUSAL = 17,  // for standard error, as it stands
    FRAME_END = 18,      // EndPayload
    FRAME_REPLY = 19,    // help to show, or the words that complete, one a line
    FRAME_BYE = 20,      // why the session ends
};

struct FrameHeader {
    uint16_t type;
    uint16_t reserved;  // 0
    uint32_t length;    // of the payload
};
static_assert(sizeof(FrameHeader) == 8);

constexpr uint32_t OPEN_SECOND_LIST = 1;
struct OpenPayload {
    uint32_t version;
    uint32_t flags;  // OPEN_ bits
};
static_assert(sizeof(OpenPayload) == 8);

enum class Mode : uint8_t { kExec = 0, kConfig = 1 };
constexpr uint8_t END_ACCEPTED = 0;
constexpr uint8_t END_REFUSED = 1;
struct EndPayload {
    uint8_t status;  // END_
    Mode mode;       // of the next command
    uint8_t leave;   // 1: the session is over
    uint8_t reserved;
};
static_assert(sizeof(EndPayload) == 4);

inline void frame_append(std::string* queue, FrameType type, std::string_view payload) {
    const FrameHeader header{type, 0, static_cast<uint32_t>(payload.size())};
    queue->append(reinterpret_cast<const char*>(&header), sizeof(header));
    queue->append(payload);
}

struct Frame {
    FrameType type;
    std::string payload;
};

// Puts received bytes together again.
class FrameReader {
  public:
    explicit FrameReader(size_t payload_max) : payload_max_(payload_max) {}

    void Add(std::string_view bytes) { bytes_.append(bytes); }

    enum class Result { kFrame, kIncomplete, kTooLong };
    // Takes the next whole frame out. kTooLong: no frame of this stream can be
    // trusted any more.
    Result Next(Frame* frame) {
        FrameHeader header{};
        if (bytes_.size() < sizeof(header)) return Result::kIncomplete;
        memcpy(&header, bytes_.data(), sizeof(header));
        if (header.length > payload_max_) return Result::kTooLong;
        if (bytes_.size() - sizeof(header) < header.length) return Result::kIncomplete;
        frame->type = FrameType{header.type};
        frame->payload.assign(bytes_, sizeof(header), header.length);
        bytes_.erase(0, sizeof(header) + header.length);
        return Result::kFrame;
    }

  private:
    size_t payload_max_;
    std::string bytes_;
};

inline std::string cli_socket_path() {
    char path[PATH_SIZE];
    working_path(dir_prefix_now(TMP_DIR), ".http_client_cli", path);
    return path;
}

}  // namespace client_new
