// The operator's terminal of the daemon http_client: commands from the command
// line, from standard input or typed.
#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "connection.h"
#include "input.h"
#include "json_document.h"
#include "operator.h"
#include "tech_support.h"
#include "time_limit.h"

namespace {

constexpr int EXIT_REFUSED = 1;
constexpr int EXIT_TROUBLE = 2;
constexpr int EXIT_BY_SIGINT = 130;

constexpr char USAGE[] =
    "Usage: http_client_cli [--second-list] [--timeout S] [-c COMMAND]...\n"
    "       http_client_cli [--timeout S] --json\n"
    "       http_client_cli [--timeout S] --tech-support FILE.tar.gz\n"
    "\n"
    "Runs commands in the daemon http_client: those given with -c, else those typed\n"
    "at the terminal, else those on standard input, one a line. At the terminal \"?\"\n"
    "shows what may follow, Tab completes a word, Ctrl+C stops a running command\n"
    "and Ctrl+D leaves.\n"
    "\n"
    "  -c, --command COMMAND   run COMMAND; all commands run in one session\n"
    "      --json              print all that the reports tell as one JSON document\n"
    "      --second-list       commands use the second list of update servers\n"
    "      --timeout S         end after S seconds, with exit status 2\n"
    "      --tech-support FILE write reports, files and logs for support into FILE\n"
    "  -h, --help              show this text\n"
    "      --version           show the version\n"
    "\n"
    "Exit status: 0 done, 1 refused, 2 no daemon, bad usage or lost output, 3 failed,\n"
    "4 another run is going on, 5 nobody registered; the first that is not 0 counts.\n";

struct Options {
    std::vector<const char*> commands;
    const char* tech_support = nullptr;
    bool second_list = false;
    bool json = false;
};

enum { OPTION_SECOND_LIST = 256, OPTION_JSON, OPTION_TECH_SUPPORT, OPTION_TIMEOUT, OPTION_VERSION };
constexpr unsigned TIMEOUT_MAX_S = 999999;

constexpr option LONG_OPTIONS[] = {
    {"command", required_argument, nullptr, 'c'},
    {"json", no_argument, nullptr, OPTION_JSON},
    {"second-list", no_argument, nullptr, OPTION_SECOND_LIST},
    {"tech-support", required_argument, nullptr, OPTION_TECH_SUPPORT},
    {"timeout", required_argument, nullptr, OPTION_TIMEOUT},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, OPTION_VERSION},
    {nullptr, 0, nullptr, 0}};

[[noreturn]] void bad_usage() {
    (void)fputs(USAGE, stderr);
    exit(EXIT_TROUBLE);
}

void limit_time(std::string_view text) {
    unsigned seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    if (!whole || seconds == 0 || seconds > TIMEOUT_MAX_S) bad_usage();
    time_limit_start(seconds, EXIT_TROUBLE);
}

// The document and the bundle have no session that the rest could be for.
bool fit_together(const Options& options) {
    const bool session = options.second_list || !options.commands.empty();
    return (session ? 1 : 0) + (options.json ? 1 : 0) + (options.tech_support != nullptr ? 1 : 0) <=
           1;
}

Options parse_options(int argc, char** argv) {
    Options options;
    for (;;) {
        switch (getopt_long(argc, argv, "c:h", LONG_OPTIONS, nullptr)) {
            case 'c':
                options.commands.push_back(optarg);
                break;
            case OPTION_JSON:
                options.json = true;
                break;
            case OPTION_SECOND_LIST:
                options.second_list = true;
                break;
            case OPTION_TECH_SUPPORT:
                options.tech_support = optarg;
                break;
            case OPTION_TIMEOUT:
                limit_time(optarg);
                break;
            case 'h':
                (void)fputs(USAGE, stdout);
                exit(EXIT_SUCCESS);
            case OPTION_VERSION:
                (void)puts("http_client_cli " HTTP_CLIENT_VERSION);
                exit(EXIT_SUCCESS);
            case -1:
                if (optind < argc) bad_usage();
                if (!fit_together(options)) bad_usage();
                return options;
            default:
                bad_usage();
        }
    }
}

