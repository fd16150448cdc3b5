// What the targets share.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>

inline void Require(bool fact) {
    if (!fact) abort();
}

// Cuts the text up to the mark off the front, and the mark; all of it where there is none.
inline std::string_view Take(std::string_view* rest, std::string_view mark) {
    const std::string_view taken = rest->substr(0, rest->find(mark));
    rest->remove_prefix(std::min(taken.size() + mark.size(), rest->size()));
    return taken;
}

// The private directory that tests/fuzz/run makes; everything is below it.
inline std::string Directory() { return getenv("TMPDIR"); }
void WriteFile(const std::string& path, std::string_view text);
