// The device's identity as update servers and operators see it, and whether the
// DNS client is ready.
// Threads: the readers (http_client_get_...) on the main thread; a field is
// filled once and never changes afterwards. Copies from any thread.
#pragma once

#include <atomic>
#include <type_traits>

// An empty text has not been read yet.
struct DeviceIdentity {
    char serial_number[32];
    char software_version[128];
    char product_name[32];
    char mac_address[32];
    char hardware_version[32];
};
static_assert(std::is_trivially_copyable_v<DeviceIdentity>);

// The texts as they stand now.
[[nodiscard]] DeviceIdentity device_identity_copy();

// Set once dns_client_agent_init has succeeded. Whoever finds it clear may try
// again.
extern std::atomic<bool> dns_ready;

// Reads every field and prepares the DNS client. Failures are logged and leave
// the field empty.
void http_client_get_device_info();

void http_client_get_serial();
void http_client_get_product();
void http_client_get_mac();
void http_client_get_hw_version();
void http_client_get_sw_version();
