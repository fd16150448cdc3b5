// Sets of registered apps, by their slots in the registry.
// Threads: any; works on its arguments only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

// Copied whole between threads.
constexpr size_t APP_SET_WORDS = 1024;
struct AppSet {
    uint64_t words[APP_SET_WORDS];
};
static_assert(std::is_trivially_copyable_v<AppSet>);

inline void app_set_insert(AppSet* set, int slot) {
    set->words[slot / 64] |= uint64_t{1} << (slot % 64);
}
[[nodiscard]] inline bool app_set_contains(const AppSet& set, int slot) {
    return (set.words[slot / 64] >> (slot % 64) & 1) != 0;
}

[[nodiscard]] bool app_set_is_empty(const AppSet& set);

// result becomes the slots that are in both sets. Missing arguments leave it
// untouched.
void app_set_and(const AppSet* first, const AppSet* second, AppSet* result);
