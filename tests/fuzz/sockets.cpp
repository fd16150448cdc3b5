// Peers of the daemon's sockets, on the host's real event loop.
#include <sys/socket.h>

#include <cerrno>

#include "base/local_socket.h"
#include "config/server_list.h"
#include "frame/paths.h"
#include "frame/roof/commands.h"
#include "host/client_new/cli_protocol.h"
#include "host/tech_support_msg/protocol.h"
#include "registry/app_registry.h"
#include "registry/reg_server.h"
#include "tests/fuzz/fuzz.h"

static tq_thread_master* Loop() {
    static tq_thread_master* const s_loop = tq_thread_master_create();
    return s_loop;
}

// Sends the input, and nothing after it; the loop turns until the daemon has closed the
// connection. What it has answered.
static std::string Converse(const std::string& path, std::string_view input) {
    UniqueFd peer;
    Require(local_connect(path.c_str(), 1, &peer) == 0);
    (void)send(peer.get(), input.data(), input.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)shutdown(peer.get(), SHUT_WR);
    std::string answer;
    for (;;) {
        char bytes[65536];
        const ssize_t got = recv(peer.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN)) return answer;
        answer.append(bytes, got > 0 ? static_cast<size_t>(got) : 0);
        tq_thread task{};
        if (got < 0 && tq_thread_fetch(Loop(), &task) != nullptr) tq_thread_call(&task);
    }
}

// When a connection has ended, nothing of it is left.
extern "C" void try_registration(std::string_view input) {
    static const int s_ready = reg_server_install(Loop());
    Require(s_ready == 0 && reg_app_add(-1, "alpha", "1.0", 0) == REG_OK);  // may be named
    (void)Converse(Directory() + REG_SOCKET_PATH, input);
    (void)reg_app_del_by_name("alpha");
    AppSet left{};
    reg_app_all(&left);
    Require(app_set_is_empty(left));
}

extern "C" void try_terminal(std::string_view input) {
    static const int s_ready = (hu_serv_config_init(), http_update_admin_cli(Loop()));
    Require(s_ready == 0);
    hu_serv_config_init();
    (void)Converse(client_new::cli_socket_path(), input);
}

// A report comes whole.
extern "C" void try_support(std::string_view input) {
    static const int s_ready = (hu_serv_config_init(), http_client_tech_init(Loop()));
    Require(s_ready == 0);
    const std::string answer = Converse(tech_support_socket_path(), input);
    std::string_view rest = answer;
    const std::string_view line = Take(&rest, "\n");
    Require(!line.starts_with("complete ") || line == "complete " + std::to_string(rest.size()));
}
