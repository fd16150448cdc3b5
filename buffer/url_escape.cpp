// Two passes over the text: the first tells the size, so that the copy is allocated once.
// What is escaped stands in a table made at compile time, not in the locale's classes.
#include "buffer/url_escape.h"

#include <array>
#include <cstring>
#include <string_view>

#include "buffer/memory.h"

static constexpr std::array<uint8_t, 256> make_char_classes() {
    std::array<uint8_t, 256> classes{};
    for (unsigned byte = 0; byte < classes.size(); ++byte) {
        if (byte <= 0x20 || byte >= 0x7F) classes[byte] |= URL_CLASS_UNSAFE;
    }
    for (const char c : std::string_view("\"#%:<>@[\\]^`{|}")) {
        classes[static_cast<uint8_t>(c)] |= URL_CLASS_UNSAFE;
    }
    for (const char c : std::string_view("#$&+,/:;=?@[]")) {
        classes[static_cast<uint8_t>(c)] |= URL_CLASS_RESERVED;
    }
    return classes;
}

static constexpr std::array<uint8_t, 256> url_char_class = make_char_classes();
static constexpr char HEX_DIGITS[] = "0123456789ABCDEF";

char* url_escape(const char* text, uint8_t class_mask) {
    const size_t length = strlen(text);
    size_t extra = 0;
    for (size_t i = 0; i < length; ++i) {
        if ((url_char_class[static_cast<uint8_t>(text[i])] & class_mask) != 0) extra += 2;
    }
    const size_t size = length + extra + 1;
    if (size > INT32_MAX) return nullptr;
    auto* escaped = static_cast<char*>(mem_zalloc(static_cast<int32_t>(size)));
    if (escaped == nullptr) return nullptr;
    char* end = escaped;
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<uint8_t>(text[i]);
        if ((url_char_class[byte] & class_mask) != 0) {
            *end++ = '%';
            *end++ = HEX_DIGITS[byte >> 4];
            *end++ = HEX_DIGITS[byte & 0x0F];
        } else {
            *end++ = text[i];
        }
    }
    return escaped;
}

char* url_escape_value(const char* text) {
    return text == nullptr ? nullptr : url_escape(text, URL_CLASS_UNSAFE);
}
