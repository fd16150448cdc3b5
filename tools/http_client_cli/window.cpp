// Size of the terminal, and columns of characters.
#include "window.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>

namespace {

constexpr size_t TAB_COLUMNS = 8;

// The character at the front: bytes it has, and columns it takes.
struct Character {
    size_t bytes;
    size_t columns;
};

Character first_character(std::string_view text) {
    wchar_t wide = 0;
    mbstate_t state{};
    const size_t bytes = mbrtowc(&wide, text.data(), text.size(), &state);
    const bool valid = bytes != 0 && bytes <= text.size();
    if (!valid) return {1, 1};
    if (wide == L'\t') return {1, TAB_COLUMNS};
    return {bytes, static_cast<size_t>(std::max(wcwidth(wide), 0))};
}

}  // namespace

Window window_now() {
    winsize size{};
    (void)ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);  // fails where there is no terminal
    return {size.ws_row != 0 ? size.ws_row : size_t{24},
            size.ws_col != 0 ? size.ws_col : size_t{80}};
}

bool window_moves_cursor() {
    const char* kind = getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && kind != nullptr && *kind != '\0' &&
           std::string_view(kind) != "dumb";
}

size_t text_columns(std::string_view text) {
    size_t columns = 0;
    while (!text.empty()) {
        const Character character = first_character(text);
        columns += character.columns;
        text.remove_prefix(character.bytes);
    }
    return columns;
}

size_t text_rows(std::string_view line, const Window& window) {
    const size_t columns = text_columns(line);
    return columns == 0 ? 1 : (columns + window.columns - 1) / window.columns;
}

std::string_view text_fitting(std::string_view text, size_t columns) {
    size_t bytes = 0;
    while (bytes < text.size()) {
        const Character character = first_character(text.substr(bytes));
        if (character.columns > columns) break;
        columns -= character.columns;
        bytes += character.bytes;
    }
    return text.substr(0, bytes);
}
