// Reports for technical support on the host: a small text service on the
// daemon's loop (host/tech_support_msg/protocol.h).
//
// The loop never waits for a peer: sockets don't block, a request is gathered and
// a reply sent by tasks. A peer that stalls holds one of a few places until a
// newer connection needs it, so no timer has to run.
#include "frame/platform/tech_support_msg.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/local_socket.h"
#include "base/unique_fd.h"
#include "host/tech_support_msg/protocol.h"
#include "host/tq_thread/tq_thread_host.h"

namespace {

constexpr size_t FILES_MAX = 16;
constexpr long ACCEPT_PAUSE_S = 1;  // while descriptors or memory are short
constexpr std::string_view CUT_NOTICE = "\n(the report was cut here)\n";

struct Connection {
    UniqueFd fd;
    tq_thread* task;
    unsigned long number;  // the lowest is the oldest
    std::string request;
    std::string reply;
    size_t sent;
};

// The report that a callback is writing.
struct Report {
    bool open;
    bool complete;
    std::string text;
};

struct Service {
    tq_thread_master* master;
    tech_service_callback callback;
    UniqueFd listener;
    std::array<Connection, TECH_SUPPORT_CONNECTION_MAX> connections;
    unsigned long accepted;
    std::vector<std::string> files;
    Report report;
};

Service s_service{};

void connection_close(Connection* connection) {
    tq_thread_cancel(connection->task);
    *connection = Connection{};
}

std::string report_reply(int type) {
    s_service.report = {true, false, {}};
    (void)s_service.callback(type, nullptr);  // only a completion tells that there is a report
    const Report report = std::move(s_service.report);
    s_service.report = {};
    if (!report.complete) return "no report\n";
    return "complete " + std::to_string(report.text.size()) + "\n" + report.text;
}

std::string files_reply() {
    std::string reply;
    for (const std::string& path : s_service.files) reply += path + "\n";
    return reply;
}

// The reply to a request line without its line end; empty for an unknown one.
std::string reply_to(std::string_view request) {
    constexpr std::string_view REPORT = "report ";
    constexpr size_t DIGITS_MAX = 9;
    if (request == "files") return files_reply();
    if (!request.starts_with(REPORT)) return {};
    const std::string_view number = request.substr(REPORT.size());
    unsigned type = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), type);
    if (error != std::errc() || end != number.data() + number.size() ||
        number.size() > DIGITS_MAX) {
        return {};
    }
    return report_reply(static_cast<int>(type));
}

