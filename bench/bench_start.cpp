// Start-up of a program, for bench/run, printed as one line of JSON.
// bench_start PROGRAM: until it has ended. bench_start PROGRAM SOCKET: until the
// daemon's registration socket accepts, and until it has answered a registration;
// the daemon is then killed.

#include <poll.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include "base/clock.h"
#include "base/local_socket.h"
#include "base/unique_fd.h"
#include "host/http_update/http_update_app.h"

namespace {

constexpr int GIVE_UP_MS = 10000;

double now_ms() { return static_cast<double>(monotonic_ns()) * 1e-6; }

// Sleeps until the socket's file is made, so as to leave the processors to the
// daemon, and then tries until it accepts. The file of an earlier run must be gone.
bool wait_until_accepts(const UniqueFd& watch, const char* path) {
    for (;;) {
        UniqueFd connection;
        const int error = local_connect(path, 0, &connection);
        if (error == 0) return true;
        if (error != ENOENT) continue;
        pollfd made{watch.get(), POLLIN, 0};
        if (poll(&made, 1, GIVE_UP_MS) <= 0) return false;
        char events[4096];
        (void)!read(watch.get(), events, sizeof(events));
    }
}

bool registration_answered(const char* path) {
    http_app* app = http_app_open(path);
    const http_app_info info = {"bench", "1.0", "/tmp/", HTTP_APP_MANUAL};
    const bool answered = app != nullptr && http_app_register(app, &info) == 0;
    http_app_close(app);
    return answered;
}

bool daemon_measure(const UniqueFd& watch, const char* path, double begin_ms) {
    if (!wait_until_accepts(watch, path)) return false;
    const double accepts_ms = now_ms() - begin_ms;
    const bool answered = registration_answered(path);
    printf("{\"accepts_ms\": %.3f, \"answers_ms\": %.3f}\n", accepts_ms, now_ms() - begin_ms);
    return answered;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        fprintf(stderr, "usage: bench_start PROGRAM [SOCKET]\n");
        return 2;
    }
    const UniqueFd watch(inotify_init1(IN_CLOEXEC));
    if (argc == 3) {
        (void)unlink(argv[2]);
        const std::string path = argv[2];
        const std::string directory = path.substr(0, path.rfind('/'));
        if (inotify_add_watch(watch.get(), directory.c_str(), IN_CREATE) < 0) return 1;
    }
    char* const arguments[] = {argv[1], nullptr};
    pid_t child = -1;
    const double begin_ms = now_ms();
    if (posix_spawn(&child, argv[1], nullptr, nullptr, arguments, environ) != 0) return 1;
    bool measured = true;
    if (argc == 3) {
        measured = daemon_measure(watch, argv[2], begin_ms);
        (void)kill(child, SIGKILL);
    }
    int status = 0;
    (void)waitpid(child, &status, 0);
    if (argc == 2) printf("{\"ends_ms\": %.3f}\n", now_ms() - begin_ms);
    return measured && (argc == 3 || status == 0) ? 0 : 1;
}
