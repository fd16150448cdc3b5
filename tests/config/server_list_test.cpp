#include "config/server_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "config/settings.h"
#include "frame/log.h"
#include "tests/fakes/fakes.h"
#include "tests/support/failing_alloc.h"

namespace {

// "host:port/uri " for each server.
std::string Text(const hu_serv_list& list) {
    std::string text;
    uint32_t count = 0;
    for (const UpdateServer* server = hu_serv_list_first(&list); server != nullptr;
         server = hu_serv_list_next(&list, server), ++count) {
        EXPECT_EQ(server->socket, -1);
        text += std::string(server->host) + ":" + std::to_string(server->port) + server->uri + " ";
    }
    EXPECT_EQ(list.count, count);
    return text;
}

class ServerList : public testing::Test {
  protected:
    void SetUp() override { hu_serv_config_init(); }
    void TearDown() override { hu_serv_config_init(); }

    static std::string Copy(unsigned selector) {
        hu_serv_list copy;
        EXPECT_EQ(hu_serv_list_copy(&copy, selector), 0);
        std::string text = Text(copy);
        hu_serv_list_clear(&copy);
        EXPECT_TRUE(hu_serv_list_empty(&copy));
        return text;
    }
};

TEST_F(ServerList, DefaultServerStandsInForTheFirstListOnly) {
    const std::string usual = "update.invalid:80/qb/11.x/update.asp ";
    EXPECT_EQ(Copy(SERVERS_FIRST), usual);
    EXPECT_EQ(Copy(SERVERS_SECOND), "");
    ASSERT_EQ(hu_serv_config_add("s1", 0, "", false), HU_SERV_OK);
    EXPECT_EQ(Copy(SERVERS_BOTH), "s1:80/qb/11.x/update.asp ");
    ASSERT_EQ(hu_serv_config_del("", 0, nullptr, false), HU_SERV_OK);
    EXPECT_EQ(Copy(SERVERS_BOTH), usual);
}

TEST_F(ServerList, CopiesInTheOrderOfConfiguration) {
    for (const char* host : {"s1", "s2", "s3"}) {
        ASSERT_EQ(hu_serv_config_add(host, 1, "/u", true), HU_SERV_OK);
    }
    ASSERT_EQ(hu_serv_config_add("s4", 1, "/u", false), HU_SERV_OK);
    EXPECT_EQ(Copy(SERVERS_BOTH), "s1:1/u s2:1/u s3:1/u s4:1/u ");
    for (int allocations = 0; allocations < 4; ++allocations) {
        SCOPED_TRACE(allocations);
        const MemoryEndsAfter end(allocations);
        hu_serv_list copy;
        EXPECT_EQ(hu_serv_list_copy(&copy, SERVERS_BOTH), -1);
        EXPECT_TRUE(hu_serv_list_empty(&copy));
        EXPECT_EQ(copy.count, 0U);
    }
}

TEST_F(ServerList, ChangesAnswerForTheirList) {
    struct Row {
        const char* name;
        bool add;
        const char* host;
        uint32_t port;
        const char* uri;
        bool second;
        int result;
        const char* first_after;
        const char* second_after;
    };
    const Row rows[] = {
        {"no host", true, "", 0, "", false, -1, "update.invalid:80/qb/11.x/update.asp ", ""},
        {"first", true, "a", 0, nullptr, false, 0, "a:80/qb/11.x/update.asp ", ""},
        {"other URI", true, "a", 80, "/u", false, 0, "a:80/u ", ""},
        {"again", true, "a", 0, "/u", false, 0, "a:80/u ", ""},
        {"second list", true, "a", 80, "/u", true, 0, "a:80/u ", "a:80/u "},
        {"other port", true, "a", 81, "/u", true, 0, "a:80/u ", "a:80/u a:81/u "},
        {"other host", true, "b", 81, "/u", true, 0, "a:80/u ", "a:80/u a:81/u b:81/u "},
        {"fourth", true, "c", 81, "/u", true, 3, "a:80/u ", "a:80/u a:81/u b:81/u "},
        {"one of three", true, "a", 80, "/u", true, 0, "a:80/u ", "a:80/u a:81/u b:81/u "},
        {"unknown", false, "a", 82, "/u", true, 1, "a:80/u ", "a:80/u a:81/u b:81/u "},
        {"middle", false, "a", 81, "/u", true, 0, "a:80/u ", "a:80/u b:81/u "},
        {"default URI differs", false, "a", 0, "", false, 1, "a:80/u ", "a:80/u b:81/u "},
        {"second all", false, "", 0, "", true, 0, "a:80/u ", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto change = row.add ? hu_serv_config_add : hu_serv_config_del;
        EXPECT_EQ(change(row.host, row.port, row.uri, row.second), row.result);
        EXPECT_EQ(Copy(SERVERS_FIRST), row.first_after);
        EXPECT_EQ(Copy(SERVERS_SECOND), row.second_after);
    }
    const MemoryEndsAfter now(0);
    EXPECT_EQ(hu_serv_config_add("z", 1, "/u", true), HU_SERV_NO_MEMORY);
    for (const int code : {0, -1, 4, 99}) EXPECT_STREQ(hu_serv_errstr(code), "Internal error");
}

// Copies and texts that a run takes while the operator configures are whole.
TEST_F(ServerList, ConfigurationChangesUnderARun) {
    std::atomic<bool> done{false};
    std::atomic<int> copies{0};
    std::thread run([&] {
        for (; !done; ++copies) {
            const std::string copy = Copy(SERVERS_FIRST);
            EXPECT_TRUE(copy == "aaa:1/a " || copy == "bbb:2/b " || copy.starts_with("update."))
                << copy;
            const std::string source = src_ip_get().update_src_ip;
            EXPECT_TRUE(source == "10.0.0.1" || source == SRC_IP_NONE) << source;
            const DailyTime time = update_time_get();
            EXPECT_EQ(time.update_hour, time.update_minute);
        }
    });
    for (int i = 0; i < 2000 || copies < 100; ++i) {
        (void)(i % 2 == 0 ? hu_serv_config_add("aaa", 1, "/a", false)
                          : hu_serv_config_add("bbb", 2, "/b", false));
        src_ip_set(i % 2 == 0 ? "10.0.0.1" : SRC_IP_NONE);
        update_time_set({i % 24, i % 24});
    }
    done = true;
    run.join();
    update_time_default();
}

}  // namespace
