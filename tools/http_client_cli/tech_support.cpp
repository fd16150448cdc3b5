// Asks the daemon's support service, one request a connection, runs commands, and packs
// what is said with the files. It is wanted most when something is wrong: whatever can't be
// had, the daemon included, costs its own member alone. A file is somebody else's: it is
// read only when it is a plain one of a sensible size, and never through a symbolic link.
#include "tech_support.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "base/file.h"
#include "base/local_socket.h"
#include "base/unique_fd.h"
#include "base/working_dir.h"
#include "bundle.h"
#include "capture.h"
#include "host/tech_support_msg/protocol.h"

namespace {

constexpr int REPORTS = 2;
constexpr int ANSWER_LIMIT_S = 10;
constexpr size_t ANSWER_MAX_BYTES = 16777216;
constexpr size_t FILE_MAX_BYTES = 16777216;
constexpr int EXIT_INCOMPLETE = 1;
constexpr int EXIT_NO_BUNDLE = 2;
constexpr int STATUS_REFUSED = 1;
constexpr int STATUS_NO_PROGRAM = 127;

struct ReportCommand {
    const char* member;
    const char* line;
};
constexpr ReportCommand COMMANDS[] = {{"running-config.txt", "show running-config"},
                                      {"status.txt", "show http-update status"},
                                      {"history.txt", "show http-update history"},
                                      {"status.json", "show http-update json"}};

// Working files: those below the temporary prefix when the daemon can't say where its dump
// files are, and those below the data prefix, with what the daemon has kept aside.
constexpr const char* DUMP_FILES[] = {".http_reg_server_dump", ".http_reg_client_dump"};
constexpr const char* DATA_FILES[] = {"startup-config", "startup-config.unread", "history.json",
                                      "history.json.damaged"};

void print_error(const std::string& what, const char* reason) {
    (void)fprintf(stderr, "http_client_cli: %s: %s\n", what.c_str(), reason);
}

// What a command said, without the name of this program.
std::string_view first_line(std::string_view text) {
    constexpr std::string_view SELF = "http_client_cli: ";
    if (text.starts_with(SELF)) text.remove_prefix(SELF.size());
    return text.substr(0, text.find('\n'));
}

// Reads until the service closes. False: errno says why.
bool receive_all(int fd, std::string* answer) {
    for (;;) {
        pollfd waiting{fd, POLLIN, 0};
        const int ready = poll(&waiting, 1, ANSWER_LIMIT_S * 1000);
        if (ready < 0 && errno == EINTR) continue;
        if (ready == 0) errno = ETIMEDOUT;
        if (ready <= 0) return false;
        char bytes[16384];
        const ssize_t count = recv(fd, bytes, sizeof(bytes), 0);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return count == 0;
        if (answer->size() + static_cast<size_t>(count) > ANSWER_MAX_BYTES) {
            errno = EFBIG;
            return false;
        }
        answer->append(bytes, static_cast<size_t>(count));
    }
}

// Returns 0 or an errno value.
int ask(const std::string& request, std::string* answer) {
    UniqueFd connection;
    const int error =
        local_connect(tech_support_socket_path().c_str(), ANSWER_LIMIT_S, &connection);
    if (error != 0) return error;
    const ssize_t sent = send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL);
    if (sent < 0) return errno;
    if (sent < static_cast<ssize_t>(request.size())) return EAGAIN;
    return receive_all(connection.get(), answer) ? 0 : errno;
}

// "complete LENGTH", a line end and as many bytes. False: anything else.
bool take_report(std::string_view answer, std::string_view* report) {
    constexpr std::string_view HEAD = "complete ";
    const size_t line_end = answer.find('\n');
    if (!answer.starts_with(HEAD) || line_end == answer.npos) return false;
    size_t length = 0;
    const auto [stop, error] =
        std::from_chars(answer.data() + HEAD.size(), answer.data() + line_end, length);
    *report = answer.substr(line_end + 1);
    return error == std::errc() && stop == answer.data() + line_end && report->size() == length;
}

std::string_view file_name(std::string_view path) { return path.substr(path.rfind('/') + 1); }

// Why a file is not in the bundle.
std::string reason_of(int error) {
    return error == EFBIG ? "too large" : error == EINVAL ? "not a plain file" : strerror(error);
}

