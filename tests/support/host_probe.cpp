// host_probe CALL ARGUMENTS...: calls a library of the host and prints what it answers.
#include <arpa/inet.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/text.h"
#include "frame/platform/cpurule.h"
#include "frame/platform/dnsclient.h"
#include "frame/platform/http_util.h"
#include "frame/platform/syslog_new.h"
#include "frame/platform/tq_proc_ham.h"
#include "frame/platform/tqsys.h"

// Stands in for the C library's, in the download library too: what is to be done first,
// and may fail, is a command in the environment.
extern "C" int fdatasync(int fd) {
    const char* first = getenv("ON_SYNC");
    if (first == nullptr || system(first) == 0) {
        return static_cast<int>(syscall(SYS_fdatasync, fd));
    }
    errno = EIO;
    return -1;
}

namespace {

// texts: the five texts in the order of the header.
void texts(char**) {
    for (const auto get : {tqsys_get_os_name, tqsys_get_project, tqsys_get_release_type,
                           tqsys_get_release, tqsys_get_hw_version}) {
        const std::unique_ptr<char, decltype(&free)> text(get(), free);
        printf("%s|", text == nullptr ? "-" : text.get());
    }
}

// cpus: those of the rule, or "none".
void cpus(char**) {
    CpuAffinityRequest request{};
    request.process = "http_client";
    if (get_cores_affinity(&request) != 0) printf("none");
    for (size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &request.cpus)) printf("%zu ", cpu);
    }
}

// log TEXT: one line.
void log(char** arguments) { printk_syslog_ext(7, "HTTPC", "DEBUG", 2, "%s", arguments[0]); }

// health: results of all three calls.
void health(char**) {
    for (const int result :
         {reg_process_exit_action(0, 2), ham_client_reg_thread_notify(1, 1, 9, 3),
          ham_client_reset_thread_notify(1, 1, 9, 3)}) {
        printf("%s ", result >= 0 ? "good" : "bad");
    }
}

// names NAME...: which of them are host names.
void names(char** arguments) {
    for (; *arguments != nullptr; ++arguments) printf("%d", hostname_verify(*arguments) ? 1 : 0);
}

std::string resolve_one(const char* source_text, const char* name) {
    DnsRequest request{};
    text_copy(request.name, name);
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = inet_addr(source_text);
    memcpy(request.source, &source, sizeof(source));
    if (dns_domain_to_ip(&request) < 0) return "refused";
    const bool resolved = request.result == DNS_RESULT_RESOLVED && request.family == AF_INET;
    return resolved ? inet_ntoa({request.address}) : "result " + std::to_string(request.result);
}

// release PATH: the mark of a complete file.
void release(char** arguments) { http_download_file_release(arguments[0]); }

// resolve SOURCE NAME...: each name's address, "refused" or the result. All names are
// looked up at once; what comes first is printed first.
void resolve(char** arguments) {
    if (dns_client_agent_init() != 0) return;
    std::vector<std::thread> threads;
    for (char** name = arguments + 1; *name != nullptr; ++name) {
        threads.emplace_back([=] { printf("%s\n", resolve_one(arguments[0], *name).c_str()); });
    }
    for (std::thread& thread : threads) thread.join();
}

// What the callback of a download has been told.
struct Told {
    uint64_t bytes = 0;
    int idle = 0;  // calls with count 0
    int idle_max;  // with so many it cancels
    bool finished = false;
};

int take(DownloadCtx* context, int32_t count) {
    auto* told = static_cast<Told*>(context->user);
    if (told->finished || count < 0) abort();
    told->bytes += static_cast<uint64_t>(count);
    told->finished = context->received == context->total;
    return count == 0 && ++told->idle == told->idle_max ? -1 : 0;
}

// download: a file for each line "flag source idle_max path URL"; then "result finished
// bytes idle". Debugging is on.
void download(char**) {
    unsigned flag = 0;
    int idle_max = 0;
    char source[16], path[256], url[1024];
    http_open_debug();
    while (scanf("%u %15s %d %255s %1023[^\n]", &flag, source, &idle_max, path, url) == 5) {
        Told told{.idle_max = idle_max};
        DownloadCtx context{};
        context.progress = take;
        context.user = &told;
        const http_util_tlv address{1, 4, inet_addr(source)};
        const int result = http_download_file_progress_tlv(&context, url, path, flag, &address);
        printf("%d %d %lu %d\n", result, told.finished ? 1 : 0, told.bytes, told.idle);
        (void)fflush(stdout);
    }
    http_close_debug();
}

}  // namespace

int main(int, char** arguments) {
    const std::map<std::string, std::function<void(char**)>> calls = {
        {"texts", texts}, {"cpus", cpus},       {"log", log},           {"health", health},
        {"names", names}, {"resolve", resolve}, {"download", download}, {"release", release}};
    calls.at(arguments[1])(arguments + 2);
    return 0;
}
