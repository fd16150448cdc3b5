// All readings of the line are followed side by side, in order of preference:
// each word takes every reading one step on, or ends it. When the words are used
// up, the first reading that may end there wins.
#include "host/client_new/match.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "base/text.h"
#include "host/client_new/cli_protocol.h"
#include "host/client_new/nearest_word.h"

namespace client_new {

namespace {

// Nodes that take no word may be chained, and a faulty tree may chain them into a
// ring; no honest tree needs as many as this.
constexpr int FREE_STEPS_MAX = 64;
constexpr size_t READINGS_MAX = 64;
constexpr size_t SHOWN_WORD_MAX = 64;
constexpr std::string_view BLANKS = " \t\r\n\v\f";

struct Reading {
    const cli_node* node;  // what comes next, with its alternatives
    cli_record record;
    std::string path;      // words passed, keywords in full
    const cli_node* line;  // what has taken the rest of the line, or null
};

// A node that may take the next word (or end the line), and the reading there.
struct Option {
    const cli_node* node;
    Reading reading;
};

struct Word {
    std::string_view text;
    std::string_view rest;  // from the word to the end of the line
};

std::string_view trim_end(std::string_view line) {
    const size_t last = line.find_last_not_of(BLANKS);
    return last == line.npos ? std::string_view() : line.substr(0, last + 1);
}

std::vector<Word> split_words(std::string_view line) {
    line = trim_end(line);
    std::vector<Word> words;
    for (size_t at = line.find_first_not_of(BLANKS); at != line.npos;) {
        const size_t end = std::min(line.find_first_of(BLANKS, at), line.size());
        words.push_back({line.substr(at, end - at), line.substr(at)});
        at = line.find_first_not_of(BLANKS, end);
    }
    return words;
}

// The word as it can be shown on any terminal.
std::string quoted(std::string_view word) {
    std::string shown = "\"";
    for (const char c : word.substr(0, SHOWN_WORD_MAX)) {
        const auto byte = static_cast<unsigned char>(c);
        shown += byte < 0x20 || byte == 0x7f ? '?' : c;
    }
    return shown + (word.size() > SHOWN_WORD_MAX ? "...\"" : "\"");
}

void store_number(cli_record* record, cli_slot slot, int32_t value) {
    if (slot == CLI_SLOT_DEBUG) record->debug_bits = static_cast<uint32_t>(value);
    if (slot == CLI_SLOT_VALUE1) record->value1 = value;
    if (slot == CLI_SLOT_VALUE2) record->value2 = value;
}

// False: longer than the slot.
bool store_text(cli_record* record, cli_slot slot, std::string_view text) {
    if (slot == CLI_SLOT_STRING1) return text_copy(record->string1, text);
    if (slot == CLI_SLOT_STRING2) return text_copy(record->string2, text);
    return text.size() < sizeof(record->string1);
}

void add_word(std::string* path, std::string_view word) {
    if (!path->empty()) *path += ' ';
    *path += word;
}

// Follows the nodes that take no word, and collects the others.
void collect(const Reading& reading, int steps, std::vector<Option>* options) {
    if (steps > FREE_STEPS_MAX) return;
    for (const cli_node* node = reading.node; node != Tno_alt; node = node->alternative) {
        if (options->size() >= READINGS_MAX) return;
        Reading onward = reading;
        onward.node = node->next;
        switch (node->kind) {
            case CLI_NODE_NOP:
            case CLI_NODE_APPEND_POINT:
                collect(onward, steps + 1, options);
                break;
            case CLI_NODE_SET_VAR:
                store_number(&onward.record, node->slot, node->value);
                collect(onward, steps + 1, options);
                break;
            case CLI_NODE_C2P:
                // A path that does not fit can't be written as configuration.
                if (text_copy(onward.record.words, onward.path)) {
                    collect(onward, steps + 1, options);
                }
                break;
            case CLI_NODE_NOPREFIX:
                if (reading.record.no_flag != 0) collect(onward, steps + 1, options);
                break;
            case CLI_NODE_KEYWORD:
            case CLI_NODE_NUMBER:
            case CLI_NODE_STRING:
            case CLI_NODE_LINE:
            case CLI_NODE_TIME:
            case CLI_NODE_EOL:
                options->push_back({node, onward});
                break;
        }
    }
}

std::vector<Option> collect_all(const std::vector<Reading>& readings) {
    std::vector<Option> options;
    for (const Reading& reading : readings) collect(reading, 0, &options);
    return options;
}

// What keeps a node that takes free words from taking this one; empty: nothing.
std::string take_number(const cli_node* node, std::string_view word, Reading* reading) {
    int64_t number = 0;
    const char* end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    const bool digits = stop == end && error != std::errc::invalid_argument;
    if (!digits || error != std::errc() || number < node->value || number > node->maximum) {
        char text[64];
        (void)snprintf(text, sizeof(text),
                       "%% %s (%d to %d): ", digits ? "Out of range" : "Not a number", node->value,
                       node->maximum);
        return text + quoted(word);
    }
    store_number(&reading->record, node->slot, static_cast<int32_t>(number));
    return "";
}

std::string take_time(const cli_node* node, std::string_view word, Reading* reading) {
    const auto digit = [&](size_t at) { return word[at] >= '0' && word[at] <= '9'; };
    const auto pair = [&](size_t at) { return (word[at] - '0') * 10 + word[at + 1] - '0'; };
    if (word.size() != 5 || word[2] != ':' || !digit(0) || !digit(1) || !digit(3) || !digit(4) ||
        pair(0) > 23 || pair(3) > 59) {
        return "% Not a time of day (hh:mm, 00:00 to 23:59): " + quoted(word);
    }
    store_number(&reading->record, node->slot, pair(0));
    store_number(&reading->record, node->slot2, pair(3));
    return "";
}

std::string take_text(const cli_node* node, const Word& word, Reading* reading) {
    if (node->kind == CLI_NODE_LINE) reading->line = node;
    const std::string_view text = node->kind == CLI_NODE_LINE ? word.rest : word.text;
    if (store_text(&reading->record, node->slot, text)) return "";
    return "% Too long (at most " + std::to_string(sizeof(reading->record.string1) - 1) +
           " bytes): " + quoted(text);
}

std::string take_free_word(const cli_node* node, const Word& word, Reading* reading) {
    if (node->kind == CLI_NODE_NUMBER) return take_number(node, word.text, reading);
    if (node->kind == CLI_NODE_TIME) return take_time(node, word.text, reading);
    return take_text(node, word, reading);
}

void take_keyword(const Grammar& grammar, const cli_node* node, Reading* reading) {
    cli_record* record = &reading->record;
    store_number(record, node->slot, node->value);
    if (node == grammar.no_keyword) {
        record->no_flag = 1;
        return;  // no part of a configuration line's words
    }
    if (node == grammar.debug_keyword) record->context = record->no_flag != 0 ? 2 : 1;
    add_word(&reading->path, node->keyword);
}

bool takes_free_text(const cli_node* node) {
    return node->kind == CLI_NODE_STRING || node->kind == CLI_NODE_LINE;
}

// The keywords that begin with the word, in the order of the tree; equal texts
// (two trees, two branches) count once.
std::vector<std::string_view> keywords_from(const std::vector<Option>& options,
                                            std::string_view word) {
    std::vector<std::string_view> found;
    for (const Option& option : options) {
        if (option.node->kind != CLI_NODE_KEYWORD) continue;
        const std::string_view keyword = option.node->keyword;
        if (keyword.starts_with(word) && std::ranges::find(found, keyword) == found.end()) {
            found.push_back(keyword);
        }
    }
    return found;
}

// The keywords that this word stands for: the one it equals, else all that it
// abbreviates, unless it may be free text.
std::vector<std::string_view> keywords_meant(const std::vector<Option>& options,
                                             std::string_view word) {
    std::vector<std::string_view> meant = keywords_from(options, word);
    if (std::ranges::find(meant, word) != meant.end()) return {word};
    const bool free_text = std::ranges::any_of(
        options, [](const Option& option) { return takes_free_text(option.node); });
    if (free_text) meant.clear();
    return meant;
}

// Why a line is refused, and where.
struct Refusal {
    std::string text;
    const char* at = nullptr;  // in the line
    std::string_view nearest;
};

std::string refuse_word(const std::vector<Option>& options,
                        const std::vector<std::string_view>& meant, std::string_view word) {
    if (meant.size() > 1) {
        std::string names;
        for (const std::string_view name : meant) {
            names += names.empty() ? " (" : ", ";
            names += name;
        }
        return "% Ambiguous word: " + quoted(word) + names + ")";
    }
    const bool only_end = std::ranges::all_of(
        options, [](const Option& option) { return option.node->kind == CLI_NODE_EOL; });
    return (only_end ? "% Unexpected word: " : "% Unknown word: ") + quoted(word);
}

// Takes every reading over one word. None left: *refusal says why.
std::vector<Reading> advance(const Grammar& grammar, const std::vector<Reading>& readings,
                             const Word& word, Refusal* refusal) {
    std::vector<Reading> open;
    std::vector<Reading> with_line;
    for (const Reading& reading : readings) {
        (reading.line != nullptr ? with_line : open).push_back(reading);
    }
    std::vector<Option> options = collect_all(open);
    const std::vector<std::string_view> meant = keywords_meant(options, word.text);
    std::vector<Reading> onward;
    if (meant.size() == 1) {
        for (Option& option : options) {
            if (option.node->kind != CLI_NODE_KEYWORD || option.node->keyword != meant[0]) continue;
            take_keyword(grammar, option.node, &option.reading);
            onward.push_back(option.reading);
        }
    }
    std::string failure;
    const bool exact = meant.size() == 1 && meant[0] == word.text;
    for (Option& option : options) {
        if (exact || option.node->kind == CLI_NODE_KEYWORD || option.node->kind == CLI_NODE_EOL) {
            continue;
        }
        std::string reason = take_free_word(option.node, word, &option.reading);
        if (reason.empty()) {
            add_word(&option.reading.path, word.text);
            onward.push_back(option.reading);
        } else if (failure.empty()) {
            failure = std::move(reason);
        }
    }
    onward.insert(onward.end(), with_line.begin(), with_line.end());
    if (onward.empty()) {
        const bool free_word = !failure.empty() && meant.empty();
        refusal->text = (free_word ? failure : refuse_word(options, meant, word.text)) + "\n";
        refusal->at = word.text.data();
        if (meant.empty()) refusal->nearest = nearest_word(word.text, keywords_from(options, ""));
    }
    return onward;
}

// Takes the readings over the words; none left: *refusal says why.
std::vector<Reading> advance_all(const Grammar& grammar, const std::vector<Word>& words,
                                 uint32_t context, Refusal* refusal) {
    std::vector<Reading> readings(1);
    readings[0].node = grammar.root;
    readings[0].record.context = context;
    for (const Word& word : words) {
        readings = advance(grammar, readings, word, refusal);
        if (readings.empty()) break;
    }
    return readings;
}

// Splits the unfinished last word off the words before it.
std::string_view take_partial(std::string_view line, std::vector<Word>* words) {
    *words = split_words(line);
    if (words->empty() || BLANKS.find(line.back()) != BLANKS.npos) return "";
    const std::string_view partial = words->back().text;
    words->pop_back();
    return partial;
}

std::string option_label(const cli_node* node) {
    switch (node->kind) {
        case CLI_NODE_KEYWORD:
            return node->keyword;
        case CLI_NODE_NUMBER:
            return std::string("<").append(std::to_string(node->value)) + "-" +
                   std::to_string(node->maximum) + ">";
        case CLI_NODE_STRING:
            return "WORD";
        case CLI_NODE_LINE:
            return "LINE";
        case CLI_NODE_TIME:
            return "hh:mm";
        case CLI_NODE_EOL:
        case CLI_NODE_SET_VAR:
        case CLI_NODE_NOPREFIX:
        case CLI_NODE_NOP:
        case CLI_NODE_C2P:
        case CLI_NODE_APPEND_POINT:
            break;
    }
    return "<cr>";
}

std::string help_line(const cli_node* node) {
    std::string text = "  " + option_label(node);
    if (node->help != nullptr) {
        text.resize(std::max(text.size() + 2, size_t{24}), ' ');
        text += node->help;
    }
    return text + '\n';
}

}  // namespace

bool line_is_blank(std::string_view line) {
    const size_t first = line.find_first_not_of(BLANKS);
    return first == line.npos || line[first] == '!' || line[first] == '#';
}

Match match_line(const Grammar& grammar, std::string_view line, uint32_t context) {
    Match match{};
    if (line.size() > LINE_LENGTH_MAX) {
        match.refusal = "% Line too long (at most " + std::to_string(LINE_LENGTH_MAX) + " bytes)\n";
        return match;
    }
    if (line.find('\0') != line.npos) {
        match.refusal = "% Line with a zero byte\n";
        return match;
    }
    const std::vector<Word> words = split_words(line);
    Refusal refusal;
    const std::vector<Reading> readings = advance_all(grammar, words, context, &refusal);
    for (const Option& option : collect_all(readings)) {
        if (option.node->kind != CLI_NODE_EOL || option.node->handler == nullptr) continue;
        match.handler = option.node->handler;
        match.record = option.reading.record;
        return match;
    }
    match.refusal = std::move(refusal.text);
    match.nearest = refusal.nearest;
    match.wrong_at = refusal.at != nullptr ? static_cast<size_t>(refusal.at - line.data())
                                           : trim_end(line).size() + 1;
    if (match.refusal.empty()) {
        match.refusal = words.empty()
                            ? "% Empty command\n"
                            : "% Incomplete command after " + quoted(words.back().text) + "\n";
    }
    return match;
}

std::string match_help(const Grammar& grammar, std::string_view line) {
    std::vector<Word> words;
    const std::string_view partial = take_partial(line, &words);
    Refusal refusal;
    const std::vector<Reading> readings = advance_all(grammar, words, 0, &refusal);
    if (readings.empty()) return refusal.text;

    std::vector<std::string> lines;
    const auto add = [&](const cli_node* node) {
        const std::string text = help_line(node);
        if (std::ranges::find(lines, text) == lines.end()) lines.push_back(text);
    };
    for (const Option& option : collect_all(readings)) {
        const cli_node* node = option.node;
        const cli_node* line_node = option.reading.line;
        if (line_node != nullptr) add(line_node);  // more words may follow
        const bool fits =
            node->kind == CLI_NODE_KEYWORD
                ? std::string_view(node->keyword).starts_with(partial)
                : node->kind != CLI_NODE_EOL || partial.empty() || line_node != nullptr;
        if (fits) add(node);
    }
    if (lines.empty()) return "% Unknown word: " + quoted(partial) + "\n";
    std::string help;
    for (const std::string& text : lines) help += text;
    return help;
}

std::vector<std::string_view> match_complete(const Grammar& grammar, std::string_view line) {
    std::vector<Word> words;
    const std::string_view partial = take_partial(line, &words);
    Refusal refusal;
    return keywords_from(collect_all(advance_all(grammar, words, 0, &refusal)), partial);
}

}  // namespace client_new
