#include "host/http_util/trace.h"

#include <stdarg.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <string_view>

#include "base/text.h"
#include "frame/platform/syslog_new.h"

namespace {

constexpr int PRIORITY_DEBUG = 7;
constexpr size_t LINE_SIZE = 1024;

// Text of a server goes into the log: nothing in it may end the line or drive a
// terminal.
void line_send(char (&line)[LINE_SIZE]) {
    for (char* c = line; *c != '\0'; ++c) {
        if (static_cast<unsigned char>(*c) < ' ' || *c == 0x7f) *c = '?';
    }
    (void)printk_syslog_ext(PRIORITY_DEBUG, "HTTPC", "DEBUG", 2, "%s\n", line);
}

bool header_is_secret(std::string_view header) {
    static constexpr std::string_view NAMES[] = {
        "Authorization:", "Proxy-Authorization:", "Cookie:", "Set-Cookie:"};
    return std::any_of(std::begin(NAMES), std::end(NAMES), [&](std::string_view name) {
        return header.size() >= name.size() &&
               strncasecmp(header.data(), name.data(), name.size()) == 0;
    });
}

}  // namespace

void trace(const std::atomic<bool>* debug, const char* format, ...) {
    if (debug == nullptr || !debug->load(std::memory_order_relaxed)) return;
    char line[LINE_SIZE] = "download: ";
    size_t length = strlen(line);
    va_list args;
    va_start(args, format);
    (void)text_vappendf(line, sizeof line, &length, format, args);
    va_end(args);
    line_send(line);
}

const char* trace_url(const char* url, char (&text)[512]) {
    const char* authority = strstr(url, "://");
    authority = authority == nullptr ? url : authority + 3;
    const char* end = authority + strcspn(authority, "/?#");
    const void* at = memrchr(authority, '@', static_cast<size_t>(end - authority));
    const char* host = at == nullptr ? authority : static_cast<const char*>(at) + 1;
    size_t length = 0;
    (void)text_appendf(text, sizeof text, &length, "%.*s%s", static_cast<int>(authority - url), url,
                       host);
    return text;
}

int trace_curl(CURL*, curl_infotype type, char* data, size_t size, void* debug) {
    const auto* on = static_cast<const std::atomic<bool>*>(debug);
    const char* mark = type == CURLINFO_TEXT         ? "*"
                       : type == CURLINFO_HEADER_IN  ? "<"
                       : type == CURLINFO_HEADER_OUT ? ">"
                                                     : nullptr;
    if (mark == nullptr || !on->load(std::memory_order_relaxed)) return 0;
    std::string_view rest(data, size);
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        while (line.ends_with('\r') || line.ends_with('\n')) line.remove_suffix(1);
        if (line.empty()) continue;
        const bool secret = type != CURLINFO_TEXT && header_is_secret(line);
        if (secret) line = line.substr(0, line.find(':') + 1);
        trace(on, "%s %.*s%s", mark, static_cast<int>(std::min(line.size(), LINE_SIZE)),
              line.data(), secret ? " (not shown)" : "");
    }
    return 0;
}
