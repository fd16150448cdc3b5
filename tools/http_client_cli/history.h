// Typed lines, kept from one session to the next in ~/.http_client_history (mode 0600, a few
// hundred lines). Without a HOME of the user's own there is no history.
// Threads: one.
#pragma once

#include <string>
#include <vector>

constexpr size_t HISTORY_LINES = 200;

// The oldest first; none where there is no file, or one that is not ours.
[[nodiscard]] std::vector<std::string> history_load();

// Adds the lines behind those that are there by now: sessions side by side each add
// theirs. A failure costs the lines and is not told.
void history_add(const std::vector<std::string>& lines);
