// The terminal behind standard output: how large it is, and how much room text takes there.
// Threads: one.
#pragma once

#include <cstddef>
#include <string_view>

struct Window {
    size_t rows;
    size_t columns;
};

// As it is now; 24 by 80 where the terminal does not say (a serial line).
[[nodiscard]] Window window_now();

// Whether the cursor can be moved, by the sequences that all but the dumbest terminals know.
[[nodiscard]] bool window_moves_cursor();

// Columns that text without line ends takes, as the locale has its characters.
[[nodiscard]] size_t text_columns(std::string_view text);

// Rows of the window that the line takes, one at least.
[[nodiscard]] size_t text_rows(std::string_view line, const Window& window);

// As much of the text's front as fits.
[[nodiscard]] std::string_view text_fitting(std::string_view text, size_t columns);
