// Typed commands go through the tree to the handlers, as they do on an ordinary
// machine.
#include "config/config_commands.h"

#include <gtest/gtest.h>

#include <string>

#include "config/server_list.h"
#include "config/settings.h"
#include "frame/log.h"
#include "host/client_new/match.h"
#include "tests/fakes/fakes.h"

namespace {

constexpr cli_node no_word = common_keyword_action("no", "", &cfg_http_update_tree, Tno_alt);
constexpr cli_node root = nop_action(&cfg_http_update_tree, &no_word);

class ConfigCommands : public testing::Test {
  protected:
    void SetUp() override {
        fakes::Reset();
        hu_serv_config_init();
        update_mode = UPDATE_MODE_AUTO;
        default_update_time_set({4, 7});
        update_time_default();
    }
    void TearDown() override { hu_serv_config_init(); }

    // False: the words were refused.
    static bool Type(const std::string& line, uint32_t context = 0, uint32_t output = 0) {
        client_new::Match match = client_new::match_line({&root, &no_word, nullptr}, line, context);
        if (match.handler == nullptr) return false;
        match.record.output_flags = output;
        match.handler(&match.record);
        return true;
    }
    static std::string RunningConfig(uint32_t output = CLI_OUTPUT_RUNNING) {
        for (const char* line : {"http update mode manual", "http update source_ip 1.1.1.1",
                                 "http update server 1.1.1.1", "http update time daily 11:11"}) {
            EXPECT_TRUE(Type(line, 0, output)) << line;
        }
        return fakes::ConfigLines();
    }
};

TEST_F(ConfigCommands, RunningConfigurationTellsTheState) {
    struct Row {
        const char* command;
        const char* config;  // of all that was typed so far
    };
    const Row rows[] = {
        {"no http update mode", ""},
        {"http update mode manual", "http update mode manual\n"},
        {"no http update mode", ""},
        {"http update source_ip 10.1", "http update source_ip 10.1\n"},
        {"http update source_ip 0.0.0.0", ""},
        {"http update source_ip 10.1.1.2", "http update source_ip 10.1.1.2\n"},
        {"no http update source_ip", ""},
        {"http update server 10.1.1.1", "http update server 10.1.1.1 port 80\n"},
        {"http update server up.example port 65535", "http update server up.example port 65535\n"},
        {"no http update server up.example port 65535", ""},
        {"http update server 10.1.1.1 port 81", "http update server 10.1.1.1 port 81\n"},
        {"no http update server", ""},
        {"http update time daily 00:00", "http update time daily 00:00\n"},
        {"http update time daily 04:08", "http update time daily 04:08\n"},
        {"http update time daily 04:07", ""},
        {"http update time daily 23:59", "http update time daily 23:59\n"},
        {"no http update time", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.command);
        EXPECT_TRUE(Type(row.command));
        EXPECT_EQ(RunningConfig(), row.config);
        EXPECT_EQ(RunningConfig(CLI_OUTPUT_STARTUP), row.config);
        EXPECT_EQ(fakes::Terminal() + fakes::ConfigErrors(), "");
    }
}

TEST_F(ConfigCommands, WholeConfiguration) {
    for (const char* line :
         {"http update time daily 3:05", "http update", "http update server", "http update mode",
          "http update server a port 0", "http update server a port 65536",
          "http update time daily", "no http update mode manual x", "http update server a b"}) {
        EXPECT_FALSE(Type(line)) << line;
    }
    ASSERT_EQ(hu_serv_config_add("h", 8080, "/own", false), HU_SERV_OK);
    EXPECT_TRUE(Type("http update mode manual"));
    EXPECT_TRUE(Type("http update source_ip 10.1.1.2"));
    EXPECT_TRUE(Type("http update time daily 03:05"));
    EXPECT_TRUE(Type("http update server second", 1));  // not written
    DebugMask = DEBUG_INFO;
    EXPECT_EQ(RunningConfig(),
              "http update mode manual\nhttp update source_ip 10.1.1.2\n"
              "http update server h port 8080 uri /own\nhttp update time daily 03:05\n");
    DebugMask = 0;
    EXPECT_NE(fakes::Syslog().find("Configured server: 1"), std::string::npos);
}

TEST_F(ConfigCommands, RefusalsChangeNothing) {
    ASSERT_TRUE(Type("http update source_ip 10.1.1.2"));
    for (const char* address : {"300.1.1.1", "255.255.255.255", "x"}) {
        EXPECT_TRUE(Type(std::string("http update source_ip ") + address));
        EXPECT_EQ(fakes::ConfigErrors(), "% Invalid source ip address. \n") << address;
    }
    EXPECT_STREQ(src_ip_get().update_src_ip, "10.1.1.2");
    EXPECT_TRUE(Type("no http update server 10.1.1.1"));
    EXPECT_EQ(fakes::Terminal(), "% The configuration not founded\r\n\r\n");
    for (const char* host : {"a", "b", "c"}) {
        EXPECT_TRUE(Type(std::string("http update server ") + host, 1));
    }
    EXPECT_EQ(fakes::Terminal(), "");
    EXPECT_TRUE(Type("http update server d", 1));
    EXPECT_EQ(fakes::Terminal(), "% The number of update server can't exceed 3\r\n\r\n");
    EXPECT_TRUE(Type("no http update server b", 1));
    EXPECT_TRUE(Type("http update server d", 1));
    EXPECT_EQ(fakes::Terminal(), "");
}

}  // namespace
