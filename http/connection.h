// Connecting to an update server: IPv4 only, from the configured source address.
// Threads: any; each connection belongs to the thread that opened it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "config/server_list.h"
#include "http/attempt.h"
#include "http/status.h"

// Address of a host, network byte order: dotted text is converted, anything else
// asked for at the name service, from the source address. 1; 0 when there is
// none, with the reason logged, and in cause unless that is null.
[[nodiscard]] int url_domain_to_ip(const char* host, in_addr_t* address,
                                   const sockaddr_storage& source, Cause* cause = nullptr);

// A connected, non-blocking socket, which the caller closes; -1 with the reason
// logged, and in cause unless that is null. Takes 3 seconds at most beside the name
// look-up.
[[nodiscard]] int http_update_url_connect_detail(const char* host, uint16_t port,
                                                 Cause* cause = nullptr);

// Connects server->socket. UPDATE_OK; UPDATE_CONNECT_FAIL leaves it -1, also when
// a cancel ended the wait, which it does within a quarter of a second.
[[nodiscard]] UpdateStatus url_connect(UpdateServer* server, Attempt* attempt = nullptr);
