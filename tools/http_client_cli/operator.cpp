// "help" and "quit" are the program's only where the daemon completes no such word, so that
// no command of a device is ever out of reach.
#include "operator.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>

#include "pager.h"

namespace {

constexpr int LOOK_AGAIN_MS = 500;  // for a daemon that starts
constexpr std::string_view BLANKS = " \t\r\n\v\f";

constexpr char HELP[] =
    "  ?                     What may follow, at any place of a line\n"
    "  Tab                   Completes a word\n"
    "  Up, Down              Earlier lines\n"
    "  Ctrl+C                Stops a command that runs, clears the line\n"
    "  COMMAND | include TEXT, | exclude TEXT, | begin TEXT\n"
    "                        Shows a part of what the command says\n"
    "  help [COMMAND]        This text, or what may follow a command\n"
    "  quit                  Leaves, as Ctrl+D does\n"
    "\n";

bool is_comment(std::string_view line) {
    const size_t first = line.find_first_not_of(BLANKS);
    return first == line.npos || line[first] == '!' || line[first] == '#';
}

// Where no daemon's command is hidden by it.
bool is_own_word(Connection* connection, std::string_view word, std::string_view own) {
    std::string completions;
    return word == own &&
           connection_ask(connection, client_new::FRAME_COMPLETE, own, &completions) &&
           completions.empty();
}

Outcome show_help(Connection* connection, std::string_view command) {
    std::string text = command.empty() ? HELP : "";
    std::string following;
    const std::string line = command.empty() ? "" : std::string(command) + " ";
    if (!connection_ask(connection, client_new::FRAME_HELP, line, &following)) {
        return Outcome::kLost;
    }
    return pager_show(connection, text + following) ? Outcome::kEnded : Outcome::kQuit;
}

// True: the line was the program's own.
bool run_own(Connection* connection, std::string_view line, Outcome* outcome) {
    const size_t first = line.find_first_not_of(BLANKS);
    line = line.substr(first, line.find_last_not_of(BLANKS) + 1 - first);
    const std::string_view word = line.substr(0, line.find_first_of(BLANKS));
    std::string_view rest = line.substr(word.size());
    rest.remove_prefix(std::min(rest.find_first_not_of(BLANKS), rest.size()));
    *outcome = Outcome::kEnded;
    connection->status = client_new::END_ACCEPTED;
    connection->interrupted = false;
    if (rest.empty() && is_own_word(connection, word, "quit")) {
        connection->left = true;
        return true;
    }
    if (!is_own_word(connection, word, "help")) return false;
    *outcome = show_help(connection, rest);
    return true;
}

enum class Wait { kAgain, kLeave };

// Ctrl+C and Ctrl+D leave; what else is typed is for nobody.
Wait wait_a_moment(Connection* connection) {
    pollfd waiting[] = {{connection->signals.get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    if (poll(waiting, 2, LOOK_AGAIN_MS) <= 0) return Wait::kAgain;
    char typed[256];
    if (waiting[1].revents != 0 && read(STDIN_FILENO, typed, sizeof(typed)) <= 0) {
        return Wait::kLeave;
    }
    return waiting[0].revents != 0 && connection_asked_to_end(connection) ? Wait::kLeave
                                                                          : Wait::kAgain;
}

}  // namespace

Outcome operator_run(Connection* connection, std::string_view line) {
    Display* display = &connection->display;
    Outcome outcome{};
    FilteredCommand parts;
    if (is_comment(line)) {
        parts.command = line;
    } else if (display->person && run_own(connection, line, &outcome)) {
        return outcome;
    } else {
        parts = filter_split(line);
    }
    if (!parts.refusal.empty()) {
        (void)fputs(parts.refusal.c_str(), stderr);
        connection->status = client_new::END_REFUSED;
        return Outcome::kEnded;
    }
    display_begin(display, std::move(parts.filters), display->person && connection->serves_person);
    outcome = connection_run(connection, parts.command);
    display_end(display);
    const std::string held = std::exchange(display->held, "");
    display->holds = false;
    if (outcome == Outcome::kLost || outcome == Outcome::kQuit) {
        display_write(display, held);
    } else if (!pager_show(connection, held)) {
        outcome = connection->lost.empty() ? Outcome::kQuit : Outcome::kLost;
    }
    return outcome;
}

void operator_leave(Connection* connection) {
    std::string lines;
    if (!connection->lost.empty() || !connection->serves_person ||
        !connection_ask(connection, client_new::FRAME_UNSAVED, "", &lines) || lines.empty()) {
        return;
    }
    display_write(&connection->display, "Not saved (\"write\" saves it):\n" + lines);
}

bool operator_reconnect(Connection* connection) {
    (void)fprintf(stderr, "http_client_cli: %s\n", connection->lost.c_str());
    if (connection->dismissed) return false;
    (void)fputs("Waiting for the daemon (Ctrl+C leaves)...\n", stderr);
    for (;;) {
        switch (connection_open_again(connection)) {
            case Outcome::kEnded:
                (void)fputs("http_client_cli: connected again, in exec mode\n", stderr);
                return true;
            case Outcome::kQuit:
                return false;
            case Outcome::kLost:
                break;
        }
        if (wait_a_moment(connection) == Wait::kLeave) return false;
    }
}
