// Log calls and debug switches, on a real dump file.
#include "frame/log.h"

#include <unistd.h>

#include <regex>

#include "frame/debug.h"
#include "tests/support/daemon_test.h"

using Log = DaemonTest;

TEST_F(Log, LevelsPassByTheirBits) {
    for (const auto& [mask, levels] : {std::pair(0U, ""),
                                       {DEBUG_INFO, "01"},
                                       {DEBUG_CONNECT, "12"},
                                       {DEBUG_REGISTER, "3"},
                                       {DEBUG_DOWNLOAD, ""},
                                       {DEBUG_ERROR, "4"},
                                       {DEBUG_ALL, "01234"}}) {
        DebugMask = mask;
        std::string passed;
        for (int level = -1; level <= 5; ++level) {
            http_client_debug_print(level, "%s", "x");
            if (!fakes::Syslog().empty()) passed += std::to_string(level);
        }
        EXPECT_EQ(passed, levels) << mask;
    }
}

TEST_F(Log, LinesAreCutAndTakeDataAsData) {
    DebugMask = DEBUG_REGISTER;
    http_client_debug_print(HTTPC_LOG_REGISTER, "%s", std::string(2000, 'a').c_str());
    EXPECT_EQ(fakes::Syslog(), std::string(1023, 'a') + "\n");
    http_client_debug_dump("%s", "100%s%n");
    ExpectLog(":100%s%n\n");
    http_client_debug_dump("%s", std::string(3000, 'z').c_str());
    const std::regex form("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d " + std::to_string(getpid()) +
                          ":100%s%n\r\n[^\r]{1023}\r\n");
    EXPECT_TRUE(std::regex_match(dir_.Read(kDump), form));
}

TEST_F(Log, DumpStartsAgainBeyondItsLimit) {
    for (const size_t size : {524288u, 524289u}) {
        dir_.Write(kDump, std::string(size, 'o'));
        http_client_debug_dump("new");
        const std::string dump = dir_.Read(kDump);
        EXPECT_EQ(dump.size() > size, size <= 524288);
        EXPECT_TRUE(dump.ends_with(":new\r\n"));
    }
}

TEST_F(Log, DumpWithoutDirectoryIsSilentAndSymlinkIsRefused) {
    DebugMask = DEBUG_REGISTER;
    dir_.Write("victim", "untouched");
    std::filesystem::create_symlink(dir_ / "victim", dir_ / kDump);
    http_client_debug_dump("line");
    EXPECT_EQ(dir_.Read("victim"), "untouched");
    const std::string log = fakes::Syslog();
    EXPECT_HAS(log, "http_client_debug_dump open file [");
    EXPECT_HAS(log, ":line\n");

    std::filesystem::remove_all(dir_ / "oam");
    errno = EXDEV;
    http_client_debug_dump("line");
    EXPECT_EQ(errno, EXDEV) << "logging changed errno";
    EXPECT_EQ(fakes::Syslog(), "");
}

TEST_F(Log, SwitchesDriveMaskAndDownloadDebugging) {
    DebugMask = 0x100;  // bits above the categories stay
    for (const auto& [action, bits, mask, sessions] :
         {std::tuple(1U, DEBUG_DOWNLOAD | DEBUG_INFO, 0x109U, 1),
          {2, DEBUG_DOWNLOAD, 0x101, -1},
          {7, DEBUG_INFO, 0x101, 0}}) {
        cli_record record{};
        record.context = action;
        record.debug_bits = bits;
        http_client_debug_cmd(&record);
        EXPECT_EQ(DebugMask, mask) << action;
        EXPECT_EQ(fakes::DownloadDebug(), sessions) << action;
    }
}
