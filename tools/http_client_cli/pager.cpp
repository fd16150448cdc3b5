// An own pager, because a device has at best that of BusyBox, which wants keys of its own and
// would take the terminal, and Ctrl+C, from the session.
#include "pager.h"

#include <termios.h>
#include <unistd.h>

#include "window.h"

namespace {

constexpr std::string_view PROMPT = "--More-- (space: page, Enter: line, q: quit)";

// Keys come one by one and unseen while this lives.
class SingleKeys {
  public:
    SingleKeys() : known_(tcgetattr(STDIN_FILENO, &before_) == 0) { Set(); }
    ~SingleKeys() {
        if (known_) (void)tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
    }
    SingleKeys(const SingleKeys&) = delete;
    SingleKeys& operator=(const SingleKeys&) = delete;

    void Set() const {
        termios keys = before_;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VMIN] = 1;
        keys.c_cc[VTIME] = 0;
        if (known_) (void)tcsetattr(STDIN_FILENO, TCSADRAIN, &keys);
    }

  private:
    termios before_{};
    const bool known_;
};

enum class Answer { kPage, kLine, kNoMore, kEnd };

// A closed terminal is no answer either.
Answer read_answer(char* key) {
    if (read(STDIN_FILENO, key, 1) != 1) return Answer::kEnd;
    return *key == ' ' || *key == 'f'                    ? Answer::kPage
           : *key == '\n' || *key == '\r' || *key == 'j' ? Answer::kLine
                                                         : Answer::kNoMore;
}

Answer wait_for_answer(Connection* connection, const SingleKeys& keys) {
    for (;;) {
        client_new::Frame frame{};
        switch (connection_wait(connection, true, &frame)) {
            case Event::kInput: {
                char key = 0;
                const Answer answer = read_answer(&key);
                const bool quit = key == 'q' || key == 'Q' || key == 4;
                if (quit || answer != Answer::kNoMore) return answer;
                break;
            }
            case Event::kInterrupt:
                return Answer::kNoMore;
            case Event::kQuit:
            case Event::kLost:
                return Answer::kEnd;
            case Event::kContinue:
                keys.Set();
                break;
            case Event::kFrame:
            case Event::kResize:
                break;
        }
    }
}

// Writes lines off the front of the text until the rows are full.
void write_rows(Connection* connection, std::string_view* text, size_t rows) {
    const Window window = window_now();
    size_t length = 0;
    size_t used = 0;
    while (length < text->size()) {
        const size_t end = std::min(text->find('\n', length), text->size() - 1) + 1;
        used += text_rows(text->substr(length, end - length - 1), window);
        if (used > rows && length > 0) break;
        length = end;
    }
    display_write(&connection->display, text->substr(0, length));
    text->remove_prefix(length);
}

}  // namespace

bool pager_show(Connection* connection, std::string_view text) {
    // A row is the prompt's.
    write_rows(connection, &text, window_now().rows - 1);
    if (text.empty()) return true;
    const SingleKeys keys;
    const std::string blank = "\r" + std::string(PROMPT.size(), ' ') + "\r";
    for (;;) {
        display_write(&connection->display, PROMPT);
        const Answer answer = wait_for_answer(connection, keys);
        display_write(&connection->display, blank);
        if (answer == Answer::kEnd) return false;
        if (answer == Answer::kNoMore) return true;
        write_rows(connection, &text, answer == Answer::kLine ? 1 : window_now().rows - 1);
        if (text.empty()) return true;
    }
}