// Exit status that a command asks for.
int status_of(const Connection& connection, Outcome outcome) {
    switch (outcome) {
        case Outcome::kEnded:
            return connection.status;
        case Outcome::kQuit:
            return EXIT_REFUSED;  // it was not seen to end well
        case Outcome::kLost:
            break;
    }
    return EXIT_TROUBLE;
}

// Runs one of several commands. The first that does not end well decides the exit status.
// False: that was the last one.
bool run_command(Connection* connection, std::string_view command, bool terminal, int* status) {
    const Outcome outcome = operator_run(connection, command);
    if (*status == EXIT_SUCCESS) *status = status_of(*connection, outcome);
    // Who stops a command of a script means all of them.
    if (connection->interrupted && !terminal) *status = EXIT_BY_SIGINT;
    return outcome == Outcome::kEnded && !connection->left && *status != EXIT_BY_SIGINT;
}

int run_commands(Connection* connection, const std::vector<const char*>& commands) {
    int status = EXIT_SUCCESS;
    for (const char* command : commands) {
        if (!run_command(connection, command, false, &status)) break;
    }
    return status;
}

// A person's session has ended by a command, or was lost: says what there is to say. True:
// there is a new one.
bool goes_on(Connection* connection) {
    if (connection->left) operator_leave(connection);
    if (connection->lost.empty()) return false;
    const bool reconnected = operator_reconnect(connection);
    connection->lost.clear();  // told
    return reconnected;
}

int run_input(Connection* connection, bool terminal) {
    int status = EXIT_SUCCESS;
    for (;;) {
        const char* prompt = !terminal ? ""
                             : connection->mode == client_new::Mode::kExec
                                 ? "http_client> "
                                 : "http_client(config)# ";
        std::string line;
        const InputResult result = terminal ? edit_read_line(connection, prompt, &line)
                                            : plain_read_line(connection, prompt, &line);
        switch (result) {
            case InputResult::kLine:
                connection->display.typed = prompt + line;
                connection->display.typed_prompt = std::string_view(prompt).size();
                if (!run_command(connection, line, terminal, &status) &&
                    !(terminal && goes_on(connection))) {
                    return status;
                }
                break;
            case InputResult::kInterrupted:
                if (!terminal) return EXIT_BY_SIGINT;
                break;
            case InputResult::kEnd:
                if (terminal) operator_leave(connection);
                return status;
            case InputResult::kQuit:
                return status;
            case InputResult::kLost:
                if (!terminal || !goes_on(connection)) return EXIT_TROUBLE;
                break;
        }
    }
}

int run_session(Connection* connection, const Options& options) {
    const bool typed =
        options.commands.empty() && isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
    connection->display.person = typed;
    if (!connection_open(connection, options.second_list)) return EXIT_TROUBLE;
    if (!options.commands.empty()) return run_commands(connection, options.commands);
    const int status = run_input(connection, typed);
    edit_close();
    return status;
}

// The shell that waits has to see the signal itself: after a status of its own it would
// take Ctrl+C for handled, and go on with its script.
void end_by_sigint() {
    sigset_t set;
    (void)sigemptyset(&set);
    (void)sigaddset(&set, SIGINT);
    (void)signal(SIGINT, SIG_DFL);
    (void)raise(SIGINT);
    (void)sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

// Returns the exit status.
int run_program(const Options& options) {
    Connection connection;
    const int status = run_session(&connection, options);
    if (!connection.lost.empty()) {
        (void)fprintf(stderr, "http_client_cli: %s\n", connection.lost.c_str());
    }
    return connection.display.output_lost ? EXIT_TROUBLE : status;
}

int run_one(const char* command) {
    Options options;
    options.commands = {command};
    return run_program(options);
}

}  // namespace

int main(int argc, char** argv) {
    (void)setlocale(LC_CTYPE, "");
    const Options options = parse_options(argc, argv);
    if (options.tech_support != nullptr) return tech_support_write(options.tech_support, run_one);
    if (options.json) return json_document_print(run_one);
    const int status = run_program(options);
    if (status == EXIT_BY_SIGINT) end_by_sigint();
    return status;
}
