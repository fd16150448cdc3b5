// What the library says to the download program: records, each sent when the one before it
// has been answered; then, behind an empty line, what servers answer.
#include <curl/curl.h>
#include <sys/mman.h>

#include "host/http_util/program/session.h"
#include "tests/fuzz/records.h"
#include "tests/fuzz/server.h"

static UniqueFd s_library;
static UniqueFd s_file;
static std::string_view s_lines;

// No certificates: reading them takes a hundred times as long as all the rest.
extern "C" curl_version_info_data* curl_version_info(CURLversion) {
    static curl_version_info_data s_nothing{};
    return &s_nothing;
}

static void Prepare() {
    s_file.reset(memfd_create("body", 0));
    Require(session_prepare());
}

static void NextRecord() {
    char heard[sizeof(AnyMessage)];
    while (recv(s_library.get(), heard, sizeof(heard), MSG_DONTWAIT) > 0) {
    }
    size_t size = 0;
    do {
        if (s_lines.empty()) {
            (void)shutdown(s_library.get(), SHUT_WR);
            return;
        }
        size = RecordSend(s_library.get(), Take(&s_lines, "\n"), s_file.get());
    } while (size <= sizeof(DropMessage));  // has no answer
}

extern "C" ssize_t sendmsg(int fd, const msghdr* packet, int flags) {
    const ssize_t sent = syscall(SYS_sendmsg, fd, packet, flags);
    const auto type = *static_cast<const MessageType*>(packet->msg_iov->iov_base);
    if (fd != s_library.get() && type != MessageType::Trace) NextRecord();
    return sent;
}

static void Try(std::string_view input) {
    s_lines = Take(&input, "\n\n");
    s_answers = input;
    Require(ftruncate(s_file.get(), 0) == 0 && pwrite(s_file.get(), "0123456789", 10, 0) == 10);
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0);
    s_library.reset(ends[0]);
    const UniqueFd program(ends[1]);
    session_run(program.get(), ReadyMessage());
    s_server.reset();
}
