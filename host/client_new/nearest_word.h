// Which keyword a mistyped word was to be.
// Threads: any; works on its arguments only.
#pragma once

#include <string_view>
#include <vector>

namespace client_new {

// The first of the keywords that the word, or an abbreviation of the keyword, comes near to:
// one slip in three letters, upper case apart. "": none.
std::string_view nearest_word(std::string_view word, const std::vector<std::string_view>& keywords);

}  // namespace client_new
