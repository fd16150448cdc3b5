// Text from outside on its way to a person's eyes: a name or version that a server or
// an app gave must not forge lines of a report or drive the terminal. Clean text passes
// byte for byte.
// Header only. Threads: any; works on its arguments only.
#pragma once

#include <cstddef>
#include <string_view>

// Bytes that the UTF-8 character at the front of the text has; 1 where there is none.
[[nodiscard]] inline size_t utf8_length(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : first >= 0xc2 ? 2 : 1;
    if (length > text.size()) return 1;
    for (size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xc0) != 0x80) return 1;
    }
    return length;
}

// Whether that character controls a terminal: C0, DEL or C1, the last as a bare byte,
// too, since not every terminal reads UTF-8.
[[nodiscard]] inline bool is_control_character(std::string_view character) {
    const auto first = static_cast<unsigned char>(character.front());
    if (character.size() == 1) return first < 0x20 || (first >= 0x7f && first < 0xa0);
    return first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0;
}

// A copy, cut to N - 1 bytes, with "?" for each control character.
template <size_t N>
class ShownText {
  public:
    explicit ShownText(std::string_view text) {
        while (!text.empty()) {
            const std::string_view character = text.substr(0, utf8_length(text));
            text.remove_prefix(character.size());
            Append(is_control_character(character) ? "?" : character);
        }
    }
    [[nodiscard]] const char* get() const { return text_; }

  private:
    void Append(std::string_view bytes) {
        for (const char c : bytes) {
            if (length_ < N - 1) text_[length_++] = c;
        }
    }

    char text_[N]{};
    size_t length_ = 0;
};

// Of a whole text field.
template <size_t N>
ShownText(const char (&)[N]) -> ShownText<N>;
