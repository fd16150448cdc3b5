// "COMMAND | include TEXT": which lines of a command's output are shown. The daemon never
// hears of it.
// Threads: one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

enum class FilterKind { kInclude, kExclude, kBegin };

struct Filter {
    FilterKind kind;
    std::string text;
    bool begun;  // kBegin: its line has come
};

// A line as it was typed, in parts.
struct FilteredCommand {
    std::string_view command;  // for the daemon
    std::vector<Filter> filters;
    std::string refusal;  // one line with its line end: a filter lacks its text
};

// A "|" counts only as a word of its own, before one that stands for a filter (or an
// abbreviation of it); any other belongs to the command. Several filters work in turn.
[[nodiscard]] FilteredCommand filter_split(std::string_view line);

// Whether all filters let the line pass; to be asked for each line in turn.
[[nodiscard]] bool filter_passes(std::vector<Filter>* filters, std::string_view line);

// Whether the line ends in a filter; *words become those that may complete its last word,
// none where text is due.
[[nodiscard]] bool filter_is_typed(std::string_view line, std::vector<std::string_view>* words);
