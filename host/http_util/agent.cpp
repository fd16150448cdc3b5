// Start of the download program and the messages that are not a download's business.
// The program is found from this library's own place, so that a build tree and an
// installed tree can be moved, and else where the installation put it.

#include "host/http_util/agent.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

#include "base/clock.h"
#include "base/sync.h"
#include "base/text.h"
#include "frame/platform/syslog_new.h"
#include "host/http_util/trace.h"

namespace {

constexpr const char* PROGRAM = "http_client_download";
constexpr size_t PATH_SIZE = 1024;

// It ends at once, unless the disk holds it up.
constexpr int END_MS = 1000;

constexpr int64_t KNOWN_MS = 60000;

// Leaves standard input, output and error alone, and the program's socket.
constexpr int FIRST_FREE_FD = PROGRAM_SOCKET + 1;

// A program without a download; socket is -1 when there is none.
struct IdleProgram {
    int socket = -1;
    pid_t process = 0;
    KnownServer known;
};

Mutex s_lock;
IdleProgram s_idle GUARDED_BY(s_lock);

IdleProgram idle_exchange(IdleProgram other) {
    const MutexLock guard(s_lock);
    return std::exchange(s_idle, other);
}

// Closes the socket of this program, if it is the idle one.
void idle_close(pid_t process) {
    const MutexLock guard(s_lock);
    if (s_idle.socket < 0 || s_idle.process != process) return;
    const UniqueFd closed(std::exchange(s_idle, IdleProgram()).socket);
}

void log_error(const char* what, const char* why) {
    (void)printk_syslog_ext(3, "HTTPC", "ERROR", 2, "download program: %s: %s\n", what, why);
}

// Waits for the end of a program: so none is left dead, and the socket of one that ended
// when nobody needed it is not kept.
void* program_watch(void* argument) {
    const std::unique_ptr<pid_t> owned(static_cast<pid_t*>(argument));
    const pid_t process = *owned;
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    if (status != 0) {
        char text[32] = "";
        size_t length = 0;
        const bool killed = WIFSIGNALED(status);
        (void)text_appendf(text, sizeof(text), &length, "%s %d", killed ? "signal" : "status",
                           killed ? WTERMSIG(status) : WEXITSTATUS(status));
        log_error("has ended", text);
    }
    idle_close(process);
    return nullptr;
}

// False when there is no thread for it; the program is then ended.
bool watch_start(pid_t process) {
    std::unique_ptr<pid_t> argument(new (std::nothrow) pid_t(process));
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

bool Agent::Start() {
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return false;
    socket_.reset(pair[0]);
    const UniqueFd low(pair[1]);
    const UniqueFd theirs(fcntl(low.get(), F_DUPFD_CLOEXEC, FIRST_FREE_FD));
    ready_ = false;
    known_ = {};
    const int error = theirs.valid() ? program_spawn(theirs.get(), &program_) : errno;
    if (error == 0 && watch_start(program_)) return true;
    log_error("can't be started", strerror(error != 0 ? error : EAGAIN));
    socket_.reset();
    return false;
}

bool Agent::Begin(const TargetMessage& target) {
    was_idle_ = false;
    if (socket_.valid()) return Send(target);
    const IdleProgram idle = idle_exchange({});
    socket_.reset(idle.socket);
    program_ = idle.process;
    known_ = idle.known;
    was_idle_ = ready_ = socket_.valid();
    if (was_idle_ && Send(target)) return true;
    was_idle_ = false;
    return Start() && Send(target);
}

bool Agent::Accept(const ReadyMessage& ready) const {
    if (ready.version != PROTOCOL_VERSION) {
        log_error("can't be used", "it is of another version");
        return false;
    }
    if ((ready.not_confined & READY_UNFILTERED) != 0) {
        log_error("less confined", "no system-call filter in this kernel");
    }
    if ((ready.not_confined & READY_IS_ROOT) != 0) {
        log_error("less confined", "it can't change its user");
    }
    return true;
}

Received Agent::Receive(AnyMessage* message, int wait_ms) {
    for (;;) {
        const Received received = message_receive(socket_.get(), message, wait_ms);
        if (received == Received::Nothing) return received;
        if (received == Received::Gone) return received;
        if (message->type == MessageType::Ready && !ready_) {
            ready_ = Accept(message->ready);
            if (!ready_) return Received::Gone;
        } else if (message->type == MessageType::Trace) {
            trace(debug_, "%s", message->trace.text);
        } else {
            return received;
        }
    }
}

uint32_t Agent::AddressOf(const char* url, uint32_t source) const {
    const bool known = known_.authority[0] != '\0' && known_.source == source &&
                       monotonic_ms() - known_.at_ms < KNOWN_MS &&
                       strncmp(url, known_.authority, strlen(known_.authority)) == 0;
    return known ? known_.address : 0;
}

void Agent::Remember(const char* url, uint32_t source, uint32_t address) {
    if (AddressOf(url, source) == address) return;
    known_ = {};
    // With its first slash behind a host nobody can read more into it.
    const char* host = strstr(url, "://");
    const char* path = host == nullptr ? nullptr : strchr(host + 3, '/');
    if (path == nullptr || path == host + 3) return;
    if (!text_copy(known_.authority, {url, static_cast<size_t>(path - url) + 1})) {
        known_.authority[0] = '\0';
    }
    known_.source = source;
    known_.address = address;
    known_.at_ms = monotonic_ms();
}

void Agent::Leave() {
    if (!socket_.valid()) return;
    const UniqueFd other(idle_exchange({socket_.release(), program_, known_}).socket);
}

void Agent::End() {
    if (!socket_.valid()) return;
    (void)shutdown(socket_.get(), SHUT_WR);
    // What it had to say is not heard any more, only that it is gone.
    AnyMessage message;
    const Deadline deadline(END_MS);
    while (deadline.LeftMs() > 0 &&
           message_receive(socket_.get(), &message, deadline.LeftMs()) != Received::Gone) {
    }
    socket_.reset();
}
