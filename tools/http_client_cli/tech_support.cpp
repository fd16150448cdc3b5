// Asks the daemon's support service, one request a connection, and packs what it
// answers. A dump file is somebody else's: it is read only when it is a plain file
// of a sensible size, and never through a symbolic link.
#include "tech_support.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "base/file.h"
#include "base/local_socket.h"
#include "base/unique_fd.h"
#include "host/tech_support_msg/protocol.h"
#include "tar_gz.h"

namespace {

constexpr int REPORTS = 2;
constexpr int ANSWER_LIMIT_S = 10;
constexpr size_t ANSWER_MAX_BYTES = 16777216;
constexpr size_t DUMP_MAX_BYTES = 16777216;
constexpr size_t MEMBER_NAME_MAX = 100;
constexpr int EXIT_NO_BUNDLE = 2;

void print_error(const std::string& what, const char* reason) {
    (void)fprintf(stderr, "http_client_cli: %s: %s\n", what.c_str(), reason);
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

// False: no answer, said so.
bool ask(const std::string& request, std::string* answer) {
    const std::string path = tech_support_socket_path();
    UniqueFd connection;
    errno = local_connect(path.c_str(), ANSWER_LIMIT_S, &connection);
    if (errno == 0 &&
        send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(request.size()) &&
        receive_all(connection.get(), answer)) {
        return true;
    }
    print_error("no support service at " + path, strerror(errno));
    return false;
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

bool read_dump(const std::string& path, FileBytes* dump) {
    const int error = file_read(path.c_str(), FILE_NO_LINK, DUMP_MAX_BYTES, dump);
    if (error == EINVAL || error == EFBIG) {
        print_error(path, error == EFBIG ? "too large, left out" : "not a plain file, left out");
    } else if (error != 0 && error != ENOENT) {  // it need not exist
        print_error(path, strerror(error));
    }
    return error == 0;
}

// The file's own name without leading dots, so that an unpacked bundle shows it;
// a number in front when another file has that name.
std::string member_name(std::string_view path, std::vector<std::string>* taken) {
    std::string_view name = path.substr(path.rfind('/') + 1);
    while (name.starts_with('.')) name.remove_prefix(1);
    std::string unique(name.substr(0, MEMBER_NAME_MAX - 8));
    if (unique.empty() || std::ranges::find(*taken, unique) != taken->end()) {
        unique = std::to_string(taken->size()) + "-" + unique;
    }
    taken->push_back(unique);
    return unique;
}

void add_dumps(TarGz* tar, std::string_view paths) {
    std::vector<std::string> taken;
    for (size_t end = paths.find('\n'); end != paths.npos; end = paths.find('\n')) {
        const std::string path(paths.substr(0, end));
        paths.remove_prefix(end + 1);
        FileBytes dump;
        if (!path.empty() && read_dump(path, &dump)) {
            tar_gz_add(tar, member_name(path, &taken), dump.View(), dump.modified_s);
        }
    }
}

}  // namespace

int tech_support_write(const char* path) {
    std::string answers[REPORTS];
    std::string paths;
    for (int report = 0; report < REPORTS; ++report) {
        if (!ask("report " + std::to_string(report) + "\n", &answers[report])) {
            return EXIT_NO_BUNDLE;
        }
    }
    if (!ask("files\n", &paths)) return EXIT_NO_BUNDLE;

    TarGz tar{};
    if (!tar_gz_create(&tar, path)) {
        print_error(path, strerror(errno));
        return EXIT_NO_BUNDLE;
    }
    const long now_s = time(nullptr);
    for (int report = 0; report < REPORTS; ++report) {
        const std::string name = "report-" + std::to_string(report) + ".txt";
        std::string_view text;
        if (take_report(answers[report], &text)) {
            tar_gz_add(&tar, name, text, now_s);
        } else {
            print_error(
                name, answers[report] == "no report\n" ? "no such report" : "cut short, left out");
        }
    }
    add_dumps(&tar, paths);
    if (tar_gz_finish(&tar)) return EXIT_SUCCESS;
    print_error(path, strerror(errno));
    return EXIT_NO_BUNDLE;
}
