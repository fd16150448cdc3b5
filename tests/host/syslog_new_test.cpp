// Log lines in the file that stands in for the system log.
#include "frame/platform/syslog_new.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

struct LogFile {
    LogFile() { setenv("PRINTK_SYSLOG_FILE", (dir / "log").c_str(), 1); }
    ~LogFile() { unsetenv("PRINTK_SYSLOG_FILE"); }
    std::string Text() const { return dir.Read("log"); }
    TempDir dir;
};

TEST(SyslogNew, EveryCallIsExactlyOneLine) {
    const struct {
        const char* text;
        const char* line;
    } rows[] = {
        {"sock 5<-->accept\n", "sock 5<-->accept"},
        {"no end", "no end"},
        {"convert source ip error!\r\n\n", "convert source ip error!"},
        {"%s%n", "%s%n"},
        {"", ""},
        {"[AB\nHTTPC DEBUG: forged\r]\t\x1b[2J\x7f \xc3\xa9",
         "[AB\\nHTTPC DEBUG: forged\\r]\t\\x1b[2J\\x7f \xc3\xa9"},
    };
    const LogFile log;
    std::string expected;
    for (const auto& row : rows) {
        printk_syslog_ext(7, "HTTPC", "DEBUG", 2, "%s\n", row.text);
        expected += std::string("HTTPC DEBUG: ") + row.line + "\n";
    }
    EXPECT_EQ(log.Text(), expected);
}

TEST(SyslogNew, LongTextIsCutAndStillEndsItsLine) {
    const LogFile log;
    for (const char filler : {'x', '\x01'}) {
        printk_syslog_ext(7, "HTTPC", "DEBUG", 2, "%s\n", std::string(9000, filler).c_str());
    }
    std::istringstream lines(log.Text());
    std::string plain, escaped, none;
    getline(lines, plain);
    getline(lines, escaped);
    EXPECT_EQ(plain, "HTTPC DEBUG: " + std::string(2047, 'x'));
    EXPECT_TRUE(escaped.ends_with("\\x01\\x01"));
    EXPECT_TRUE(lines.good() && !getline(lines, none));
}

TEST(SyslogNew, LinesOfSeveralThreadsStayWhole) {
    constexpr int THREADS = 4, LINES = 250;
    const LogFile log;
    std::vector<std::thread> threads;
    std::set<std::string> expected, found;
    for (int t = 0; t < THREADS; ++t) {
        const std::string body(static_cast<size_t>(100 * t + 50), static_cast<char>('a' + t));
        for (int i = 0; i < LINES; ++i) {
            expected.insert("HTTPC DEBUG: " + body + " " + std::to_string(i));
        }
        threads.emplace_back([body] {
            for (int i = 0; i < LINES; ++i) {
                printk_syslog_ext(7, "HTTPC", "DEBUG", 2, "%s %d\n", body.c_str(), i);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::istringstream lines(log.Text());
    for (std::string line; getline(lines, line);) EXPECT_TRUE(found.insert(line).second) << line;
    EXPECT_EQ(found, expected);
}

}  // namespace
