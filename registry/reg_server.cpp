// The registration server: one read task on the listening socket and one on each
// connection, all on the main loop. Each takes what has arrived and goes: a packet
// is handled when its last byte is there, and a timer looks after the one that does
// not become whole.

#include "registry/reg_server.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "base/clock.h"
#include "base/local_socket.h"
#include "base/sync.h"
#include "base/unique_fd.h"
#include "frame/log.h"
#include "frame/loop.h"
#include "frame/paths.h"
#include "registry/app_registry.h"
#include "registry/packet_reader.h"
#include "registry/reg_messages.h"

static Mutex s_clients_lock;  // leaf

struct RegClient {
    UniqueFd sock;
    int slot = -1;
    uid_t user = 0;
    uint64_t number = 0;               // of all connections; a lower one is older
    std::optional<Deadline> grace;     // may go without registering until then
    tq_thread* read_event = nullptr;   // null while the callback runs
    tq_thread* watch_event = nullptr;  // pending while a packet is not whole
    tq_thread_master* master = nullptr;
    PacketReader reader;
    std::optional<Deadline> packet_deadline;  // of the packet that is not whole
    int holds GUARDED_BY(s_clients_lock) = 0;
    bool ended GUARDED_BY(s_clients_lock) = false;   // the main loop has yet to close it
    bool closed GUARDED_BY(s_clients_lock) = false;  // out of the table; freed with the last hold
};

