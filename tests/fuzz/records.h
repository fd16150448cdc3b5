// Records of the socket between the download library and its program, as text:
//     letter of the type | offset=text | offset:number of 4 bytes | offset#number of 8 | !size
// and the fields that are not named as a new record has them. Another line is sent as it is.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <charconv>

#include "host/http_util/protocol.h"
#include "tests/fuzz/fuzz.h"

template <typename Record>
static std::string Blank() {
    const Record record{};
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

static void RecordPatch(std::string* record, std::string_view patch) {
    const char* end = patch.data() + patch.size();
    size_t offset = 0;
    uint64_t number = 0;
    const char* mark = std::from_chars(patch.data(), end, offset).ptr;
    if (mark == end) return;
    (void)std::from_chars(mark + 1, end, number);
    std::string_view bytes(reinterpret_cast<const char*>(&number), *mark == '#' ? 8 : 4);
    if (*mark == '=') bytes = {mark + 1, end};
    if (*mark == '!') {
        record->resize(std::min<size_t>(number, 2 * URL_SIZE));
    } else if (offset < record->size() && bytes.size() <= record->size() - offset) {
        record->replace(offset, bytes.size(), bytes);
    }
}

// Sends the record of a line, a BODY with a file. Returns its size.
static size_t RecordSend(int socket, std::string_view line, int file = -1) {
    static const std::string s_blanks[] = {Blank<TargetMessage>(), Blank<GetMessage>(),
                                           Blank<BodyMessage>(),   Blank<DropMessage>(),
                                           Blank<ReadyMessage>(),  Blank<PlaceMessage>(),
                                           Blank<HeadMessage>(),   Blank<ProgressMessage>(),
                                           Blank<EndMessage>(),    Blank<TraceMessage>()};
    const size_t type =
        line.empty() ? std::string_view::npos : std::string_view("TGBDRPHUEX").find(line.front());
    std::string record(line);
    if (type != std::string_view::npos) {
        record = s_blanks[type];
        (void)Take(&line, "|");
        while (!line.empty()) RecordPatch(&record, Take(&line, "|"));
    }
    const bool has_file = record.size() == sizeof(BodyMessage);
    (void)message_send_bytes(socket, record.data(), record.size(), has_file ? file : -1, false);
    return record.size();
}
