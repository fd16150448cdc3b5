// Both sides of the download program's socket, and what servers answer it.
#include <curl/curl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "base/text.h"
#include "frame/platform/dnsclient.h"
#include "host/http_util/download.h"
#include "host/http_util/judge.h"
#include "host/http_util/launch.h"
#include "host/http_util/program/response.h"
#include "host/http_util/program/session.h"
#include "tests/fuzz/fuzz.h"

static std::string_view s_lines;    // records of the other side, still to come
static std::string_view s_answers;  // of servers: one a connection, "\n~\n" between them
static std::string_view s_mark;     // of the file that is there
static UniqueFd s_library;
static UniqueFd s_program;
static UniqueFd s_server;
static UniqueFd s_file;

// Sends the record of a line: the letter of its type, then, after a "|" each, its fields,
// which are zero else: offset=text, offset:number of 4 bytes, offset#number of 8. Another
// letter makes as many zero bytes as the line has. Returns the size.
static size_t RecordSend(const UniqueFd& socket, std::string_view line) {
    constexpr size_t SIZES[] = {
        sizeof(TargetMessage), sizeof(GetMessage),   sizeof(BodyMessage), sizeof(DropMessage),
        sizeof(ReadyMessage),  sizeof(PlaceMessage), sizeof(HeadMessage), sizeof(ProgressMessage),
        sizeof(EndMessage),    sizeof(TraceMessage)};
    const size_t type = std::string_view("TGBDRPHUEX").find(line.substr(0, 1));
    std::string record(type < std::size(SIZES) ? SIZES[type] : line.size(), '\0');
    if (type < std::size(SIZES)) record[0] = static_cast<char>(type + 1);
    (void)Take(&line, "|");
    while (!line.empty()) {
        const std::string field(Take(&line, "|"));
        char* mark = nullptr;
        const size_t offset = strtoul(field.c_str(), &mark, 10);
        const uint64_t number = *mark == '\0' ? 0 : strtoull(mark + 1, nullptr, 10);
        std::string_view bytes(reinterpret_cast<const char*>(&number), *mark == ':' ? 4 : 8);
        if (*mark == '=') bytes = mark + 1;
        if (offset < record.size() && bytes.size() <= record.size() - offset) {
            record.replace(offset, bytes.size(), bytes);
        }
    }
    const int file = record.size() == sizeof(BodyMessage) ? s_file.get() : -1;
    (void)message_send_bytes(socket.get(), record.data(), record.size(), file, false);
    return record.size();
}

// The library's next record comes when the program has answered the one before it.
static void RecordNext() {
    AnyMessage heard;
    while (recv(s_library.get(), &heard, sizeof(heard), MSG_DONTWAIT) > 0) continue;
    while (!s_lines.empty()) {
        if (RecordSend(s_library, Take(&s_lines, "\n")) > sizeof(DropMessage)) return;
    }
    (void)shutdown(s_library.get(), SHUT_WR);
}

extern "C" {
ssize_t sendmsg(int fd, const msghdr* packet, int flags) {
    const ssize_t sent = syscall(SYS_sendmsg, fd, packet, flags);
    const auto type = *static_cast<const MessageType*>(packet->msg_iov->iov_base);
    if (fd == s_program.get() && s_library.valid() && type != MessageType::Trace) RecordNext();
    return sent;
}

// libcurl meets the answers; the last one stays.
int connect(int fd, const sockaddr* address, socklen_t size) {
    if (address->sa_family == AF_UNIX) return int(syscall(SYS_connect, fd, address, size));
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0);
    const UniqueFd client(ends[0]);
    s_server.reset(ends[1]);
    std::string_view others = s_answers;
    const std::string_view answer = Take(&others, "\n~\n");
    if (!others.empty()) s_answers = others;
    (void)send(ends[1], answer.data(), answer.size(), MSG_NOSIGNAL);
    (void)shutdown(ends[1], SHUT_WR);
    return dup2(client.get(), fd) == fd ? 0 : -1;
}

// No certificates: reading them takes a hundred times as long as all the rest.
curl_version_info_data* curl_version_info(CURLversion) {
    static curl_version_info_data s_nothing{};
    return &s_nothing;
}

// Names lead nowhere.
int dns_client_agent_init() { return -1; }
bool hostname_verify(const char*) { return false; }
int dns_domain_to_ip(DnsRequest*) { return -1; }

// Not every file system of a test machine has attributes.
ssize_t fgetxattr(int, const char*, void* value, size_t size) noexcept {
    if (s_mark.empty() || s_mark.size() > size) return -1;
    memcpy(value, s_mark.data(), s_mark.size());
    return static_cast<ssize_t>(s_mark.size());
}
int fsetxattr(int, const char*, const void*, size_t, int) noexcept { return 0; }
}

int program_launch(int socket, ProgramEnded, pid_t* process) {
    *process = 0;
    s_program.reset(dup(socket));
    while (!s_lines.empty()) (void)RecordSend(s_program, Take(&s_lines, "\n"));
    return shutdown(s_program.get(), SHUT_WR);
}
void program_log(const char*, const char*) {}

// A response to a download: its header as libcurl gives it, and what it means for the file.
extern "C" void try_judge(std::string_view input) {
    s_answers = input;
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(),
                                                                   curl_easy_cleanup);
    curl_easy_setopt(easy.get(), CURLOPT_URL, "http://127.0.0.1/a?b");
    curl_easy_setopt(
        easy.get(), CURLOPT_WRITEFUNCTION, +[](char*, size_t, size_t size, void*) { return size; });
    (void)curl_easy_perform(easy.get());
    const HeadMessage head = response_head(easy.get());
    for (const char* validator : {"\"tag\"", "Sun, 06 Nov 1994 08:49:37 GMT"}) {
        FileFacts facts{20, "", "/a?b"};
        (void)text_copy(facts.validator, validator);
        for (const uint64_t size : {0u, 10u, 20u}) {
            const Request request{"/a?b", size > 0 ? &facts : nullptr, size, size > 0, size - 1};
            const Judgement judged = response_judge(head, request);
            Require(!judged.proven || (judged.facts.total > 0 && judged.facts.validator[0] != 0));
            Require(judged.verdict != Verdict::Whole || head.status == 200);
            Require(judged.verdict != Verdict::Part || (size > 0 && head.status == 206));
            Require(judged.verdict != Verdict::Kept || size == 20);
        }
    }
}

// The library's side: records; then, behind an empty line, what servers answer.
extern "C" void try_program(std::string_view input) {
    static const bool s_ready = session_prepare();
    s_lines = Take(&input, "\n\n");
    s_answers = input;
    s_file.reset(memfd_create("body", 0));
    Require(s_ready && write(s_file.get(), "0123456789", 10) == 10);
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0);
    s_library.reset(ends[0]);
    s_program.reset(ends[1]);
    session_run(ends[1], ReadyMessage());
}

// The program's side: records; then, behind an empty line, the mark of the file that is there.
extern "C" void try_library(std::string_view input) {
    s_lines = Take(&input, "\n\n");
    s_mark = input;
    const std::string path = Directory() + "/file";
    WriteFile(path, std::string(20, 'x'));
    DownloadCtx context{};
    context.progress = [](DownloadCtx*, int32_t) { return 0; };
    DownloadJob job;
    job.context = &context;
    job.url = "http://h/a";
    job.path = path.c_str();
    job.resume = !s_mark.empty();
    const int result = download_run(job);
    const bool whole = result == HTTP_DOWNLOAD_OK || result == HTTP_DOWNLOAD_COMPLETE_ALREADY;
    Require(!whole || context.received == context.total);
    s_program.reset();
}
