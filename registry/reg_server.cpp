// The registration server: one read task on the listening socket and one on each
// connection, all on the main loop. Payloads go through one shared buffer: a
// handler is done with it before the next packet is read. An app that stalls in
// the middle of a packet holds the loop for no longer than the packet library
// lets it.

#include "registry/reg_server.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <utility>

#include "base/local_socket.h"
#include "base/sync.h"
#include "base/unique_fd.h"
#include "frame/log.h"
#include "frame/paths.h"
#include "frame/platform/http_update.h"
#include "registry/app_registry.h"
#include "registry/reg_messages.h"

static Mutex s_clients_lock;  // leaf

struct RegClient {
    UniqueFd sock;
    int slot = -1;
    tq_thread* read_event = nullptr;  // null while the callback runs
    tq_thread_master* master = nullptr;
    int holds GUARDED_BY(s_clients_lock) = 0;
    bool ended GUARDED_BY(s_clients_lock) = false;   // the main loop has yet to close it
    bool closed GUARDED_BY(s_clients_lock) = false;  // out of the table; freed with the last hold
};

namespace {

constexpr int LISTEN_BACKLOG = 50;

struct RegServer {
    UniqueFd sock;
    tq_thread_master* master = nullptr;
    tq_thread* accept_event = nullptr;
    // Given up for a moment when the process has no descriptor left.
    UniqueFd reserve;
};

RegServer s_server;
RegClient* s_clients[REG_CLIENT_MAX] GUARDED_BY(s_clients_lock);
uint8_t s_payload[REG_PKT_MAX];

int reg_client_read(tq_thread* event);

bool read_event_arm(RegClient* client) {
    client->read_event = tq_thread_add_read_withname(client->master, reg_client_read, client,
                                                     client->sock.get(), "t-read");
    if (client->read_event != nullptr) return true;
    http_client_debug_dump("Failed to add read thread");
    return false;
}

void reg_client_close(RegClient* client) {
    // First of all, for a holder may free the record as soon as it is marked.
    tq_thread_cancel(client->read_event);
    bool held = false;
    {
        const MutexLock guard(s_clients_lock);
        if (client->slot >= 0 && client->slot < REG_CLIENT_MAX) s_clients[client->slot] = nullptr;
        client->closed = true;
        held = client->holds > 0;
        // Whoever sends on it learns that it is over. Nothing to do about a failure.
        if (held) (void)shutdown(client->sock.get(), SHUT_RDWR);
    }
    if (!held) delete client;
    reg_app_files_help();
}

void reg_client_disconnect(RegClient* client) {
    reg_app_del_by_fd(client->sock.get());
    reg_client_close(client);
}

// What was received before the end of a connection is not looked at any more:
// its apps may have registered elsewhere.
bool reg_client_ended(const RegClient* client) {
    const MutexLock guard(s_clients_lock);
    return client->ended;
}

int reg_client_recv(RegClient* client) {
    const int sock = client->sock.get();
    http_update_packet_header header{};
    const int received = http_update_reg_receive_assign(sock, &header, sizeof(header));
    if (received != static_cast<int>(sizeof(header))) {
        const int error = errno;
        http_client_debug_dump("[%d]<-->receive fail [%d],errno [%d, %s]", sock, received, error,
                               strerror(error));
        return -1;
    }
    const int length = header.length;
    if (length > REG_PKT_MAX) {
        http_client_debug_dump("The pkt len:%d is large than %d", length, REG_PKT_MAX);
        return http_update_reg_receive_skip(sock, length);
    }
    if (length > 0) {
        const int count = http_update_reg_receive_assign(sock, s_payload, length);
        if (count != length) {
            http_client_debug_dump("received %d fail for %d, errno %s", length, count,
                                   strerror(errno));
            return -1;
        }
    }
    http_client_debug_dump("[%d]<-->receive type %d", sock, header.type);
    return reg_msg_dispatch(sock, header.type,
                            std::span(s_payload).first(static_cast<size_t>(length)));
}

int reg_client_read(tq_thread* event) {
    if (event == nullptr || TQ_THREAD_ARG(event) == nullptr) {
        http_client_debug_dump("TQ_THREAD_ARG is empty or thread is NULL");
        return -1;
    }
    auto* client = static_cast<RegClient*>(TQ_THREAD_ARG(event));
    client->read_event = nullptr;
    if (reg_client_ended(client) || reg_client_recv(client) < 0) {
        http_client_debug_dump("[%d]<-->disconnect", client->sock.get());
    } else if (read_event_arm(client)) {
        return 0;
    }
    reg_client_disconnect(client);
    return -1;
}

// Lowest free slot, or -1.
int client_slot_find() {
    const MutexLock guard(s_clients_lock);
    for (int slot = 0; slot < REG_CLIENT_MAX; ++slot) {
        if (s_clients[slot] == nullptr) return slot;
    }
    return -1;
}

// Takes the socket over; it is closed on failure.
int reg_client_add(tq_thread_master* master, UniqueFd sock) {
    const int slot = client_slot_find();
    if (slot < 0) {
        http_client_debug_dump("client num is large than %d", REG_CLIENT_MAX);
        return -1;
    }
    std::unique_ptr<RegClient> client(new (std::nothrow) RegClient);
    if (client == nullptr) {
        http_client_debug_dump("malloc fail");
        return -1;
    }
    client->sock = std::move(sock);
    client->slot = slot;
    client->master = master;
    if (!read_event_arm(client.get())) return -1;
    http_client_debug_dump("[%d]<-->client listen index [%d]", client->sock.get(), slot);
    const MutexLock guard(s_clients_lock);
    s_clients[slot] = client.release();
    return 0;
}

UniqueFd reserve_open() { return UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

// Without a free descriptor the waiting connection can't be accepted, and the
// loop would come back for it at once and for ever: turn it away instead.
void waiting_connection_refuse(RegServer* server) {
    server->reserve.reset();
    { const UniqueFd refused(accept4(server->sock.get(), nullptr, nullptr, SOCK_CLOEXEC)); }
    server->reserve = reserve_open();
}

int reg_accept(tq_thread* event);

bool accept_event_arm(RegServer* server) {
    server->accept_event = tq_thread_add_read_withname(server->master, reg_accept, server,
                                                       server->sock.get(), "t-listen");
    if (server->accept_event != nullptr) return true;
    http_client_debug_dump("Failed to add read thread");
    return false;
}

int reg_accept(tq_thread* event) {
    if (event == nullptr || TQ_THREAD_ARG(event) == nullptr) {
        http_client_debug_dump("TQ_THREAD_ARG is empty or thread is NULL");
        return -1;
    }
    auto* server = static_cast<RegServer*>(TQ_THREAD_ARG(event));
    server->accept_event = nullptr;
    if (!accept_event_arm(server)) return -1;
    UniqueFd sock(accept4(server->sock.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!sock.valid()) {
        const int error = errno;
        http_client_debug_dump("Failed to accept client socket, errno=%d, %s", error,
                               strerror(error));
        if (error == EMFILE || error == ENFILE) waiting_connection_refuse(server);
        return -1;
    }
    return reg_client_add(server->master, std::move(sock));
}

// The listening socket, or an invalid one. Its file is open to apps of any user:
// the process's file-creation mask is 0.
UniqueFd reg_listen_socket(const char* path, bool nonblocking) {
    UniqueFd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock.valid()) {
        http_client_debug_dump("create sock errno [%s]", strerror(errno));
        return UniqueFd();
    }
    const int enabled = 1;
    if (setsockopt(sock.get(), SOL_SOCKET, SO_REUSEADDR, &enabled, sizeof(enabled)) != 0) {
        http_client_debug_dump("setsockopt fail, errno [%s]", strerror(errno));
        return UniqueFd();
    }
    int error = nonblocking ? socket_set_nonblocking(sock.get()) : 0;
    if (error != 0) {
        http_client_debug_dump("fcntl fail, errno [%s]", strerror(error));
        return UniqueFd();
    }
    error = local_bind(sock.get(), path);
    if (error != 0) {
        http_client_debug_dump("bind fail for %d errno [%s][%s]", -1, path, strerror(error));
        return UniqueFd();
    }
    if (listen(sock.get(), LISTEN_BACKLOG) != 0) {
        error = errno;
        http_client_debug_dump("failed to listen, errno=%d, %s", error, strerror(error));
        return UniqueFd();
    }
    return sock;
}

}  // namespace

int reg_server_install(tq_thread_master* master) {
    if (master == nullptr) {
        http_client_debug_dump("master is empty");
        return -1;
    }
    s_server.master = master;
    char path[PATH_SIZE];
    http_client_tmp_path(REG_SOCKET_PATH, &path);
    s_server.sock = reg_listen_socket(path, true);
    if (!s_server.sock.valid() || !accept_event_arm(&s_server)) {
        s_server.sock.reset();
        (void)unlink(path);  // bound, perhaps
        return -1;
    }
    s_server.reserve = reserve_open();
    http_client_debug_dump("[%d]<-->reg server install", s_server.sock.get());
    return 0;
}

RegClientHold reg_client_hold(int fd) {
    const MutexLock guard(s_clients_lock);
    for (RegClient* client : s_clients) {
        if (client == nullptr || client->sock.get() != fd) continue;
        ++client->holds;
        return RegClientHold(client);
    }
    return nullptr;
}

void RegClientRelease::operator()(RegClient* client) const {
    bool last = false;
    {
        const MutexLock guard(s_clients_lock);
        --client->holds;
        last = client->closed && client->holds == 0;
    }
    if (last) delete client;
}

void reg_client_disconnect_fd(int fd) {
    // The hold keeps the number this connection's until the end.
    const RegClientHold client = reg_client_hold(fd);
    if (client == nullptr) return;
    reg_app_del_by_fd(fd);
    const MutexLock guard(s_clients_lock);
    client->ended = true;
    // Wakes the main loop, which finds the end of the stream. A socket that is
    // not connected any more wakes it anyway.
    (void)shutdown(fd, SHUT_RDWR);
}
