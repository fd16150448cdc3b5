// Frames between the operator's program and the daemon's command-line service,
// and the place where the two meet. Header only; both sides include it.
//
// A frame is an 8-byte header and its payload, on a local stream socket, in the
// device's byte order. The program opens with FRAME_OPEN; the daemon answers
// with FRAME_END, and again once for every FRAME_COMMAND. Between a command and
// its end come the command's output and refusals, in the order in which they
// were made. FRAME_HELP and FRAME_COMPLETE get one FRAME_REPLY each. FRAME_BYE
// says why the daemon closes the connection. FRAME_PING asks for a sign of life: the
// daemon's loop answers at once with FRAME_PONG, also while a command runs. A program
// pings only a daemon that says END_ANSWERS_PING.
//
// A program before which a person sits says OPEN_PERSON, and gets what is no output: numbers
// for a progress line, hints, and whether a command goes on. It asks FRAME_UNSAVED only of a
// daemon that says END_SERVES_PERSON.
//
// Daemon and program may be of different releases: a frame of a type that one side
// doesn't know is skipped, what follows the known part of a payload is ignored, and
// what is new is offered by a bit that older releases leave 0.
// Threads: any; works on its arguments only.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "base/working_dir.h"
#include "host/client_new/growing_bytes.h"

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
    FRAME_PING = 6,      // empty
    FRAME_UNSAVED = 7,   // empty: which lines "write" would change
    // Daemon to program.
    FRAME_OUTPUT = 16,   // for standard output, as it stands
    FRAME_REFUSAL = 17,  // for standard error, as it stands
    FRAME_END = 18,      // EndPayload
    FRAME_REPLY = 19,    // help to show, the words that complete or lines, one a line
    FRAME_BYE = 20,      // why the session ends
    FRAME_PONG = 21,     // empty
    // To OPEN_PERSON only.
    FRAME_RUNNING = 22,   // empty: the command goes on, its output comes as it is made
    FRAME_PROGRESS = 23,  // ProgressPayload
    FRAME_CARET = 24,     // CaretPayload and the keyword nearest to the word, or none
    FRAME_HINT = 25,      // whole lines, behind the output made so far
};

struct FrameHeader {
    uint16_t type;
    uint16_t reserved;  // 0
    uint32_t length;    // of the payload
};
static_assert(sizeof(FrameHeader) == 8);

constexpr uint32_t OPEN_SECOND_LIST = 1;
constexpr uint32_t OPEN_PERSON = 2;
struct OpenPayload {
    uint32_t version;
    uint32_t flags;  // OPEN_ bits
};
static_assert(sizeof(OpenPayload) == 8);

enum class Mode : uint8_t { kExec = 0, kConfig = 1 };
// How a command ended: CLI_OUTCOME_ of client_new.h, the program's exit status. Older
// daemons tell these two; older programs take all but the first for the second.
constexpr uint8_t END_ACCEPTED = 0;
constexpr uint8_t END_REFUSED = 1;
constexpr uint8_t END_ANSWERS_PING = 1;
constexpr uint8_t END_SERVES_PERSON = 2;
struct EndPayload {
    uint8_t status;  // as above
    Mode mode;       // of the next command
    uint8_t leave;   // 1: the session is over
    uint8_t offers;  // END_ bits, the same in every one
};
static_assert(sizeof(EndPayload) == 4);

// A download of the command that runs.
struct ProgressPayload {
    uint64_t received;  // bytes of the file
    uint64_t total;     // 0: unknown
    uint32_t file;      // 1..files
    uint32_t files;     // of the app
    char app[32];       // terminated; as the app named itself
};
static_assert(sizeof(ProgressPayload) == 56);

// Comes before the refusal that it belongs to.
struct CaretPayload {
    uint32_t at;  // offset of the wrong word in the line
};
static_assert(sizeof(CaretPayload) == 4);

// False: memory is short, and nothing was added.
[[nodiscard]] inline bool frame_append(GrowingBytes* queue, FrameType type,
                                       std::string_view payload) {
    const FrameHeader header{type, 0, static_cast<uint32_t>(payload.size())};
    const size_t before = queue->size();
    if (queue->Append({reinterpret_cast<const char*>(&header), sizeof(header)}) &&
        queue->Append(payload)) {
        return true;
    }
    queue->Cut(before);
    return false;
}

struct Frame {
    FrameType type;
    std::string_view payload;  // valid until the next call of its reader
};

// Puts received bytes together again.
class FrameReader {
  public:
    explicit FrameReader(size_t payload_max) : payload_max_(payload_max) {}

    // False: memory is short.
    [[nodiscard]] bool Add(std::string_view bytes) {
        DropTaken();
        return bytes_.Append(bytes);
    }

    enum class Result { kFrame, kIncomplete, kTooLong };
    // Takes the next whole frame out. kTooLong: no frame of this stream can be
    // trusted any more.
    Result Next(Frame* frame) {
        DropTaken();
        FrameHeader header{};
        if (bytes_.size() < sizeof(header)) return Result::kIncomplete;
        memcpy(&header, bytes_.View().data(), sizeof(header));
        if (header.length > payload_max_) return Result::kTooLong;
        if (bytes_.size() - sizeof(header) < header.length) return Result::kIncomplete;
        frame->type = FrameType{header.type};
        frame->payload = bytes_.View().substr(sizeof(header), header.length);
        taken_ = sizeof(header) + header.length;
        return Result::kFrame;
    }

  private:
    void DropTaken() { bytes_.DropFront(std::exchange(taken_, 0)); }

    size_t payload_max_;
    size_t taken_ = 0;  // of the frame given out last
    GrowingBytes bytes_;
};

inline std::string cli_socket_path() {
    char path[PATH_SIZE];
    working_path(dir_prefix_now(TMP_DIR), ".http_client_cli", path);
    return path;
}

}  // namespace client_new
