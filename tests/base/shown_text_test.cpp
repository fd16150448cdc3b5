#include "base/shown_text.h"

#include <gtest/gtest.h>

TEST(ShownText, HidesWhatDrivesATerminalAndNothingElse) {
    const struct {
        const char* text;
        const char* shown;
    } rows[] = {
        {"plain ~name-1.0", "plain ~name-1.0"},
        {"a\nb\x1b[2Jc\x7f", "a?b?[2Jc?"},
        {"\xc2\x9b"
         "1m \x9b"
         "1m",
         "?1m ?1m"},
        {"\xc2\xa0\xc3\x84\xe2\x82\xac\xf0\x9f\x98\x80",
         "\xc2\xa0\xc3\x84\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"\xe2\x82", "\xe2?"},     // cut
        {"\xb0\xa1", "\xb0\xa1"},  // of another encoding
        {"0123456789012345678901234567890123456789", "0123456789012345678901234567890"},
    };
    for (const auto& row : rows) EXPECT_STREQ(ShownText<32>(row.text).get(), row.shown);
}
