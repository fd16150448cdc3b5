// The program is found from this library's own place, so that a build tree and an
// installed tree can be moved, and else where the installation put it.

#include "host/http_util/launch.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "base/text.h"
#include "base/unique_fd.h"
#include "frame/platform/syslog_new.h"
#include "host/http_util/protocol.h"

namespace {

constexpr const char* PROGRAM = "http_client_download";
constexpr size_t PATH_SIZE = 1024;

// Leaves standard input, output and error alone, and the program's socket.
constexpr int FIRST_FREE_FD = PROGRAM_SOCKET + 1;

struct Watch {
    pid_t process;
    ProgramEnded ended;
};

// Waits for the end of a program: so none is left dead, and the socket of one that ended
// when nobody needed it is not kept.
void* program_watch(void* argument) {
    const std::unique_ptr<Watch> watch(static_cast<Watch*>(argument));
    int status = 0;
    while (waitpid(watch->process, &status, 0) < 0 && errno == EINTR) {
    }
    if (status != 0) {
        char text[32] = "";
        size_t length = 0;
        const bool killed = WIFSIGNALED(status);
        (void)text_appendf(text, sizeof(text), &length, "%s %d", killed ? "signal" : "status",
                           killed ? WTERMSIG(status) : WEXITSTATUS(status));
        program_log("has ended", text);
    }
    watch->ended(watch->process);
    return nullptr;
}

// False when there is no thread for it; the program is then ended.
bool watch_start(pid_t process, ProgramEnded ended) {
    std::unique_ptr<Watch> argument(new (std::nothrow) Watch{process, ended});
    pthread_t thread{};
    if (argument && pthread_create(&thread, nullptr, program_watch, argument.get()) == 0) {
        (void)argument.release();
        (void)pthread_detach(thread);
        return true;
    }
    (void)kill(process, SIGKILL);
    (void)waitpid(process, nullptr, 0);
    return false;
}

// Path up to the last slash, with it; false when it has none or is too long.
bool directory_take(const char* path, char (&directory)[PATH_SIZE]) {
    const char* slash = path == nullptr ? nullptr : strrchr(path, '/');
    return slash != nullptr && text_copy(directory, {path, static_cast<size_t>(slash - path) + 1});
}

// Directory of this library as the loader knows it.
bool library_directory(char (&directory)[PATH_SIZE]) {
    Dl_info self{};
    return dladdr(&PROGRAM, &self) != 0 && directory_take(self.dli_fname, directory);
}

// Directory of the running program, which this library may be a part of.
bool executable_directory(char (&directory)[PATH_SIZE]) {
    char path[PATH_SIZE] = "";
    return readlink("/proc/self/exe", path, sizeof(path) - 1) > 0 &&
           directory_take(path, directory);
}

// Where the program lies, of the places where it may lie. False: nowhere.
bool program_find(char (&path)[2 * PATH_SIZE]) {
    char library[PATH_SIZE] = "";
    char executable[PATH_SIZE] = "";
    const bool has_library = library_directory(library);
    const bool has_executable = executable_directory(executable);
    const struct {
        bool known;
        const char* directory;
        const char* way;
    } places[] = {
        {has_library, library, HTTP_UTIL_PROGRAM_FROM_LIBRARY},
        {has_library, library, "../libexec/http_client/"},
        {has_executable, executable, "../libexec/http_client/"},
        {true, "", HTTP_UTIL_PROGRAM_INSTALLED},
    };
    return std::any_of(std::begin(places), std::end(places), [&](const auto& place) {
        size_t length = 0;
        return place.known &&
               text_appendf(path, sizeof(path), &length, "%s%s%s", place.directory, place.way,
                            PROGRAM) &&
               access(path, X_OK) == 0;
    });
}

class SpawnActions {
  public:
    // The program gets its socket, the standard error for the loader's last words, and
    // nothing else that this process has open.
    explicit SpawnActions(int socket) {
        (void)posix_spawn_file_actions_init(&actions_);  // never fails here
        complete_ = posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDWR,
                                                     0) == 0 &&
                    posix_spawn_file_actions_adddup2(&actions_, STDIN_FILENO, STDOUT_FILENO) == 0 &&
                    posix_spawn_file_actions_adddup2(&actions_, socket, PROGRAM_SOCKET) == 0 &&
                    posix_spawn_file_actions_addclosefrom_np(&actions_, FIRST_FREE_FD) == 0;
    }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    ~SpawnActions() { (void)posix_spawn_file_actions_destroy(&actions_); }

    [[nodiscard]] bool complete() const { return complete_; }
    [[nodiscard]] const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
    bool complete_ = false;
};

// Runs the program with that socket; 0 or errno.
int program_spawn(int socket, pid_t* process) {
    const SpawnActions actions(socket);
    if (!actions.complete()) return ENOMEM;
    char path[2 * PATH_SIZE] = "";
    if (!program_find(path)) return ENOENT;
    char* const arguments[] = {path, nullptr};
    // No proxy, no library path, no locale: the program depends on nothing of ours.
    char* const environment[] = {nullptr};
    return posix_spawn(process, path, actions.get(), nullptr, arguments, environment);
}

}  // namespace

void program_log(const char* what, const char* why) {
    (void)printk_syslog_ext(3, "HTTPC", "ERROR", 2, "download program: %s: %s\n", what, why);
}

int program_launch(int socket, ProgramEnded ended, pid_t* process) {
    const UniqueFd theirs(fcntl(socket, F_DUPFD_CLOEXEC, FIRST_FREE_FD));
    const int error = theirs.valid() ? program_spawn(theirs.get(), process) : errno;
    if (error != 0) return error;
    return watch_start(*process, ended) ? 0 : EAGAIN;
}
