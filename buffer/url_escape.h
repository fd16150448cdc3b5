// Percent-escaping of form values.
// Threads: any; works on its arguments only.
#pragma once

#include <cstdint>

// Classes of bytes that url_escape can be asked to escape, combined as a mask.
constexpr uint8_t URL_CLASS_RESERVED = 0x01;  // delimiters of a URL
constexpr uint8_t URL_CLASS_UNSAFE = 0x02;    // controls, blank, bytes above ASCII, and the like

// A copy of the text in which every byte of a class in class_mask is "%" and two
// upper-case hexadecimal digits. Null when memory is short. The caller releases
// it with mem_free.
[[nodiscard]] char* url_escape(const char* text, uint8_t class_mask);

// url_escape with URL_CLASS_UNSAFE: "&", "=" and "+" pass unchanged, as update
// servers expect. Null for a null text.
[[nodiscard]] char* url_escape_value(const char* text);
