// The registration server: the local stream socket over which apps register,
// report and are told of their updates. An app's entry belongs to the connection
// that it registered on and goes when that ends.
//
// The main loop never waits for an app. A packet has two seconds from its first byte
// to its last, and an answer has to go out at once: else the connection ends.
//
// Nobody can shut the apps out by connecting. Where there is no place left, the oldest
// connection that has had its grace and has registered nothing gives way. A user other
// than the daemon's own has no place left beside eight connections of his, too; apps of
// the daemon's user may have all ten. Beside as many that have registered, or have only
// just come, a connection is refused.
//
// Threads: everything runs on the main loop, except what other threads need to
// send to an app: reg_client_hold and reg_client_disconnect_fd.
//
// Locks: the client table has a mutex of its own, a leaf; it may be taken while
// app_registry_lock is held, never the other way round.
#pragma once

#include <cstdint>
#include <memory>

#include "frame/platform/http_update_packets.h"
#include "frame/platform/tq_thread.h"

constexpr int REG_CLIENT_MAX = 10;      // connections at a time
constexpr int REG_CLIENT_USER_MAX = 8;  // of one user, unless he is the daemon's own
constexpr int REG_PKT_MAX = HTTP_UPDATE_APP_PAYLOAD_MAX;
constexpr char REG_SOCKET_PATH[] = HTTP_UPDATE_SOCKET_PATH;

// For how long a connection keeps its place without registering, by the real clock. An
// app registers with its first packet.
constexpr int64_t REG_GRACE_MS = 10'000;

// Listens at the socket path and serves it on the loop. -1 when that fails;
// nothing is left behind and the caller may try again.
[[nodiscard]] int reg_server_install(tq_thread_master* master, int64_t grace_ms = REG_GRACE_MS);

struct RegClient;
struct RegClientRelease {
    void operator()(RegClient* client) const;
};

// Keeps a connection's descriptor open while it is in use on another thread.
// The main loop may end the connection meanwhile: the socket is then shut down,
// so that a send in progress fails at once, and closed with the last hold. So
// its number can't pass to a new connection under a sender's hands.
using RegClientHold = std::unique_ptr<RegClient, RegClientRelease>;

// Takes a hold on the connection with that descriptor; null when there is none.
// A descriptor that was read from an app's entry is certain to be still that
// app's only while app_registry_lock is held, so take the hold under it.
// Threads: any.
[[nodiscard]] RegClientHold reg_client_hold(int fd);

// Ends a connection: its apps leave the registry at once, and the socket is shut
// down, which makes the main loop close it. Until then the help text still names
// the apps. Does nothing when no connection has the descriptor.
// Threads: any; other threads than the main loop's hold the connection, or the
// descriptor might be another one's by now.
void reg_client_disconnect_fd(int fd);
