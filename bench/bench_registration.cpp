// Registration round trips on one processor, for bench/run: bench_registration MODE
// [SOCKET], printed as one line of JSON. "bare" sends and receives packets of the
// same sizes with nothing but read() and write(); "ours" is the app SDK against the
// daemon's packet calls; "daemon" the app SDK against the daemon behind SOCKET.

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/clock.h"
#include "base/local_socket.h"
#include "base/unique_fd.h"
#include "frame/platform/http_update.h"
#include "host/http_update/http_update_app.h"

namespace {

constexpr int WARM_UP = 2000;
constexpr int ROUNDS = 50000;
constexpr int REQUEST_SIZE = sizeof(http_msg_regist);
constexpr int REPLY_SIZE = sizeof(http_msg_regist_rsp);
constexpr int HEADER_SIZE = HTTP_UPDATE_PACKET_HEADER_SIZE;

double now_s() { return static_cast<double>(monotonic_ns()) * 1e-9; }

void one_processor() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(0, &set);
    (void)sched_setaffinity(0, sizeof(set), &set);
}

// The other side, until its peer closes. The daemon waits for a readable socket
// before it reads; here the first read waits instead, in both modes.
void serve(int fd, bool bare) {
    char packet[HEADER_SIZE + REQUEST_SIZE];
    char reply[HEADER_SIZE + REPLY_SIZE] = {};
    for (;;) {
        if (bare) {
            if (read(fd, packet, sizeof(packet)) <= 0) return;
            if (write(fd, reply, sizeof(reply)) <= 0) return;
            continue;
        }
        if (recv(fd, packet, 1, MSG_PEEK) <= 0) return;
        if (http_update_reg_receive_assign(fd, packet, HEADER_SIZE) != HEADER_SIZE) return;
        char* payload = packet + HEADER_SIZE;
        if (http_update_reg_receive_assign(fd, payload, REQUEST_SIZE) != REQUEST_SIZE) return;
        memcpy(reply + 4, payload + 4, 32);  // the name follows the result
        if (http_update_reg_send_normal(fd, 2, reply, REPLY_SIZE) < 0) return;
    }
}

bool round_trip_bare(int fd) {
    char packet[HEADER_SIZE + REQUEST_SIZE] = {};
    return write(fd, packet, sizeof(packet)) > 0 && read(fd, packet, sizeof(packet)) > 0;
}

template <class RoundTrip>
double round_trips_per_s(RoundTrip round_trip) {
    for (int i = 0; i < WARM_UP; ++i) {
        if (!round_trip()) return 0;
    }
    const double begin_s = now_s();
    for (int i = 0; i < ROUNDS; ++i) {
        if (!round_trip()) return 0;
    }
    return ROUNDS / (now_s() - begin_s);
}

double run_sdk(const char* path) {
    http_app* app = http_app_open(path);
    if (app == nullptr) return 0;
    const http_app_info info = {"bench", "1.0", "/tmp/", HTTP_APP_MANUAL};
    const double rate = round_trips_per_s([&] { return http_app_register(app, &info) == 0; });
    http_app_close(app);
    return rate;
}

double run_bare(const char* path) {
    UniqueFd fd;
    if (local_connect(path, 0, &fd) != 0) return 0;
    return round_trips_per_s([&] { return round_trip_bare(fd.get()); });
}

double run_with_server(bool bare) {
    char directory[] = "/tmp/bench.XXXXXX";
    if (mkdtemp(directory) == nullptr) return 0;
    const std::string path = std::string(directory) + "/s";
    UniqueFd listener(socket(AF_UNIX, SOCK_STREAM, 0));
    double rate = 0;
    if (local_bind(listener.get(), path.c_str()) == 0 && listen(listener.get(), 1) == 0) {
        const pid_t child = fork();
        if (child == 0) {
            const UniqueFd fd(accept(listener.get(), nullptr, nullptr));
            serve(fd.get(), bare);
            _exit(0);
        }
        listener.reset();
        rate = bare ? run_bare(path.c_str()) : run_sdk(path.c_str());
        (void)waitpid(child, nullptr, 0);
    }
    (void)unlink(path.c_str());
    (void)rmdir(directory);
    return rate;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    double rate = 0;
    one_processor();
    if (mode == "bare" || mode == "ours") {
        rate = run_with_server(mode == "bare");
    } else if (mode == "daemon" && argc == 3) {
        rate = run_sdk(argv[2]);
    } else {
        fprintf(stderr, "usage: bench_registration bare|ours|daemon [SOCKET]\n");
        return 2;
    }
    printf("{\"round_trips_per_s\": %.1f}\n", rate);
    return rate > 0 ? 0 : 1;
}
