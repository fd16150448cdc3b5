// Downloads of one URL, for bench/run: bench_download MODE URL PATH [COUNT], printed as
// one line of JSON; with a COUNT the files are PATH0, PATH1 and so on. Modes: "bare" is
// a loop of recv() and write() with a 256 KiB buffer, a connection and a data sync for
// each file, "libcurl" the plainest use of libcurl, "ours" the download library.
// transfer_s ends with the last byte in the file, whole_s with the last sync.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "frame/platform/http_util.h"

namespace {

double s_received_s = 0;  // when the last bytes came

double monotonic_s() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Not from getrusage(), which remembers the size of the program before exec.
long peak_kib(const char* process) {
    char path[64];
    (void)snprintf(path, sizeof(path), "/proc/%s/status", process);
    FILE* status = fopen(path, "re");
    if (status == nullptr) return 0;
    char line[256];
    long kib = 0;
    while (fgets(line, sizeof(line), status) != nullptr) {
        if (strncmp(line, "VmHWM:", 6) == 0) kib = atol(line + 6);
    }
    (void)fclose(status);
    return kib;
}

// Of the program that the download library has started: it waits for more to do.
long child_peak_kib() {
    long kib = 0;
    DIR* threads = opendir("/proc/self/task");
    while (const dirent* thread = threads == nullptr ? nullptr : readdir(threads)) {
        const std::string path = std::string("/proc/self/task/") + thread->d_name + "/children";
        FILE* children = fopen(path.c_str(), "re");
        if (children == nullptr) continue;
        char process[16] = "";
        while (fscanf(children, "%15s", process) == 1) kib = std::max(kib, peak_kib(process));
        (void)fclose(children);
    }
    if (threads != nullptr) (void)closedir(threads);
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
    if (connect(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
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
    s_received_s = monotonic_s();
    return fdatasync(file.get());
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
    s_received_s = monotonic_s();
    return code == CURLE_OK ? fdatasync(fd) : -1;
}

int download_ours(const std::string& url, const char* path) {
    DownloadCtx context{};
    context.progress = [](DownloadCtx*, int32_t) { return 0; };
    return http_download_file_progress(&context, url.c_str(), path, 1);
}

int download(const std::string& mode, const char* url, const char* path) {
    if (mode == "bare") return download_bare(url, path);
    return mode == "libcurl" ? download_libcurl(url, path) : download_ours(url, path);
}

}  // namespace

// Stands in for the C library's, in the download library too, which hears this way that
// its program has the last byte, and then waits for the disk.
extern "C" ssize_t recvmsg(int socket, msghdr* message, int flags) {
    const ssize_t got = syscall(SYS_recvmsg, socket, message, flags);
    if (got > 0) s_received_s = monotonic_s();
    return got;
}

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        fprintf(stderr, "usage: bench_download bare|libcurl|ours URL PATH [COUNT]\n");
        return 2;
    }
    const std::string mode = argv[1];
    const std::string path = argv[3];
    const int count = argc == 5 ? atoi(argv[4]) : 1;
    const double begin_s = monotonic_s();
    int result = 0;
    for (int i = 0; i < count && result == 0; ++i) {
        result = download(mode, argv[2], (argc == 5 ? path + std::to_string(i) : path).c_str());
    }
    const double whole_s = monotonic_s() - begin_s;
    printf("{\"result\": %d, \"transfer_s\": %.6f, \"whole_s\": %.6f, \"peak_kib\": %ld}\n", result,
           s_received_s - begin_s, whole_s, mode == "ours" ? child_peak_kib() : peak_kib("self"));
    return result == 0 ? 0 : 1;
}
