// System log lines of the host: "MODULE LEVEL: text", to syslog(3), or to the
// file that PRINTK_SYSLOG_FILE names (tests, the demo, a device without syslog).
//
// A call is one line whatever its text holds: line ends at its end are taken
// off, and other control bytes are written as escapes, since texts from the
// network reach the log and must not forge lines.
#include "frame/platform/syslog_new.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/text.h"
#include "base/unique_fd.h"

namespace {

constexpr size_t TEXT_SIZE = 2048;           // longer texts are cut
constexpr size_t LINE_SIZE = 2 * TEXT_SIZE;  // room for escapes
constexpr mode_t FILE_MODE = 0640;           // the log names servers and serial numbers

std::string_view without_line_ends(std::string_view text) {
    const size_t last = text.find_last_not_of("\r\n");
    return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

// The escape of a control byte, or nothing for a byte that stands for itself.
std::string_view escape_of(char c, char (&buffer)[8]) {
    if (c == '\n') return "\\n";
    if (c == '\r') return "\\r";
    const auto byte = static_cast<unsigned char>(c);
    if ((byte >= ' ' && byte != 0x7f) || c == '\t') return {};
    size_t length = 0;
    (void)text_appendf(buffer, sizeof(buffer), &length, "\\x%02x", unsigned{byte});  // 4 bytes
    return {buffer, length};
}

// Leaves a byte of line free for the line end.
void append_escaped(char (&line)[LINE_SIZE], size_t* length, std::string_view text) {
    for (const char& c : text) {
        char buffer[8];
        std::string_view piece = escape_of(c, buffer);
        if (piece.empty()) piece = {&c, 1};
        if (*length + piece.size() > LINE_SIZE - 2) return;
        memcpy(line + *length, piece.data(), piece.size());
        *length += piece.size();
    }
    line[*length] = '\0';
}

// One write in append mode: lines of several threads, and of several processes,
// never mix. Opened anew each time, so that the file may be rotated or removed.
int append_to_file(const char* path, std::string_view line) {
    const UniqueFd fd(
        open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, FILE_MODE));
    if (!fd.valid()) return -1;
    ssize_t written = 0;
    do {
        written = write(fd.get(), line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(line.size()) ? 0 : -1;
}

}  // namespace

int printk_syslog_ext(int priority, const char* module, const char* level, int, const char* format,
                      ...) {
    char text[TEXT_SIZE] = "";
    size_t text_length = 0;
    va_list args;
    va_start(args, format);
    (void)text_vappendf(text, sizeof(text), &text_length, format,
                        args);  // a cut text is still said
    va_end(args);

    char line[LINE_SIZE] = "";
    size_t length = 0;
    (void)text_appendf(line, sizeof(line) - 1, &length, "%s %s: ", module, level);
    append_escaped(line, &length, without_line_ends({text, text_length}));

    const char* path = getenv("PRINTK_SYSLOG_FILE");
    if (path == nullptr || *path == '\0') {
        syslog(LOG_DAEMON | (priority & LOG_PRIMASK), "%s", line);
        return 0;
    }
    line[length++] = '\n';
    return append_to_file(path, {line, length});
}
