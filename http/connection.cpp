// Looking a name up and connecting are calls that can't be interrupted. A run on behalf
// of an operator, who may cancel it, makes them on a thread of their own and leaves them
// behind; the others make them in place.
#include "http/connection.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/local_socket.h"
#include "base/side_call.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "config/settings.h"
#include "frame/identity.h"
#include "frame/ipv4_text.h"
#include "frame/log.h"
#include "frame/platform/dnsclient.h"

// Linux bounds a blocking connect by the send time-out.
static constexpr int CONNECT_S = 3;
static constexpr timeval CONNECT_TIMEOUT{CONNECT_S, 0};
static constexpr int CANCEL_TICK_MS = 200;
static constexpr int32_t NAME_UNKNOWN = -1;  // as a result of a look-up

// True once the DNS client is ready. A start-up without network leaves that to
// the first connection; initialising twice, from two threads, does no harm.
static bool dns_prepare() {
    if (dns_ready.load(std::memory_order_relaxed)) return true;
    if (dns_client_agent_init() != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[domain_to_ip]-->dns client agent init fail");
        return false;
    }
    dns_ready.store(true, std::memory_order_relaxed);
    return true;
}

int url_domain_to_ip(const char* host, in_addr_t* address, const sockaddr_storage& source,
                     Cause* cause) {
    if (host == nullptr || address == nullptr) return 0;
    if (ipv4_text_to_addr(host, address) == 1) return 1;
    cause_set(cause, CausePhase::LookUp, CauseReason::NameService, NAME_UNKNOWN);
    if (!dns_prepare()) return 0;
    if (!hostname_verify(host)) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[url_domain_to_ip]-->%s unrecognized hostname",
                                host);
        return 0;
    }
    DnsRequest request = dns_request_make(host, source);
    if (dns_domain_to_ip(&request) < 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[url_domain_to_ip]-->%s invalid domain", host);
        return 0;
    }
    if (request.result != DNS_RESULT_RESOLVED) {
        cause_set(cause, CausePhase::LookUp, CauseReason::NameService,
                  static_cast<int32_t>(request.result));
        http_client_debug_print(HTTPC_LOG_ERROR, "[url_domain_to_ip]-->%s: dns parse failed[%d]",
                                host, static_cast<int>(request.result));
        return 0;
    }
    if (request.family != AF_INET) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[url_domain_to_ip]-->%s invalid ss_family", host);
        return 0;
    }
    cause_set(cause, CausePhase::None, CauseReason::None);
    *address = request.address;
    return 1;
}

static sockaddr_in ipv4_endpoint(in_addr_t address, uint16_t port) {
    sockaddr_in endpoint{};
    endpoint.sin_family = AF_INET;
    endpoint.sin_port = htons(port);
    endpoint.sin_addr.s_addr = address;
    return endpoint;
}

static const sockaddr* generic(const sockaddr_in* endpoint) {
    return reinterpret_cast<const sockaddr*>(endpoint);
}

// A socket that leaves from local unless that is any address; none, with errno and the
// reason logged.
static UniqueFd socket_from(const sockaddr_in& local) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        http_client_debug_print(HTTPC_LOG_ERROR, "create socket error");
        return {};
    }
    if (setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &CONNECT_TIMEOUT, sizeof(CONNECT_TIMEOUT)) !=
        0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "set SO_SNDTIMEO fail");
        return {};
    }
    if (local.sin_addr.s_addr != INADDR_ANY &&
        bind(fd.get(), generic(&local), sizeof(local)) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "HTTP: bind source ip to socket error!\r\n");
        return {};
    }
    return fd;
}

int http_update_url_connect_detail(const char* host, uint16_t port, Cause* cause) {
    const SourceAddress source = src_ip_get();
    in_addr_t source_ip = INADDR_ANY;
    if (source.is_set() && ipv4_text_to_addr(source.update_src_ip, &source_ip) == 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "HTTP: convert source ip error!\r\n");
        cause_set_errno(cause, CausePhase::Connect, EADDRNOTAVAIL, 0);
        return -1;
    }
    const sockaddr_in local = ipv4_endpoint(source_ip, 0);
    sockaddr_storage asked_from{};
    memcpy(&asked_from, &local, sizeof(local));
    in_addr_t server_ip = INADDR_ANY;
    if (url_domain_to_ip(host, &server_ip, asked_from, cause) == 0) return -1;

    UniqueFd fd = socket_from(local);
    if (!fd.valid()) {
        cause_set_errno(cause, CausePhase::Connect, errno, 0);
        return -1;
    }
    const sockaddr_in remote = ipv4_endpoint(server_ip, port);
    if (connect(fd.get(), generic(&remote), sizeof(remote)) != 0) {
        // The time-out reads as "in progress", which is no reason for a failure.
        const int error = errno == EINPROGRESS ? ETIMEDOUT : errno;
        http_client_debug_print(HTTPC_LOG_ERROR, "connect to %s:%d failed, %s", host, port,
                                strerror(error));
        cause_set_errno(cause, CausePhase::Connect, error, CONNECT_S);
        return -1;
    }
    const int error = socket_set_nonblocking(fd.get());
    if (error != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "%s: set socket non-blocking failed [%s]!\r\n",
                                "http_update_url_connect_detail", strerror(error));
        cause_set_errno(cause, CausePhase::Connect, error, 0);
        return -1;
    }
    return fd.release();
}

namespace {
// A connection on its way, look-up included, on a thread of its own: neither can be
// interrupted, and the operator need not wait for them.
struct Connecting {
    char host[sizeof(UpdateServer::host)] = "";
    uint16_t port = 0;
    UniqueFd fd{};
    Cause cause{};

    void operator()() { fd.reset(http_update_url_connect_detail(host, port, &cause)); }
};
}  // namespace

static int connect_unless_cancelled(const char* host, uint16_t port, Attempt* attempt) {
    Cancel* cancel = cancel_of(attempt);
    if (cancel == nullptr) return http_update_url_connect_detail(host, port, cause_of(attempt));
    Connecting connecting;
    (void)text_copy(connecting.host, host);
    connecting.port = port;
    connecting.cause = attempt->cause;
    SideCall<Connecting> call;
    if (!call.Start(std::move(connecting))) {
        cause_set(&attempt->cause, CausePhase::Connect, CauseReason::NoMemory);
        return -1;
    }
    while (!cancel->Requested()) {
        Connecting* done = call.Wait(CANCEL_TICK_MS);
        if (done == nullptr) continue;
        attempt->cause = done->cause;
        return done->fd.release();
    }
    return -1;
}

UpdateStatus url_connect(UpdateServer* server, Attempt* attempt) {
    server->socket =
        connect_unless_cancelled(server->host, static_cast<uint16_t>(server->port), attempt);
    if (server->socket >= 0) return UPDATE_OK;
    http_client_debug_print(HTTPC_LOG_ERROR, "url_connect<-->connect local fail");
    return UPDATE_CONNECT_FAIL;
}
