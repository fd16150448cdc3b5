// Matching of typed lines against parse trees: tree and words in, handler and
// filled record (or the line that says what is wrong) out.
//
// A word is taken by the keyword it equals; else, where free text may stand, as
// free text, so that nobody's name is ever read as an abbreviation ("http update
// a" updates the app "a", not all of them); else by the one keyword that it
// abbreviates, or as a number or time.
// Threads: any; works on its arguments and on the constant trees only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "frame/platform/client_new.h"

namespace client_new {

// What can be typed in one mode of a session.
struct Grammar {
    const cli_node* root;
    const cli_node* no_keyword;     // passing it makes it a "no" command
    const cli_node* debug_keyword;  // passing it makes context 1, negated 2
};

struct Match {
    cli_handler handler;  // null: refused
    cli_record record;    // words, flags and slots filled
    std::string refusal;  // one line with its line end
    size_t wrong_at;      // offset in the line of what was refused
    std::string nearest;  // the keyword that may have been meant; empty: none
};

// line: any bytes. context: of a command that is not a debug command.
Match match_line(const Grammar& grammar, std::string_view line, uint32_t context);

// What may follow the line at its end, one line each; after a line that matches
// nothing the refusal.
std::string match_help(const Grammar& grammar, std::string_view line);

// Keywords that the last, unfinished word of the line may become, in the order of
// the tree. They belong to the tree.
std::vector<std::string_view> match_complete(const Grammar& grammar, std::string_view line);

// No words, or a comment (first word begins with "!" or "#").
bool line_is_blank(std::string_view line);

}  // namespace client_new
