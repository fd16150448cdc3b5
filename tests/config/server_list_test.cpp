#include "config/server_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "config/settings.h"
#include "tests/support/failing_alloc.h"

namespace {

// "host:port/uri " for each server of a copy.
std::string Copy(unsigned selector) {
    hu_serv_list copy;
    EXPECT_EQ(hu_serv_list_copy(&copy, selector), 0);
    std::string text;
    uint32_t count = 0;
    for (const UpdateServer* server = hu_serv_list_first(&copy); server != nullptr;
         server = hu_serv_list_next(&copy, server), ++count) {
        EXPECT_EQ(server->socket, -1);
        text += std::string(server->host) + ":" + std::to_string(server->port) + server->uri + " ";
    }
    EXPECT_EQ(copy.count, count);
    hu_serv_list_clear(&copy);
    return text;
}

class ServerList : public testing::Test {
  protected:
    ServerList() { hu_serv_config_init(); }
};

TEST_F(ServerList, ChangesAnswerForTheirList) {
    struct Row {
        const char* name;
        int result;
        const char* host;
        uint32_t port;
        const char* uri;
        bool second;
        bool add;
        std::string after;  // second list, first list
    };
    const std::string usual = "update.invalid:80/qb/11.x/update.asp ";
    const Row rows[] = {
        {"no host", -1, "", 0, "", false, true, usual},
        {"first", 0, "a", 0, nullptr, false, true, "a:80/qb/11.x/update.asp "},
        {"in its place", 0, "a", 80, "/u", false, true, "a:80/u "},
        {"second list", 0, "a", 80, "/u", true, true, "a:80/u a:80/u "},
        {"other port", 0, "a", 81, "/u", true, true, "a:80/u a:81/u a:80/u "},
        {"other host", 0, "b", 81, "/u", true, true, "a:80/u a:81/u b:81/u a:80/u "},
        {"fourth", 3, "c", 81, "/u", true, true, "a:80/u a:81/u b:81/u a:80/u "},
        {"one of three", 0, "a", 80, "/u", true, true, "a:80/u a:81/u b:81/u a:80/u "},
        {"middle", 0, "a", 81, "/u", true, false, "a:80/u b:81/u a:80/u "},
        {"default URI differs", 1, "a", 0, "", false, false, "a:80/u b:81/u a:80/u "},
        {"second all", 0, "", 0, nullptr, true, false, "a:80/u "},
        {"first all", 0, nullptr, 0, nullptr, false, false, usual},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto change = row.add ? hu_serv_config_add : hu_serv_config_del;
        EXPECT_EQ(change(row.host, row.port, row.uri, row.second), row.result);
        EXPECT_EQ(Copy(SERVERS_BOTH), row.after);
        EXPECT_EQ(Copy(SERVERS_SECOND) + Copy(SERVERS_FIRST), row.after);
    }
}

TEST_F(ServerList, ShortMemoryLosesNothing) {
    ASSERT_EQ(hu_serv_config_add("s1", 1, "/u", true), HU_SERV_OK);
    ASSERT_EQ(hu_serv_config_add("s2", 1, "/u", true), HU_SERV_OK);
    ASSERT_EQ(hu_serv_config_add("s3", 1, "/u", false), HU_SERV_OK);
    for (int allocations = 0; allocations < 3; ++allocations) {
        const MemoryEndsAfter end(allocations);
        hu_serv_list copy;
        EXPECT_EQ(hu_serv_list_copy(&copy, SERVERS_BOTH), -1) << allocations;
        EXPECT_TRUE(hu_serv_list_empty(&copy)) << allocations;
    }
    for (const bool second : {false, true}) {
        const MemoryEndsAfter now(0);
        EXPECT_EQ(hu_serv_config_add("new", 1, "/u", second), HU_SERV_NO_MEMORY);
    }
    EXPECT_EQ(Copy(SERVERS_BOTH), "s1:1/u s2:1/u s3:1/u ");
}

// What a run takes while the operator configures is whole.
TEST_F(ServerList, ConfigurationChangesUnderARun) {
    ASSERT_EQ(hu_serv_config_add("aaa", 1, "/u", false), HU_SERV_OK);
    std::atomic<bool> done{false};
    std::thread configuring([&] {
        for (int i = 0; !done; ++i) {
            (void)hu_serv_config_add(i % 2 == 0 ? "aaa" : "bbb", 1, "/u", false);
            src_ip_set(i % 2 == 0 ? "10.0.0.1" : SRC_IP_NONE);
        }
    });
    for (int i = 0; i < 500; ++i) {
        const std::string copy = Copy(SERVERS_FIRST);
        EXPECT_TRUE(copy == "aaa:1/u " || copy == "bbb:1/u ") << copy;
        const std::string source = src_ip_get().update_src_ip;
        EXPECT_TRUE(source == "10.0.0.1" || source == SRC_IP_NONE) << source;
    }
    done = true;
    configuring.join();
}

}  // namespace
