// Log lines in the file that stands in for the system log.
#include "frame/platform/syslog_new.h"

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace {

TEST(SyslogNew, EveryCallIsExactlyOneLine) {
    const struct {
        std::string text;
        std::string line;
    } rows[] = {
        {"convert source ip error!\r\n\n", "convert source ip error!"},
        {"%s%n", "%s%n"},
        {"", ""},
        {"[AB\nHTTPC DEBUG: forged\r]\t\x1b[2J\x7f \xc3\xa9",
         "[AB\\nHTTPC DEBUG: forged\\r]\t\\x1b[2J\\x7f \xc3\xa9"},
        {std::string(9000, 'x'), std::string(2047, 'x')},
    };
    const TempDir dir;
    setenv("PRINTK_SYSLOG_FILE", (dir / "log").c_str(), 1);
    std::string expected;
    for (const auto& row : rows) {
        printk_syslog_ext(7, "HTTPC", "DEBUG", 2, "%s\n", row.text.c_str());
        expected += "HTTPC DEBUG: " + row.line + "\n";
    }
    EXPECT_EQ(dir.Read("log"), expected);
    printk_syslog_ext(7, "HTTPC", "DEBUG", 2, "%s", std::string(9000, '\x01').c_str());
    EXPECT_TRUE(dir.Read("log").ends_with("\\x01\\x01\n")) << "escapes fill the line";
}

}  // namespace
