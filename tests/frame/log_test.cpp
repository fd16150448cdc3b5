// Log calls and debug switches, on a real dump file.
#include "frame/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "frame/debug.h"
#include "frame/paths.h"
#include "tests/fakes/fakes.h"
#include "tests/support/temp_dir.h"

class Log : public testing::Test {
  protected:
    static constexpr char kDump[] = "oam/http_client/.http_reg_server_dump";

    Log() {
        fakes::Reset();
        DebugMask = 0;
        setenv("TMPDIR", dir_.path().c_str(), 1);
        setenv("DATA_VEMO_DIR", (dir_ / "data").c_str(), 1);
        http_client_get_env_dir();
        std::filesystem::create_directories(dir_ / "oam/http_client");
    }

    TempDir dir_;
};

TEST_F(Log, LevelsPassByTheirBits) {
    struct Row {
        uint32_t mask;
        const char* levels;  // that pass
    };
    for (const Row& row : {Row{0, ""},
                           {DEBUG_INFO, "01"},
                           {DEBUG_CONNECT, "12"},
                           {DEBUG_REGISTER, "3"},
                           {DEBUG_DOWNLOAD, ""},
                           {DEBUG_ERROR, "4"},
                           {DEBUG_ALL, "01234"}}) {
        SCOPED_TRACE(row.mask);
        DebugMask = row.mask;
        std::string passed;
        for (int level = -1; level <= 5; level++) {
            http_client_debug_print(level, "%s", "x");
            if (!fakes::Syslog().empty()) passed += std::to_string(level);
        }
        EXPECT_EQ(passed, row.levels);
    }
}

TEST_F(Log, PrintCutsAndTakesDataAsData) {
    DebugMask = DEBUG_INFO;
    http_client_debug_print(HTTPC_LOG_INFO, "%s", std::string(2000, 'a').c_str());
    EXPECT_EQ(fakes::Syslog(), std::string(1023, 'a') + "\n");
    http_client_debug_print(HTTPC_LOG_INFO, "%s", "100%s%n");
    EXPECT_EQ(fakes::Syslog(), "100%s%n\n");
}

TEST_F(Log, DumpLineHasTimeProcessAndMessage) {
    DebugMask = DEBUG_REGISTER;
    http_client_debug_dump("first %d", 1);
    http_client_debug_dump("%s", std::string(3000, 'z').c_str());
    const std::string dump = dir_.Read(kDump);
    const std::regex form("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d " + std::to_string(getpid()) +
                          ":(first 1)\r\n([^\r]{1023})\r\n");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(dump, match, form)) << dump.substr(0, 200);
    EXPECT_NE(fakes::Syslog().find("first 1\n"), std::string::npos);
}

TEST_F(Log, DumpStartsAgainBeyondItsLimit) {
    for (const size_t size : {524288u, 524289u}) {
        SCOPED_TRACE(size);
        dir_.Write(kDump, std::string(size, 'o'));
        http_client_debug_dump("new");
        const std::string dump = dir_.Read(kDump);
        EXPECT_EQ(dump.size() > size, size <= 524288);
        EXPECT_EQ(dump.substr(dump.size() - 5), "new\r\n");
    }
}

TEST_F(Log, DumpWithoutDirectoryIsSilentAndSymlinkIsRefused) {
    DebugMask = DEBUG_REGISTER;
    dir_.Write("victim", "untouched");
    std::filesystem::create_symlink(dir_ / "victim", dir_ / kDump);
    http_client_debug_dump("line");
    EXPECT_EQ(dir_.Read("victim"), "untouched");
    const std::string log = fakes::Syslog();
    EXPECT_NE(log.find("http_client_debug_dump open file ["), std::string::npos);
    EXPECT_NE(log.find(":line\n"), std::string::npos);

    std::filesystem::remove_all(dir_ / "oam");
    errno = EXDEV;
    http_client_debug_dump("line");
    EXPECT_EQ(errno, EXDEV) << "logging changed errno";
    EXPECT_EQ(fakes::Syslog(), "");
}

TEST_F(Log, SwitchesDriveMaskAndDownloadDebugging) {
    for (const auto& [letter, mask] : std::map<char, uint32_t>{{'a', 0xff},
                                                               {'c', 0x02},
                                                               {'d', 0x08},
                                                               {'e', 0x10},
                                                               {'i', 0x01},
                                                               {'r', 0x04},
                                                               {'x', 0}}) {
        SCOPED_TRACE(letter);
        fakes::Reset();
        DebugMask = 0;
        http_client_debug_option(letter);
        EXPECT_EQ(DebugMask, mask);
        EXPECT_EQ(fakes::DownloadDebug(), (mask & DEBUG_DOWNLOAD) != 0 ? 1 : 0);
    }
    fakes::Reset();
    DebugMask = 0x100;
    cli_record record{};
    record.debug_bits = DEBUG_DOWNLOAD | DEBUG_INFO;
    record.context = 1;
    http_client_debug_cmd(&record);
    EXPECT_EQ(DebugMask, 0x109u);
    record.debug_bits = DEBUG_DOWNLOAD;
    record.context = 2;
    http_client_debug_cmd(&record);
    EXPECT_EQ(DebugMask, 0x101u);
    EXPECT_EQ(fakes::DownloadDebug(), 0);
    record.context = 7;
    http_client_debug_cmd(&record);
    EXPECT_EQ(DebugMask, 0x101u);

    http_client_debug_all(1);
    EXPECT_EQ(DebugMask, 0x1ffu);
    http_client_debug_all(3);
    EXPECT_EQ(fakes::Terminal(),
              "http-client debugging status:\r\n"
              "  http-client info debugging is on\r\n"
              "  http-client connect debugging is on\r\n"
              "  http-client register debugging is on\r\n"
              "  http-client error debugging is on\r\n"
              "  http-client download debugging is on\r\n");
    http_client_debug_all(2);
    EXPECT_EQ(DebugMask, 0x100u) << "bits above the categories stay";
    EXPECT_EQ(fakes::DownloadDebug(), 0);
    DebugMask = 0;
    http_client_debug_status();
    EXPECT_EQ(fakes::Terminal(), "");
}
