#include "config/server_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>

#include "config/settings.h"

namespace {

// "host:port/uri " for each server of a copy.
std::string Copy(unsigned selector) {
    OwnedServerList copy;
    EXPECT_EQ(hu_serv_list_copy(&copy, selector), 0);
    std::string text;
    for (const UpdateServer* server = hu_serv_list_first(&copy); server != nullptr;
         server = hu_serv_list_next(&copy, server)) {
        text += std::string(server->host) + ":" + std::to_string(server->port) + server->uri + " ";
    }
    return text;
}

struct ServerList : testing::Test {
    ServerList() { hu_serv_config_init(); }
};

TEST_F(ServerList, ChangesAnswerForTheirList) {
    const std::string usual = "update.invalid:80/qb/11.x/update.asp ";
    const struct {
        const char* name;
        int result;
        const char* host;
        uint32_t port;
        const char* uri;
        bool second;
        bool add;
        std::string after;  // second list, first list
    } rows[] = {
        {"no host", -1, "", 0, "", false, true, usual},
        {"in the default's place", 0, "a", 0, nullptr, false, true, "a:80/qb/11.x/update.asp "},
        {"in its place", 0, "a", 80, "/u", false, true, "a:80/u "},
        {"second list", 0, "a", 80, "/u", true, true, "a:80/u a:80/u "},
        {"other port", 0, "a", 81, "/u", true, true, "a:80/u a:81/u a:80/u "},
        {"other host", 0, "b", 81, "/u", true, true, "a:80/u a:81/u b:81/u a:80/u "},
        {"fourth", 3, "c", 81, "/u", true, true, "a:80/u a:81/u b:81/u a:80/u "},
        {"middle", 0, "a", 81, "/u", true, false, "a:80/u b:81/u a:80/u "},
        {"default URI differs", 1, "a", 0, "", false, false, "a:80/u b:81/u a:80/u "},
        {"second all", 0, "", 0, nullptr, true, false, "a:80/u "},
        {"first all", 0, nullptr, 0, nullptr, false, false, usual},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto change = row.add ? hu_serv_config_add : hu_serv_config_del;
        EXPECT_EQ(change(row.host, row.port, row.uri, row.second), row.result);
        EXPECT_EQ(Copy(SERVERS_BOTH), row.after);
        EXPECT_EQ(Copy(SERVERS_SECOND) + Copy(SERVERS_FIRST), row.after);
    }
}

// What a run takes while the operator configures is whole.
TEST_F(ServerList, ConfigurationChangesUnderARun) {
    std::atomic<bool> done{false};
    const auto configure = [](bool odd) {
        (void)hu_serv_config_add(odd ? "aaa" : "bbb", 1, "/u", false);
        src_ip_set(odd ? "10.0.0.1" : SRC_IP_NONE);
    };
    configure(true);
    std::thread configuring([&] {
        for (int i = 0; !done; ++i) configure(i % 2 == 1);
    });
    for (int i = 0; i < 500; ++i) {
        const std::string seen = Copy(SERVERS_FIRST) + src_ip_get().update_src_ip;
        EXPECT_TRUE(std::regex_match(seen, std::regex("(aaa|bbb):1/u (10.0.0.1|0.0.0.0)"))) << seen;
    }
    done = true;
    configuring.join();
}

}  // namespace
