// Lines from standard input as they are, for scripts. They are read by poll and read, not
// by stdio: the daemon's going away must show while no line comes.
#include <unistd.h>

#include <cerrno>

#include "base/file.h"
#include "input.h"

namespace {

constexpr size_t KEPT_MAX = 65536;

std::string s_unread;  // read, but not yet given out
bool s_at_end = false;

// Moves bytes up to the line end into the line. True when it is whole.
bool take_line(std::string* line) {
    const size_t end = s_unread.find('\n');
    const size_t count = end == s_unread.npos ? s_unread.size() : end;
    line->append(s_unread, 0, std::min(count, KEPT_MAX - std::min(KEPT_MAX, line->size())));
    s_unread.erase(0, end == s_unread.npos ? count : end + 1);
    return end != s_unread.npos || (s_at_end && !line->empty());
}

void read_more() {
    char bytes[4096];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof(bytes));
    if (count > 0) s_unread.append(bytes, static_cast<size_t>(count));
    if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) s_at_end = true;
}

}  // namespace

InputResult plain_read_line(Connection* connection, const char* prompt, std::string* line) {
    (void)file_write_all(STDOUT_FILENO, prompt);
    line->clear();
    while (!take_line(line)) {
        if (s_at_end) return InputResult::kEnd;
        client_new::Frame frame{};
        switch (connection_wait(connection, true, &frame)) {
            case Event::kInput:
                read_more();
                break;
            case Event::kInterrupt:
                return InputResult::kInterrupted;
            case Event::kQuit:
                return InputResult::kQuit;
            case Event::kLost:
                return InputResult::kLost;
            case Event::kFrame:
            case Event::kResize:
            case Event::kContinue:
                break;
        }
    }
    return InputResult::kLine;
}
