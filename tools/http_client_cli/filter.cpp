// Finding filters in a line, and applying them.
#include "filter.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::string_view BLANKS = " \t\r\n\v\f";
constexpr std::array<std::string_view, 3> WORDS = {"include", "exclude", "begin"};  // by kind

std::string_view trim_end(std::string_view text) {
    return text.substr(0, text.find_last_not_of(BLANKS) + 1);
}

std::string_view trim(std::string_view text) {
    return trim_end(text.substr(std::min(text.find_first_not_of(BLANKS), text.size())));
}

// The first word, taken off the text.
std::string_view take_word(std::string_view* text) {
    const size_t first = std::min(text->find_first_not_of(BLANKS), text->size());
    const size_t end = std::min(text->find_first_of(BLANKS, first), text->size());
    const std::string_view word = text->substr(first, end - first);
    text->remove_prefix(end);
    return word;
}

bool is_word_start(std::string_view line, size_t at) {
    return at == 0 || BLANKS.find(line[at - 1]) != BLANKS.npos;
}

// Offset of the next "|" that is a word of its own; npos: none.
size_t find_bar(std::string_view line, size_t from) {
    for (size_t at = line.find('|', from); at != line.npos; at = line.find('|', at + 1)) {
        const bool ends = at + 1 == line.size() || BLANKS.find(line[at + 1]) != BLANKS.npos;
        if (is_word_start(line, at) && ends) return at;
    }
    return line.npos;
}

// Which filter the word stands for; WORDS.size(): none.
size_t filter_of(std::string_view word) {
    if (word.empty()) return WORDS.size();
    const auto* found =
        std::ranges::find_if(WORDS, [&](std::string_view each) { return each.starts_with(word); });
    return static_cast<size_t>(found - WORDS.begin());
}

// The same for a "|" that begins a filter.
size_t find_filter(std::string_view line, size_t from) {
    for (size_t at = find_bar(line, from); at != line.npos; at = find_bar(line, at + 1)) {
        std::string_view rest = line.substr(at + 1);
        if (filter_of(take_word(&rest)) < WORDS.size()) return at;
    }
    return line.npos;
}

}  // namespace

FilteredCommand filter_split(std::string_view line) {
    size_t at = find_filter(line, 0);
    FilteredCommand parts{at == line.npos ? line : trim_end(line.substr(0, at)), {}, ""};
    while (at != line.npos) {
        const size_t next = find_filter(line, at + 1);
        std::string_view part = line.substr(at + 1, next == line.npos ? next : next - at - 1);
        const size_t kind = filter_of(take_word(&part));
        const std::string_view text = trim(part);
        if (text.empty()) {
            parts.refusal = "% Incomplete command after \"" + std::string(WORDS[kind]) + "\"\n";
            return parts;
        }
        parts.filters.push_back({static_cast<FilterKind>(kind), std::string(text), false});
        at = next;
    }
    return parts;
}

bool filter_passes(std::vector<Filter>* filters, std::string_view line) {
    return std::ranges::all_of(*filters, [&](Filter& filter) {
        const bool found = line.find(filter.text) != line.npos;
        filter.begun = filter.begun || found;
        switch (filter.kind) {
            case FilterKind::kInclude:
                return found;
            case FilterKind::kExclude:
                return !found;
            case FilterKind::kBegin:
                return filter.begun;
        }
        return true;
    });
}

bool filter_is_typed(std::string_view line, std::vector<std::string_view>* words) {
    size_t bar = line.npos;
    for (size_t at = find_bar(line, 0); at != line.npos; at = find_bar(line, at + 1)) bar = at;
    if (bar == line.npos || bar + 1 == line.size()) return false;
    std::string_view rest = line.substr(bar + 1);
    const std::string_view word = take_word(&rest);
    if (!word.empty() && filter_of(word) == WORDS.size()) return false;
    words->clear();
    if (!rest.empty()) return true;
    std::ranges::copy_if(WORDS, std::back_inserter(*words),
                         [&](std::string_view each) { return each.starts_with(word); });
    return true;
}
