// Process start-up. There is no orderly stop: the daemon runs until it is
// killed, so nothing here is ever undone.
#include "frame/roof/startup.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/unique_fd.h"
#include "base/working_dir.h"
#include "frame/debug.h"
#include "frame/log.h"
#include "frame/platform/cpurule.h"

static constexpr char PROCESS_NAME[] = "http_client";
static constexpr char PROGRAM[] = "./http_client.elf";

static void http_client_usage() {
    printf("Error: invalid option\r\n");
    printf("Format: %s [-d[a/i/c/r/e]]\r\n", PROGRAM);
    printf("Options:\r\n");
    printf("        -d           open http-client debugging\r\n");
    printf("Parament:\r\n");
    printf("        -a           open http-client all debugging\r\n");
    printf("        -i           open http-client info debugging\r\n");
    printf("        -c           open http-client connect debugging\r\n");
    printf("        -r           open http-client register debugging\r\n");
    printf("        -e           open http-client error debugging\r\n");
    printf("e.g:\r\n");
    printf("    %s\r\n", PROGRAM);
    printf("    %s -d\r\n", PROGRAM);
    printf("    %s -da\r\n", PROGRAM);
    printf("    %s -di\r\n", PROGRAM);
    printf("    %s -dc\r\n", PROGRAM);
    printf("    %s -dr\r\n", PROGRAM);
    printf("    %s -de\r\n", PROGRAM);
}

[[noreturn]] static void usage_exit() {
    http_client_usage();
    exit(EXIT_FAILURE);
}

void http_client_parse_args(int argc, char** argv) {
    if (argc > 2) usage_exit();
    http_client_debug_reset();
    if (argc == 1) return;
    if (getopt(argc, argv, "d::") != 'd') usage_exit();
    // Only the first letter of the argument counts; none means all.
    const char letter = optarg == nullptr ? 'a' : optarg[0];
    if (std::string_view("acdeir").find(letter) == std::string_view::npos) usage_exit();
    http_client_debug_option(letter);
}

void http_client_is_continue() {
    char path[PATH_SIZE];
    working_path(process_tmp_dir, "http_client.running", path);
    // Not through a symbolic link: other users may put files into the directory.
    UniqueFd file(open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0777));
    if (!file.valid()) {
        http_client_debug_dump_exit("[%s %d]<-->[%s] open fail [%s %d]", __func__, __LINE__, path,
                                    strerror(errno), errno);
    }
    struct flock whole_file {};
    whole_file.l_type = F_WRLCK;
    whole_file.l_whence = SEEK_SET;
    if (fcntl(file.get(), F_SETLK, &whole_file) != 0) {
        if (errno == EACCES || errno == EAGAIN) {
            http_client_debug_dump("only instance is running [%s %d]", strerror(errno), errno);
            exit(EXIT_SUCCESS);
        }
        http_client_debug_dump_exit("[%s %d]<-->[%s] fcntl fail [%s %d]", __func__, __LINE__, path,
                                    strerror(errno), errno);
    }
    char pid[16] = {};
    const int length = snprintf(pid, sizeof(pid), "%d", getpid());
    // The lock is what counts; the number is for people.
    if (ftruncate(file.get(), 0) == 0) {
        (void)!write(file.get(), pid, static_cast<size_t>(length) + 1);
    }
    http_client_debug_print(HTTPC_LOG_INFO, "[%s] open success", path);
    (void)file.release();  // open, and so locked, until the process ends
}

void http_client_bind_cpus() {
    CpuAffinityRequest request{};
    request.process = PROCESS_NAME;
    if (get_cores_affinity(&request) != 0) return;
    (void)sched_setaffinity(getpid(), sizeof(request.cpus), &request.cpus);  // best effort
}

void http_client_signal_init() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    (void)sigemptyset(&ignore.sa_mask);
    (void)sigaction(SIGPIPE, &ignore, nullptr);  // can't fail for SIGPIPE
}