int connection_write(tq_thread* task) {
    auto* connection = static_cast<Connection*>(TQ_THREAD_ARG(task));
    connection->task = nullptr;
    const std::string_view rest = std::string_view(connection->reply).substr(connection->sent);
    const ssize_t sent = send(connection->fd.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
    if (sent >= 0) connection->sent += static_cast<size_t>(sent);
    const bool goes_on = sent >= 0 || errno == EAGAIN || errno == EINTR;
    if (goes_on && connection->sent < connection->reply.size()) {
        connection->task = tq_thread_add_write_withname(task->master, connection_write, connection,
                                                        connection->fd.get(), "t-support-write");
    }
    if (connection->task == nullptr) connection_close(connection);
    return 0;
}

void request_finish(Connection* connection) {
    connection->reply = reply_to({connection->request.data(), connection->request.find('\n')});
    if (!connection->reply.empty()) {
        connection->task =
            tq_thread_add_write_withname(s_service.master, connection_write, connection,
                                         connection->fd.get(), "t-support-write");
    }
    if (connection->task == nullptr) connection_close(connection);
}

int connection_read(tq_thread* task) {
    auto* connection = static_cast<Connection*>(TQ_THREAD_ARG(task));
    connection->task = nullptr;
    char buffer[TECH_SUPPORT_REQUEST_MAX];
    const ssize_t got =
        recv(connection->fd.get(), buffer, sizeof(buffer) - connection->request.size(), 0);
    if (got > 0) connection->request.append(buffer, static_cast<size_t>(got));
    if (connection->request.find('\n') != std::string::npos) {
        request_finish(connection);
        return 0;
    }
    const bool goes_on = got > 0 ? connection->request.size() < TECH_SUPPORT_REQUEST_MAX
                                 : got < 0 && (errno == EAGAIN || errno == EINTR);
    if (goes_on) {
        connection->task = tq_thread_add_read_withname(task->master, connection_read, connection,
                                                       connection->fd.get(), "t-support-read");
    }
    if (connection->task == nullptr) connection_close(connection);
    return 0;
}

void connection_open(UniqueFd fd) {
    const auto place = std::min_element(
        s_service.connections.begin(), s_service.connections.end(),
        [](const Connection& a, const Connection& b) { return a.number < b.number; });
    connection_close(&*place);  // a free place has number 0
    place->number = ++s_service.accepted;
    place->fd = std::move(fd);
    place->task = tq_thread_add_read_withname(s_service.master, connection_read, &*place,
                                              place->fd.get(), "t-support-read");
    if (place->task == nullptr) connection_close(&*place);
}

int listener_accept(tq_thread*);
int listener_pause(tq_thread*);

// False when the loop takes no task.
bool listener_arm() {
    return tq_thread_add_read_withname(s_service.master, listener_accept, nullptr,
                                       s_service.listener.get(), "t-support-listen") != nullptr;
}

bool pause_arm() {
    return tq_thread_add_timer_withname(s_service.master, listener_pause, nullptr, ACCEPT_PAUSE_S,
                                        "t-support-pause") != nullptr;
}

// The listener never gets lost: of the two tasks, the one that runs can always be added
// again (tq_thread.cpp).
int listener_pause(tq_thread*) { return listener_arm() || pause_arm() ? 0 : -1; }

int listener_accept(tq_thread*) {
    UniqueFd fd(accept4(s_service.listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    const bool is_short =
        !fd.valid() && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS);
    // The connection that could not be taken keeps the listener readable.
    const bool armed = (is_short && pause_arm()) || listener_arm();
    if (fd.valid()) connection_open(std::move(fd));
    return armed ? 0 : -1;
}

}  // namespace

// One service a process, under whatever name; a second one is refused.
int tech_reg_service_callback(const char* service, tq_thread_master* master,
                              tech_service_callback callback) {
    if (service == nullptr || master == nullptr || callback == nullptr) return -1;
    if (s_service.callback != nullptr) return -1;
    if (local_listen(tech_support_socket_path().c_str(), S_IRUSR | S_IWUSR,
                     static_cast<int>(TECH_SUPPORT_CONNECTION_MAX), &s_service.listener) != 0) {
        return -1;
    }
    s_service.master = master;
    if (!listener_arm()) {
        s_service.listener.reset();
        return -1;
    }
    s_service.callback = callback;
    return 0;
}

// A path with a line end in it would read as two.
int tech_module_reg_dump_file(const char* path) {
    if (path == nullptr || *path == '\0' || strchr(path, '\n') != nullptr) return -1;
    if (s_service.files.size() >= FILES_MAX) return -1;
    s_service.files.emplace_back(path);
    return 0;
}

void tech_module_msg_output(const char* format, ...) {
    Report* report = &s_service.report;
    if (!report->open) return;
    va_list args;
    va_start(args, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, args);
    va_end(args);
    if (length < 0) return;
    const size_t room = TECH_SUPPORT_REPORT_MAX - report->text.size();
    report->text.append(text, std::min(room, static_cast<size_t>(length)));
    free(text);
    if (static_cast<size_t>(length) > room) {
        report->text.replace(TECH_SUPPORT_REPORT_MAX - CUT_NOTICE.size(), CUT_NOTICE.size(),
                             CUT_NOTICE);
    }
}

void tech_module_msg_deal_completion() {
    if (s_service.report.open) s_service.report = {false, true, std::move(s_service.report.text)};
}
