// Distance in typing slips: a letter left out, put in, changed, or two swapped.
#include "host/client_new/nearest_word.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace client_new {

namespace {

// Keywords are short; a longer word is none of them.
constexpr size_t LENGTH_MAX = 32;

bool same_letter(char a, char b) {
    return tolower(static_cast<unsigned char>(a)) == tolower(static_cast<unsigned char>(b));
}

// Both at most LENGTH_MAX long.
size_t slips_between(std::string_view a, std::string_view b) {
    // [i][j]: between the first i letters of one and the first j of the other.
    std::array<std::array<size_t, LENGTH_MAX + 1>, LENGTH_MAX + 1> slips{};
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            size_t least = std::max(i, j);
            if (i > 0 && j > 0) {
                const size_t changed = same_letter(a[i - 1], b[j - 1]) ? 0 : 1;
                least = std::min(
                    {slips[i - 1][j] + 1, slips[i][j - 1] + 1, slips[i - 1][j - 1] + changed});
                const bool swapped = i > 1 && j > 1 && same_letter(a[i - 1], b[j - 2]) &&
                                     same_letter(a[i - 2], b[j - 1]);
                if (swapped) least = std::min(least, slips[i - 2][j - 2] + 1);
            }
            slips[i][j] = least;
        }
    }
    return slips[a.size()][b.size()];
}

}  // namespace

std::string_view nearest_word(std::string_view word,
                              const std::vector<std::string_view>& keywords) {
    std::string_view nearest;
    size_t fewest = word.size() / 3 + 1;
    for (const std::string_view keyword : keywords) {
        if (word.size() > LENGTH_MAX || keyword.size() > LENGTH_MAX) continue;
        const size_t slips = std::min(slips_between(word, keyword),
                                      slips_between(word, keyword.substr(0, word.size())));
        if (slips >= fewest) continue;
        fewest = slips;
        nearest = keyword;
    }
    return nearest;
}

}  // namespace client_new
