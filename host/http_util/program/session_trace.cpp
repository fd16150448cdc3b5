// What libcurl says of a transfer goes to the library as messages, since the program has
// no log of its own. Nothing waits for that, and the values of secret headers stay here.
#include "host/http_util/program/session_trace.h"

#include <strings.h>

#include <algorithm>
#include <string_view>

#include "base/text.h"
#include "host/http_util/protocol.h"

namespace {

bool header_is_secret(std::string_view header) {
    static constexpr std::string_view NAMES[] = {
        "Authorization:", "Proxy-Authorization:", "Cookie:", "Set-Cookie:"};
    return std::any_of(std::begin(NAMES), std::end(NAMES), [&](std::string_view name) {
        return header.size() >= name.size() &&
               strncasecmp(header.data(), name.data(), name.size()) == 0;
    });
}

void line_send(int socket, const char* mark, std::string_view line, bool secret) {
    if (secret) line = line.substr(0, line.find(':') + 1);
    TraceMessage message;
    size_t length = 0;
    (void)text_appendf(message.text, sizeof(message.text), &length, "%s %.*s%s", mark,
                       static_cast<int>(std::min(line.size(), sizeof(message.text))), line.data(),
                       secret ? " (not shown)" : "");
    (void)message_send(socket, message, -1, false);  // rather lost than late
}

}  // namespace

int on_trace(CURL*, curl_infotype type, char* data, size_t size, void* socket) {
    const char* mark = type == CURLINFO_TEXT         ? "*"
                       : type == CURLINFO_HEADER_IN  ? "<"
                       : type == CURLINFO_HEADER_OUT ? ">"
                                                     : nullptr;
    std::string_view rest(data, size);
    while (mark != nullptr && !rest.empty()) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        while (line.ends_with('\r') || line.ends_with('\n')) line.remove_suffix(1);
        if (line.empty()) continue;
        const bool secret = type != CURLINFO_TEXT && header_is_secret(line);
        line_send(*static_cast<int*>(socket), mark, line, secret);
    }
    return 0;
}
