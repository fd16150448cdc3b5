// One download, for bench/run: bench_download MODE URL PATH, printed as one line of
// JSON. Modes: "bare" is a loop of recv() and write() with a 256 KiB buffer,
// "libcurl" the plainest use of libcurl, "ours" the download library.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "frame/platform/http_util.h"

namespace {

// The download library syncs on a thread of its own.
std::atomic<int64_t> s_sync_us{0};

double monotonic_s() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Not from getrusage(), which remembers the size of the program before exec.
long peak_kib() {
    FILE* status = fopen("/proc/self/status", "re");
    if (status == nullptr) return 0;
    char line[256];
    long kib = 0;
    while (fgets(line, sizeof line, status) != nullptr) {
        if (strncmp(line, "VmHWM:", 6) == 0) kib = atol(line + 6);
    }
    (void)fclose(status);
    return kib;
}

UniqueFd file_create(const char* path) {
    (void)unlink(path);
    return UniqueFd(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
}

bool write_all(int fd, const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written <= 0) return false;
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// url is http://A.B.C.D:PORT/PATH; the server closes the connection after the body.
int download_bare(const std::string& url, const char* path) {
    const size_t colon = url.find(':', 7);
    const size_t slash = url.find('/', 7);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(atoi(url.c_str() + colon + 1)));
    (void)inet_pton(AF_INET, url.substr(7, colon - 7).c_str(), &address.sin_addr);
    const UniqueFd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const UniqueFd file = file_create(path);
    const std::string request = "GET " + url.substr(slash) + " HTTP/1.0\r\n\r\n";
    if (connect(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        !write_all(server.get(), request.data(), request.size())) {
        return -1;
    }
    std::vector<char> buffer(256 * 1024);
    bool in_body = false;
    for (;;) {
        const ssize_t got = recv(server.get(), buffer.data(), buffer.size(), 0);
        if (got <= 0) break;
        std::string_view bytes(buffer.data(), static_cast<size_t>(got));
        if (!in_body) bytes.remove_prefix(bytes.find("\r\n\r\n") + 4);
        in_body = true;
        if (!write_all(file.get(), bytes.data(), bytes.size())) return -1;
    }
    return fsync(file.get());
}

size_t on_body(char* bytes, size_t, size_t size, void* fd) {
    return write_all(*static_cast<int*>(fd), bytes, size) ? size : 0;
}

int download_libcurl(const std::string& url, const char* path) {
    const UniqueFd file = file_create(path);
    int fd = file.get();
    CURL* easy = curl_easy_init();
    (void)curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    (void)curl_easy_setopt(easy, CURLOPT_NOPROXY, "*");  // the server is on the loopback
    (void)curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, on_body);
    (void)curl_easy_setopt(easy, CURLOPT_WRITEDATA, &fd);
    const CURLcode code = curl_easy_perform(easy);
    curl_easy_cleanup(easy);
    return code == CURLE_OK ? fsync(fd) : -1;
}

int download_ours(const std::string& url, const char* path) {
    DownloadCtx context{};
    context.progress = [](DownloadCtx*, int32_t) { return 0; };
    return http_download_file_progress(&context, url.c_str(), path, 0);
}

}  // namespace

static int sync_timed(long call, int fd) {
    const double begin_s = monotonic_s();
    const int result = static_cast<int>(syscall(call, fd));
    s_sync_us += static_cast<int64_t>((monotonic_s() - begin_s) * 1e6);
    return result;
}

// Stand in for the C library's, in the download library too, so that the time of the
// disk is counted apart.
extern "C" int fsync(int fd) { return sync_timed(SYS_fsync, fd); }
extern "C" int fdatasync(int fd) { return sync_timed(SYS_fdatasync, fd); }

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: bench_download bare|libcurl|ours URL PATH\n");
        return 2;
    }
    const std::string mode = argv[1];
    const double begin_s = monotonic_s();
    const int result = mode == "bare"      ? download_bare(argv[2], argv[3])
                       : mode == "libcurl" ? download_libcurl(argv[2], argv[3])
                                           : download_ours(argv[2], argv[3]);
    const double whole_s = monotonic_s() - begin_s;
    const double sync_s = static_cast<double>(s_sync_us) * 1e-6;
    printf("{\"result\": %d, \"transfer_s\": %.6f, \"sync_s\": %.6f, \"peak_kib\": %ld}\n", result,
           whole_s - sync_s, sync_s, peak_kib());
    return result == 0 ? 0 : 1;
}
