// Text of IPv4 addresses, as operators configure them and replies carry them.
// Threads: any; works on its arguments only.
#pragma once

#include <arpa/inet.h>

// Converts dotted text, by the rules of inet_addr (short and hexadecimal forms
// too), into network byte order. 1; or 0 for a missing argument, other text, and
// 255.255.255.255, which inet_addr can't tell from an error.
[[nodiscard]] inline int ipv4_text_to_addr(const char* text, in_addr_t* address) {
    if (text == nullptr || address == nullptr) return 0;
    const in_addr_t value = inet_addr(text);
    if (value == INADDR_NONE) return 0;
    *address = value;
    return 1;
}
