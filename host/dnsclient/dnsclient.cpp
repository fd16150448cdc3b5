// Name look-up of the host over c-ares: the hosts file, then DNS, IPv4 only.
// localhost is known without both.
//
// Each look-up has a channel of its own, so that threads never wait for each
// other, queries leave from the source address of the request, and a changed
// resolv.conf counts at once. DNS_CLIENT_SERVERS ("ip:port,...") replaces the
// servers of resolv.conf.
#include "frame/platform/dnsclient.h"

#include <ares.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>

#include "base/clock.h"
#include "base/text.h"

namespace {

constexpr size_t HOSTNAME_MAX = 253;  // RFC 1035, without the final dot
constexpr size_t LABEL_MAX = 63;

constexpr int QUERY_TIMEOUT_MS = 1000;  // the first round; c-ares doubles it each round
constexpr int QUERY_ROUNDS = 3;
constexpr int64_t LOOKUP_LIMIT_MS = 5000;  // of a whole look-up, however many servers keep silent

// Results beside DNS_RESULT_RESOLVED, for the log.
constexpr uint32_t RESULT_NO_ANSWER = 3;      // no server answered in time
constexpr uint32_t RESULT_SERVER_FAILED = 4;  // refused, failed, or out of reach
constexpr uint32_t RESULT_NO_RESOLVER = 5;    // memory, or a bad DNS_CLIENT_SERVERS

struct ChannelDeleter {
    void operator()(ares_channel channel) const { ares_destroy(channel); }
};
using Channel = std::unique_ptr<std::remove_pointer_t<ares_channel>, ChannelDeleter>;

struct Answer {
    bool done;
    int status;
    in_addr_t address;
};

Channel channel_create(const DnsRequest& request) {
    ares_options options{};
    options.timeout = QUERY_TIMEOUT_MS;
    options.tries = QUERY_ROUNDS;
    char lookups[] = "fb";  // hosts file, then DNS, whatever nsswitch.conf lists
    options.lookups = lookups;
    int mask = ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_LOOKUPS;
    // A name with a dot is asked for as it stands. The search list of resolv.conf
    // (none is set here) could lead a name that does not exist to a stranger.
    if (text_view(request.name).find('.') != std::string_view::npos) mask |= ARES_OPT_DOMAINS;
    ares_channel raw = nullptr;
    if (ares_init_options(&raw, &options, mask) != ARES_SUCCESS) return nullptr;
    Channel channel(raw);
    const char* servers = getenv("DNS_CLIENT_SERVERS");
    if (servers != nullptr && *servers != '\0' &&
        ares_set_servers_ports_csv(raw, servers) != ARES_SUCCESS) {
        return nullptr;
    }
    sockaddr_in source{};
    memcpy(&source, request.source, sizeof(source));
    // 0.0.0.0 stands for any address there too.
    if (source.sin_family == AF_INET) ares_set_local_ip4(raw, ntohl(source.sin_addr.s_addr));
    return channel;
}

void take_answer(void* argument, int status, int, hostent* host) {
    auto* answer = static_cast<Answer*>(argument);
    answer->done = true;
    answer->status = status;
    if (status != ARES_SUCCESS) return;
    if (host->h_addrtype != AF_INET || host->h_addr_list[0] == nullptr) {
        answer->status = ARES_ENODATA;
        return;
    }
    memcpy(&answer->address, host->h_addr_list[0], sizeof(answer->address));
}

// Serves the channel's sockets until the answer or the limit.
void channel_run(ares_channel channel, Answer* answer) {
    const Deadline deadline(LOOKUP_LIMIT_MS);
    while (!answer->done) {
        const int left_ms = deadline.LeftMs();
        if (left_ms == 0) return ares_cancel(channel);  // answers with ARES_ECANCELLED
        ares_socket_t sockets[ARES_GETSOCK_MAXNUM];
        const int bits = ares_getsock(channel, sockets, ARES_GETSOCK_MAXNUM);
        pollfd polls[ARES_GETSOCK_MAXNUM];
        nfds_t count = 0;
        for (unsigned i = 0; i < ARES_GETSOCK_MAXNUM; ++i) {
            const bool reads = ARES_GETSOCK_READABLE(bits, i) != 0;
            const bool writes = ARES_GETSOCK_WRITABLE(bits, i) != 0;
            if (!reads && !writes) break;
            polls[count++] = {sockets[i],
                              static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0)), 0};
        }
        timeval limit{left_ms / 1000, left_ms % 1000 * 1000};
        const timeval* next = ares_timeout(channel, &limit, &limit);
        (void)poll(polls, count, static_cast<int>(next->tv_sec * 1000 + next->tv_usec / 1000 + 1));
        for (nfds_t i = 0; i < count; ++i) {
            const short got = polls[i].revents;
            ares_process_fd(channel, (got & ~POLLOUT) != 0 ? polls[i].fd : ARES_SOCKET_BAD,
                            (got & ~POLLIN) != 0 ? polls[i].fd : ARES_SOCKET_BAD);
        }
        // Also when nothing was readable: time-outs are counted here.
        ares_process_fd(channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
    }
}