namespace {

constexpr int LISTEN_BACKLOG = 50;
constexpr int PACKET_LIMIT_MS = 2000;
constexpr long WATCH_S = 1;

struct RegServer {
    UniqueFd sock;
    tq_thread_master* master = nullptr;
    tq_thread* accept_event = nullptr;
    int64_t grace_ms = 0;
    // Given up for a moment when the process has no descriptor left.
    UniqueFd reserve;
};

RegServer s_server;
using ClientTable = std::array<RegClient*, REG_CLIENT_MAX>;
ClientTable s_clients GUARDED_BY(s_clients_lock);
uint64_t s_accepted = 0;

int reg_client_read(tq_thread* event);
int packet_watch(tq_thread* event);

bool read_event_arm(RegClient* client) {
    client->read_event = tq_thread_add_read_withname(client->master, reg_client_read, client,
                                                     client->sock.get(), "t-read");
    if (client->read_event != nullptr) return true;
    http_client_debug_dump("Failed to add read thread");
    return false;
}

bool watch_event_arm(RegClient* client) {
    client->watch_event =
        tq_thread_add_timer_withname(client->master, packet_watch, client, WATCH_S, "t-packet");
    if (client->watch_event != nullptr) return true;
    http_client_debug_dump("Failed to add timer thread");
    return false;
}

void event_cancel(tq_thread** event) {
    if (*event != nullptr) tq_thread_cancel(*event);
    *event = nullptr;
}

void reg_client_close(RegClient* client) {
    // First of all, for a holder may free the record as soon as it is marked.
    event_cancel(&client->read_event);
    event_cancel(&client->watch_event);
    bool held = false;
    {
        const MutexLock guard(s_clients_lock);
        std::replace(s_clients.begin(), s_clients.end(), client, static_cast<RegClient*>(nullptr));
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

// A packet has its time from its first byte to its last.
bool packet_watched(RegClient* client) {
    if (!client->reader.begun()) {
        client->packet_deadline.reset();
        event_cancel(&client->watch_event);
        return true;
    }
    if (client->packet_deadline) return true;
    client->packet_deadline.emplace(PACKET_LIMIT_MS);
    return watch_event_arm(client);
}

int reg_client_recv(RegClient* client) {
    const int sock = client->sock.get();
    AppPacket packet{};
    const int result = packet_read(sock, &client->reader, &packet);
    if (result <= 0) return result;
    http_client_debug_dump("[%d]<-->receive type %d", sock, packet.type);
    return reg_msg_dispatch(sock, packet.type, packet.payload);
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
    } else if (packet_watched(client) && read_event_arm(client)) {
        return 0;
    }
    reg_client_disconnect(client);
    return -1;
}

// By the clock and not by the timer alone, which a test may run faster than its apps.
int packet_watch(tq_thread* event) {
    auto* client = static_cast<RegClient*>(TQ_THREAD_ARG(event));
    client->watch_event = nullptr;
    if (client->packet_deadline->LeftMs() > 0 && watch_event_arm(client)) return 0;
    http_client_debug_dump("[%d]<-->receive fail [%d],errno [%d, %s]", client->sock.get(),
                           client->reader.have, ETIMEDOUT, strerror(ETIMEDOUT));
    http_client_debug_dump("[%d]<-->disconnect", client->sock.get());
    reg_client_disconnect(client);
    return -1;
}

// The records stay while the main loop looks at them: it alone takes them away.
ClientTable clients_copy() {
    const MutexLock guard(s_clients_lock);
    return s_clients;
}

// It has had its time and has registered nothing.
bool client_is_silent(const RegClient& client) {
    return client.grace->LeftMs() == 0 && !reg_app_fd_in_use(client.sock.get());
}

// Whether there is a place among at most that many connections of the user, or of all
// users: the oldest silent one gives way for it.
bool client_place_make(std::optional<uid_t> user, int most) {
    int count = 0;
    RegClient* oldest = nullptr;
    for (RegClient* client : clients_copy()) {
        if (client == nullptr || (user && client->user != *user)) continue;
        ++count;
        if (oldest != nullptr && oldest->number < client->number) continue;
        if (client_is_silent(*client)) oldest = client;
    }
    if (count < most) return true;
    if (oldest == nullptr) {
        http_client_debug_dump("client num is large than %d", most);
        return false;
    }
    http_client_debug_dump("[%d]<-->disconnect, has registered nothing", oldest->sock.get());
    reg_client_disconnect(oldest);
    return true;
}

// Lowest free slot, or -1.
int client_slot_find(uid_t user) {
    if (user != geteuid() && !client_place_make(user, REG_CLIENT_USER_MAX)) return -1;
    if (!client_place_make(std::nullopt, REG_CLIENT_MAX)) return -1;
    const ClientTable clients = clients_copy();
    return static_cast<int>(std::find(clients.begin(), clients.end(), nullptr) - clients.begin());
}

// The user that has connected.
uid_t peer_user(int sock) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    const bool told = getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
    return told ? peer.uid : static_cast<uid_t>(-1);
}

// Takes the socket over; it is closed on failure.
int reg_client_add(tq_thread_master* master, UniqueFd sock) {
    const uid_t user = peer_user(sock.get());
    const int slot = client_slot_find(user);
    if (slot < 0) return -1;
    std::unique_ptr<RegClient> client(new (std::nothrow) RegClient);
    if (client == nullptr) {
        http_client_debug_dump("malloc fail");
        return -1;
    }
    client->sock = std::move(sock);
    client->slot = slot;
    client->user = user;
    client->number = ++s_accepted;
    client->grace.emplace(s_server.grace_ms);
    client->master = master;
    const int enabled = 1;
    if (setsockopt(client->sock.get(), SOL_SOCKET, SO_OOBINLINE, &enabled, sizeof(enabled)) != 0) {
        http_client_debug_dump("setsockopt fail, errno [%s]", strerror(errno));
        return -1;
    }
    if (!read_event_arm(client.get())) return -1;
    http_client_debug_dump("[%d]<-->client listen index [%d]", client->sock.get(), slot);
    const MutexLock guard(s_clients_lock);
    s_clients[static_cast<size_t>(slot)] = client.release();
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

bool accept_event_arm(void* argument) {
    auto* server = static_cast<RegServer*>(argument);
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
    if (!accept_event_arm(server)) {
        loop_owe(accept_event_arm, server);
        return -1;
    }
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

int reg_server_install(tq_thread_master* master, int64_t grace_ms) {
    if (master == nullptr) {
        http_client_debug_dump("master is empty");
        return -1;
    }
    s_server.master = master;
    s_server.grace_ms = grace_ms;
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
