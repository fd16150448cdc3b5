// What the download program says to the library: records, all there from the beginning; then,
// behind an empty line, the mark of the file that is there.
#include <arpa/inet.h>

#include "base/unique_fd.h"
#include "frame/platform/dnsclient.h"
#include "host/http_util/download.h"
#include "host/http_util/launch.h"
#include "tests/fuzz/records.h"

static UniqueFd s_program;
static std::string_view s_lines;
static std::string_view s_mark;
static std::string s_path;

static void Prepare() { s_path = s_directory + std::string("/file"); }

int program_launch(int socket, ProgramEnded, pid_t* process) {
    s_program.reset(dup(socket));
    while (!s_lines.empty()) (void)RecordSend(s_program.get(), Take(&s_lines, "\n"));
    (void)shutdown(s_program.get(), SHUT_WR);
    *process = 0;
    return 0;
}
void program_log(const char*, const char*) {}

extern "C" {
int dns_client_agent_init() { return 0; }
bool hostname_verify(const char*) { return true; }
int dns_domain_to_ip(DnsRequest* request) {
    request->result = DNS_RESULT_RESOLVED;
    request->family = AF_INET;
    return 0;
}

// Not every file system of a test machine has attributes.
ssize_t fgetxattr(int, const char*, void* value, size_t size) noexcept {
    if (s_mark.empty() || s_mark.size() > size) return -1;
    memcpy(value, s_mark.data(), s_mark.size());
    return static_cast<ssize_t>(s_mark.size());
}
int fsetxattr(int, const char*, const void*, size_t, int) noexcept { return 0; }
}

static void Try(std::string_view input) {
    s_lines = Take(&input, "\n\n");
    s_mark = input;
    WriteFile(s_path, std::string(20, 'x'));
    DownloadCtx context{};
    context.progress = [](DownloadCtx*, int32_t) { return 0; };
    DownloadJob job;
    job.context = &context;
    job.url = "http://h/a";
    job.path = s_path.c_str();
    job.resume = !s_mark.empty();
    const int result = download_run(job);
    if (result == 0 || result == HTTP_DOWNLOAD_COMPLETE_ALREADY) {
        Require(context.received == context.total);
    }
    s_program.reset();
}
