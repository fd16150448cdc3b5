// The child is no session leader and gets no standard input, so that nothing it runs asks
// the operator or starts a pager.
#include "capture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <vector>

#include "base/clock.h"
#include "base/unique_fd.h"

namespace {

constexpr size_t OUTPUT_MAX_BYTES = 1048576;
constexpr int64_t LIMIT_MS = 20000;  // longer than this program waits for the daemon
constexpr int STATUS_NO_PROGRAM = 127;
constexpr int STATUS_BY_SIGNAL = 128;
constexpr const char* CUT_NOTICE = "\n(cut here)\n";

[[noreturn]] void run_child(const UniqueFd& output, const std::function<int()>& body) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    const UniqueFd nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    (void)dup2(nothing.get(), STDIN_FILENO);
    (void)dup2(output.get(), STDOUT_FILENO);
    (void)dup2(output.get(), STDERR_FILENO);
    _exit(body());
}

// Until the end of the output. False: there is more, but its time or room is used up.
bool read_output(int fd, Captured* captured) {
    const Deadline deadline(LIMIT_MS);
    char bytes[16384];
    for (;;) {
        pollfd waiting{fd, POLLIN, 0};
        const int ready = poll(&waiting, 1, deadline.LeftMs());
        if (ready < 0 && errno == EINTR) continue;
        captured->hung = ready == 0;
        if (ready <= 0) return false;
        const ssize_t count = read(fd, bytes, sizeof(bytes));
        if (count <= 0) return true;
        captured->output.append(bytes, static_cast<size_t>(count));
        if (captured->output.size() <= OUTPUT_MAX_BYTES) continue;
        captured->output.resize(OUTPUT_MAX_BYTES);
        captured->output += CUT_NOTICE;
        return false;
    }
}

}  // namespace

Captured capture(const std::function<int()>& body) {
    Captured captured{"", STATUS_NO_PROGRAM, false};
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return captured;
    const UniqueFd from(ends[0]);
    UniqueFd to(ends[1]);
    const pid_t child = fork();
    if (child == 0) run_child(to, body);
    to.reset();
    if (child < 0) return captured;
    if (!read_output(from.get(), &captured)) (void)kill(child, SIGKILL);
    int ended = 0;
    while (waitpid(child, &ended, 0) < 0 && errno == EINTR) continue;
    captured.status = WIFEXITED(ended) ? WEXITSTATUS(ended) : STATUS_BY_SIGNAL + WTERMSIG(ended);
    return captured;
}

Captured capture_program(std::initializer_list<const char*> words) {
    return capture([&] {
        std::vector<char*> arguments;
        for (const char* word : words) arguments.push_back(const_cast<char*>(word));
        arguments.push_back(nullptr);
        (void)execvp(arguments[0], arguments.data());
        return STATUS_NO_PROGRAM;
    });
}