void add_file(Bundle* bundle, const std::string& path) {
    FileBytes file;
    const int error = file_read(path.c_str(), FILE_NO_LINK, FILE_MAX_BYTES, &file);
    if (error == 0) {
        bundle_add(bundle, file_name(path), file.View(), file.modified_s, path);
    } else if (error == ENOENT) {  // it need not exist
        bundle_none(bundle, file_name(path), path);
    } else {
        bundle_left_out(bundle, path, reason_of(error));
    }
}

void add_working_file(Bundle* bundle, const DirPrefix& prefix, const char* name) {
    char path[PATH_SIZE];
    working_path(dir_prefix_now(prefix), name, path);
    add_file(bundle, path);
}

// The daemon's two reports, and the dump files that it offers.
void add_support(Bundle* bundle) {
    for (int report = 0; report < REPORTS; ++report) {
        const std::string name = "report-" + std::to_string(report) + ".txt";
        std::string answer;
        std::string_view text;
        const int error = ask("report " + std::to_string(report) + "\n", &answer);
        if (error != 0) {
            bundle_left_out(bundle, name, reason_of(error));
        } else if (take_report(answer, &text)) {
            bundle_add(bundle, name, text, time(nullptr), "");
        } else {
            bundle_left_out(bundle, name, answer == "no report\n" ? "no such report" : "cut short");
        }
    }
    std::string paths;
    const int error = ask("files\n", &paths);
    if (error != 0) {
        bundle_left_out(bundle, "the list of dump files", reason_of(error));
        for (const char* name : DUMP_FILES) add_working_file(bundle, TMP_DIR, name);
    }
    for (size_t end = paths.find('\n'); end != paths.npos; end = paths.find('\n')) {
        if (end > 0) add_file(bundle, paths.substr(0, end));
        paths.erase(0, end + 1);
    }
}

// What a command of the daemon shows. A daemon of another release may not know it.
void add_command(Bundle* bundle, const ReportCommand& command, CommandRunner run) {
    const Captured shown = capture([&] { return run(command.line); });
    if (shown.status == EXIT_SUCCESS) {
        bundle_add(bundle, command.member, shown.output, time(nullptr), command.line);
    } else if (shown.status == STATUS_REFUSED) {
        bundle_none(bundle, command.member, first_line(shown.output));
    } else {
        bundle_left_out(bundle, command.member,
                        shown.hung ? "it does not end" : first_line(shown.output));
    }
}

// What the system's own programs say; their exit statuses are part of it.
void add_program(Bundle* bundle, const char* name, std::initializer_list<const char*> words) {
    const Captured said = capture_program(words);
    if (said.status == STATUS_NO_PROGRAM) {
        bundle_none(bundle, name, "no " + std::string(*words.begin()) + " here");
    } else if (said.hung) {
        bundle_left_out(bundle, name, std::string(*words.begin()) + " does not end");
    } else {
        bundle_add(bundle, name, said.output, time(nullptr),
                   "exit status " + std::to_string(said.status));
    }
}

void add_version(Bundle* bundle) {
    utsname system{};
    (void)uname(&system);  // fails for a bad address only
    const std::string text = std::string("http_client_cli " HTTP_CLIENT_VERSION "\n") +
                             system.sysname + " " + system.release + " " + system.machine + "\n";
    bundle_add(bundle, "version.txt", text, time(nullptr), "");
}

}  // namespace

int tech_support_write(const char* path, CommandRunner run) {
    Bundle bundle;
    if (!bundle_create(&bundle, path)) {
        print_error(path, strerror(errno));
        return EXIT_NO_BUNDLE;
    }
    add_version(&bundle);
    add_support(&bundle);
    for (const ReportCommand& command : COMMANDS) add_command(&bundle, command, run);
    for (const char* name : DATA_FILES) add_working_file(&bundle, DATA_DIR, name);
    add_program(&bundle, "unit.txt",
                {"systemctl", "status", "--no-pager", "--full", "--lines=0", "http_client"});
    add_program(&bundle, "journal.txt",
                {"journalctl", "--no-pager", "--lines=1000", "--unit=http_client"});
    if (!bundle_finish(&bundle)) {
        print_error(path, strerror(errno));
        return EXIT_NO_BUNDLE;
    }
    return bundle.complete ? EXIT_SUCCESS : EXIT_INCOMPLETE;
}
