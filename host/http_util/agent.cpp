// The program between two downloads, and the messages that are not a download's business.

#include "host/http_util/agent.h"

#include <sys/socket.h>

#include <cstring>
#include <utility>

#include "base/clock.h"
#include "base/sync.h"
#include "base/text.h"
#include "host/http_util/launch.h"
#include "host/http_util/trace.h"

namespace {

// It ends at once, unless the disk holds it up.
constexpr int END_MS = 1000;

constexpr int64_t KNOWN_MS = 60000;

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

}  // namespace

bool Agent::Start() {
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return false;
    socket_.reset(pair[0]);
    const UniqueFd theirs(pair[1]);
    ready_ = false;
    known_ = {};
    const int error = program_launch(theirs.get(), idle_close, &program_);
    if (error == 0) return true;
    program_log("can't be started", strerror(error));
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
        program_log("can't be used", "it is of another version");
        return false;
    }
    if ((ready.not_confined & READY_UNFILTERED) != 0) {
        program_log("less confined", "no system-call filter in this kernel");
    }
    if ((ready.not_confined & READY_IS_ROOT) != 0) {
        program_log("less confined", "it can't change its user");
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
