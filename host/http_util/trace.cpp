// A line costs nothing while debugging is off, and tells no secrets while it is on: user
// names and passwords are taken out of URLs.
#include "host/http_util/trace.h"

#include <cstdarg>
#include <cstring>

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

}  // namespace

void trace(const std::atomic<bool>* debug, const char* format, ...) {
    if (!trace_is_on(debug)) return;
    char line[LINE_SIZE] = "download: ";
    size_t length = strlen(line);
    va_list args;
    va_start(args, format);
    (void)text_vappendf(line, sizeof(line), &length, format, args);
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
    (void)text_appendf(text, sizeof(text), &length, "%.*s%s", static_cast<int>(authority - url),
                       url, host);
    return text;
}
