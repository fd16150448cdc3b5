// Typed commands go through the tree to the handlers.
#include "config/config_commands.h"

#include <gtest/gtest.h>

#include <string>

#include "config/server_list.h"
#include "config/settings.h"
#include "host/client_new/match.h"
#include "tests/fakes/fakes.h"

namespace {

constexpr cli_node no_word = common_keyword_action("no", "", &cfg_http_update_tree, Tno_alt);
constexpr cli_node root = nop_action(&cfg_http_update_tree, &no_word);

// False: the words were refused.
bool Type(const std::string& line, uint32_t context = 0, uint32_t output = 0) {
    client_new::Match match = client_new::match_line({&root, &no_word, nullptr}, line, context);
    if (match.handler == nullptr) return false;
    match.record.output_flags = output;
    match.handler(&match.record);
    return true;
}

std::string Config(uint32_t output) {
    for (const char* line : {"http update mode manual", "http update source_ip 1.1.1.1",
                             "http update server 1.1.1.1", "http update time daily 11:11"}) {
        EXPECT_TRUE(Type(line, 0, output)) << line;
    }
    return fakes::ConfigLines();
}

TEST(ConfigCommands, ConfigurationTellsTheState) {
    fakes::Reset();
    hu_serv_config_init();
    update_mode = UPDATE_MODE_AUTO;
    default_update_time_set({4, 7});
    update_time_default();
    const std::pair<const char*, const char*> rows[] = {
        {"http update source_ip 0.0.0.0", ""},
        {"http update server up.example port 65535", "http update server up.example port 65535\n"},
        {"no http update server up.example port 65535", ""},
        {"http update time daily 04:08", "http update time daily 04:08\n"},
        {"http update time daily 04:07", ""},  // the default
    };
    for (const auto& [command, config] : rows) {
        SCOPED_TRACE(command);
        EXPECT_TRUE(Type(command));
        EXPECT_EQ(Config(CLI_OUTPUT_RUNNING), config);
        EXPECT_EQ(Config(CLI_OUTPUT_STARTUP), config);
    }
    ASSERT_EQ(hu_serv_config_add("h", 8080, "/own", false), HU_SERV_OK);
    EXPECT_TRUE(Type("http update server second", 1)) << "accepted, but not written";
    EXPECT_EQ(Config(CLI_OUTPUT_RUNNING), "http update server h port 8080 uri /own\n");
    EXPECT_EQ(fakes::Terminal() + fakes::ConfigErrors(), "");
}

}  // namespace
