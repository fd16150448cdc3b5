// What the download library and the download program say to each other over a pair
// of packet sockets: one record a packet, of exactly the size of its type.
//
//     library                       program
//                                <- READY     once, when its rights are given away
//     TARGET    a URL            ->
//                                <- PLACE     what it names; the library looks the host up
//     GET       address, range   ->
//                                <- HEAD      the response, before its first body byte
//     BODY      an open file     ->
//                                <- PROGRESS  at most every 100 ms
//                                <- END
//
// A transfer that fails before its response has ended with END instead of HEAD.
// DROP, instead of GET or BODY, means that nothing more of this target is wanted;
// it has no answer. TRACE may come at any time after a GET that asks for it. Either
// side's end of the socket ends the other's work at once.
// Threads: a socket belongs to one thread on each side.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "base/unique_fd.h"

// Changes with every change to a record: library and program must be of one build.
constexpr uint32_t PROTOCOL_VERSION = 1;
// Where the program finds its socket.
constexpr int PROGRAM_SOCKET = 3;

constexpr size_t URL_SIZE = 2048;
constexpr size_t HOST_SIZE = 256;
constexpr size_t RESOURCE_SIZE = 1024;
constexpr size_t VALIDATOR_SIZE = 256;

enum class MessageType : uint32_t {
    Target = 1,
    Get,
    Body,
    Drop,
    Ready,
    Place,
    Head,
    Progress,
    End,
    Trace,
};

struct TargetMessage {
    MessageType type = MessageType::Target;
    char base[URL_SIZE] = "";       // what the reference is relative to; "": nothing
    char reference[URL_SIZE] = "";  // URL, or a redirect's Location
};

struct GetMessage {
    MessageType type = MessageType::Get;
    uint32_t address = 0;     // of the host, network byte order
    uint32_t source = 0;      // to send from, network byte order; 0: any
    uint32_t connect_ms = 0;  // at most, for a connection
    uint32_t trace = 0;       // 1: TRACE is wanted
    uint32_t ranged = 0;      // 1: bytes first to last are asked for, if the validator holds
    uint64_t first = 0;
    uint64_t last = 0;  // UINT64_MAX: to the end
    char validator[VALIDATOR_SIZE] = "";
};

// Carries the file's descriptor, open for reading and writing.
struct BodyMessage {
    MessageType type = MessageType::Body;
    uint32_t compare = 0;  // so many bytes at first are compared with the file's, not written
    uint64_t offset = 0;   // of the body in the file
    uint64_t limit = 0;    // bytes of body; more are an error
};

struct DropMessage {
    MessageType type = MessageType::Drop;
};

// What the program is still able to do although it should not be.
constexpr uint32_t READY_UNFILTERED = 1;  // the kernel has no system-call filters
constexpr uint32_t READY_IS_ROOT = 2;     // root could not become anybody else

struct ReadyMessage {
    MessageType type = MessageType::Ready;
    uint32_t version = PROTOCOL_VERSION;
    uint32_t not_confined = 0;
};

struct PlaceMessage {
    MessageType type = MessageType::Place;
    uint32_t valid = 0;  // 1: a URL of http or https
    uint32_t secure = 0;
    uint32_t port = 0;
    char host[HOST_SIZE] = "";
    char url[URL_SIZE] = "";            // absolute; may hold a password
    char resource[RESOURCE_SIZE] = "";  // path, "?" and query; "" when too long
};

// Fields of a response that can't be used: several that differ, malformed, too long.
constexpr uint32_t HEAD_LENGTH = 1;
constexpr uint32_t HEAD_TAG = 2;
constexpr uint32_t HEAD_MODIFIED = 4;
constexpr uint32_t HEAD_RANGE = 8;
constexpr uint32_t HEAD_LOCATION = 16;
constexpr uint32_t HEAD_ENCODING = 32;
constexpr uint32_t HEAD_TRANSFER = 64;
constexpr uint32_t HEAD_DATE = 128;

// Header fields are "" where the response has none.
struct HeadMessage {
    MessageType type = MessageType::Head;
    int32_t status = 0;
    uint32_t unusable = 0;
    uint32_t reserved = 0;
    int64_t length = -1;      // Content-Length; -1: none
    int64_t modified_s = -1;  // Last-Modified and Date, seconds since 1970; -1: none
    int64_t date_s = -1;
    char tag[VALIDATOR_SIZE] = "";
    char modified[64] = "";
    char range[96] = "";  // Content-Range
    char encoding[64] = "";
    char transfer[64] = "";
    char location[URL_SIZE] = "";
};

struct ProgressMessage {
    MessageType type = MessageType::Progress;
    uint32_t reserved = 0;
    uint64_t position = 0;  // the file has the body's bytes up to here
};

enum class EndReason : uint32_t {
    Whole,         // the body ended where the response said
    Cut,           // it didn't, or there was no response that makes sense
    NoConnection,  // none within the limit, from that source, or TLS refused; errno or 0
    Differs,       // the file's bytes are others
    WriteFailed,   // error is the errno
    TooLong,       // more bytes than the limit
};

struct EndMessage {
    MessageType type = MessageType::End;
    EndReason reason = EndReason::Cut;
    int32_t error = 0;
    uint32_t reserved = 0;
    uint64_t position = 0;  // as in PROGRESS
    char text[128] = "";    // for the log
};

struct TraceMessage {
    MessageType type = MessageType::Trace;
    char text[1024] = "";
};

union AnyMessage {
    AnyMessage() : type{} {}
    MessageType type;
    TargetMessage target;
    GetMessage get;
    BodyMessage body;
    DropMessage drop;
    ReadyMessage ready;
    PlaceMessage place;
    HeadMessage head;
    ProgressMessage progress;
    EndMessage end;
    TraceMessage trace;
};
static_assert(std::is_trivially_copyable_v<AnyMessage>);

enum class Received {
    Message,
    Nothing,  // in time
    Gone,     // the other side has ended, or what it says is no message
};

// The next message within wait_ms (-1: whenever it comes). Text fields are
// terminated, whatever the sender put there. file, where not null, takes the
// descriptor that came along, if any; without it none is accepted.
[[nodiscard]] Received message_receive(int socket, AnyMessage* message, int wait_ms,
                                       UniqueFd* file = nullptr);

// Sends one record, with a descriptor unless file is -1. must_arrive: waits for room.
// False: the other side has ended, or, where it need not arrive, there is no room.
[[nodiscard]] bool message_send_bytes(int socket, const void* record, size_t size, int file,
                                      bool must_arrive);

template <typename Record>
[[nodiscard]] bool message_send(int socket, const Record& record, int file = -1,
                                bool must_arrive = true) {
    static_assert(std::is_trivially_copyable_v<Record>);
    return message_send_bytes(socket, &record, sizeof(record), file, must_arrive);
}
