// DNS client library (libdnsclient.so), IPv4.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#ifdef __cplusplus
#include <string.h>

#include <string_view>

#include "base/text.h"
#else
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define DNS_RESULT_RESOLVED 2

// One look-up, set up by dns_request_make. The meaning of the constants is the
// library's.
struct DnsRequest {
    char name[256];  // in, zero-terminated
    uint8_t reserved_256[4];
    uint32_t constant_260;  // in, 1
    uint32_t constant_264;  // in, 0
    uint32_t constant_268;  // in, 0
    uint8_t reserved_272[8];
    uint8_t source[128];    // in, sockaddr_storage: the address to ask from, 0.0.0.0 for any
    uint64_t constant_408;  // in, 2
    uint64_t constant_416;  // in, 0
    uint32_t result;        // out, DNS_RESULT_RESOLVED when there is an answer
    uint8_t reserved_428[12];
    uint16_t family;  // out, AF_INET
    uint16_t reserved_442;
    uint32_t address;  // out, network byte order
    uint8_t reserved_448[1040];
};

// Prepares the resolver. 0: it is ready.
// Threads: any.
int dns_client_agent_init(void);

// True when the text is acceptable as a host name.
bool hostname_verify(const char* host);

// Resolves request->name to one IPv4 address, in bounded time. Negative:
// failure; otherwise result says whether an address was obtained.
// Threads: any.
int dns_domain_to_ip(struct DnsRequest* request);

#ifdef __cplusplus
}

static_assert(sizeof(DnsRequest) == 1488 && sizeof(sockaddr_storage) == 128);
static_assert(offsetof(DnsRequest, constant_260) == 260 && offsetof(DnsRequest, source) == 280);
static_assert(offsetof(DnsRequest, constant_408) == 408 && offsetof(DnsRequest, result) == 424);
static_assert(offsetof(DnsRequest, family) == 440 && offsetof(DnsRequest, address) == 444);

// A look-up of that host (cut to 255 characters) that leaves from source, an
// IPv4 socket address; 0.0.0.0 stands for any.
inline DnsRequest dns_request_make(std::string_view host, const sockaddr_storage& source) {
    DnsRequest request{};
    (void)text_copy(request.name, host);
    request.constant_260 = 1;
    request.constant_408 = 2;
    memcpy(request.source, &source, sizeof(source));
    return request;
}
#endif
