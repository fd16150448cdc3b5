// The DNS client's call can't be interrupted: it runs on a thread of its own, which is
// left behind when the caller cancels.
#include "host/http_util/resolve.h"

#include <arpa/inet.h>

#include <cstring>

#include "base/side_call.h"
#include "base/text.h"
#include "frame/platform/dnsclient.h"
#include "host/http_util/failure.h"

namespace {

constexpr int TICK_MS = 200;

// A look-up may take seconds and can't be interrupted.
struct Lookup {
    DnsRequest request{};
    int result = -1;
    void operator()() { result = dns_domain_to_ip(&request); }
};

bool request_fill(const char* host, uint32_t source, DnsRequest* request) {
    request->constant_260 = 1;
    request->constant_408 = 2;
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = source;
    memcpy(request->source, &from, sizeof(from));
    return text_copy(request->name, host);
}

}  // namespace

int host_resolve(const char* host, uint32_t source, Progress* progress, uint32_t* address,
                 int* said) {
    in_addr literal{};
    *said = -1;
    if (inet_pton(AF_INET, host, &literal) == 1) {
        *address = literal.s_addr;
        return 0;
    }
    Lookup lookup;
    if (dns_client_agent_init() != 0 || !hostname_verify(host) ||
        !request_fill(host, source, &lookup.request)) {
        return DOWNLOAD_NO_ADDRESS;
    }
    SideCall<Lookup> call;
    if (!call.Start(lookup)) return HTTP_DOWNLOAD_NO_MEMORY;
    const Lookup* done = nullptr;
    while ((done = call.Wait(TICK_MS)) == nullptr) {
        if (!progress->Tick()) return HTTP_DOWNLOAD_CANCELLED;
    }
    const DnsRequest& request = done->request;
    *said = done->result < 0 ? done->result : static_cast<int>(request.result);
    if (done->result < 0 || request.result != DNS_RESULT_RESOLVED || request.family != AF_INET) {
        return DOWNLOAD_NO_ADDRESS;
    }
    *address = request.address;
    return 0;
}