bool label_is_valid(std::string_view label) {
    const auto is_name_character = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '_';
    };
    return !label.empty() && label.size() <= LABEL_MAX && label.front() != '-' &&
           label.back() != '-' && std::all_of(label.begin(), label.end(), is_name_character);
}

// localhost and the names below it are this machine (RFC 6761), also where there is no
// hosts file, or a server or a file says something else.
bool name_is_localhost(std::string_view name) {
    constexpr std::string_view LOCALHOST = "localhost";
    if (name.ends_with('.')) name.remove_suffix(1);
    if (name.size() < LOCALHOST.size()) return false;
    const size_t below = name.size() - LOCALHOST.size();
    return strncasecmp(name.data() + below, LOCALHOST.data(), LOCALHOST.size()) == 0 &&
           (below == 0 || name[below - 1] == '.');
}

int resolved(DnsRequest* request, in_addr_t address) {
    request->family = AF_INET;
    request->address = address;
    request->result = DNS_RESULT_RESOLVED;
    return 0;
}

}  // namespace

int dns_client_agent_init() {
    static const int result = ares_library_init(ARES_LIB_INIT_ALL);  // not for two threads at once
    return result == ARES_SUCCESS ? 0 : -1;
}

// RFC 1123, and underscores, which internal names use and resolvers take. A last
// label of digits alone belongs to an address, mostly a mistyped one (256.1.1.1):
// no top-level domain is a number.
bool hostname_verify(const char* host) {
    if (host == nullptr) return false;
    std::string_view name(host);
    if (name.ends_with('.')) name.remove_suffix(1);
    if (name.empty() || name.size() > HOSTNAME_MAX) return false;
    for (;;) {
        const size_t dot = name.find('.');
        const std::string_view label = name.substr(0, dot);
        if (!label_is_valid(label)) return false;
        if (dot == std::string_view::npos) {
            return label.find_first_not_of("0123456789") != std::string_view::npos;
        }
        name.remove_prefix(dot + 1);
    }
}

// Negative for a name that does not exist or has no IPv4 address; 0 with one of
// the results above when the servers leave that open.
int dns_domain_to_ip(DnsRequest* request) {
    if (request == nullptr) return -1;
    if (name_is_localhost(text_view(request->name))) {
        return resolved(request, htonl(INADDR_LOOPBACK));
    }
    request->result = RESULT_NO_RESOLVER;
    if (dns_client_agent_init() != 0) return 0;
    const Channel channel = channel_create(*request);
    if (channel == nullptr) return 0;
    char name[sizeof(request->name) + 1];
    (void)text_copy(name, text_view(request->name));  // always fits

    Answer answer{};
    ares_gethostbyname(channel.get(), name, AF_INET, take_answer, &answer);
    channel_run(channel.get(), &answer);
    switch (answer.status) {
        case ARES_SUCCESS:
            return resolved(request, answer.address);
        case ARES_ENOTFOUND:
        case ARES_ENODATA:
        case ARES_EBADNAME:
            return -1;
        case ARES_ETIMEOUT:
        case ARES_ECANCELLED:
            request->result = RESULT_NO_ANSWER;
            return 0;
        default:
            request->result = RESULT_SERVER_FAILED;
            return 0;
    }
}
