#include "registry/reg_server.h"

#include "tests/registry/registry_fixture.h"
#include "tests/support/failing_alloc.h"
#include "tests/support/resource_limit.h"

namespace {

using RegServer = RegistryServerTest;

// Every field is filled to its last byte and so has no terminator.
TEST_F(RegServer, AppLivesThroughItsMessages) {
    const int app = Connect();
    Send(app, HTTP_MSG_TYPE_REGIST, std::string(sizeof(http_msg_regist), 'a'));
    const std::string name(31, 'a');
    EXPECT_EQ(Answer(app, name), REG_OK);
    EXPECT_EQ(First().name, name);
    EXPECT_EQ(First().save_path, std::string(127, 'a'));
    EXPECT_EQ(Register(app, name, "/data/"), REG_OK);
    EXPECT_EQ(Register(app, name, ""), REG_OK);
    EXPECT_EQ(Register(Connect(), name, "/theft/"), REG_DUPLICATE);
    EXPECT_STREQ(First().save_path, "/data/");

    const std::string field(32, 'a');
    Send(app, HTTP_MSG_TYPE_SAVEPATH, field + std::string(128, 'p'));
    Send(app, HTTP_MSG_TYPE_VERSION, field + std::string(32, 'w'));
    Send(app, HTTP_MSG_TYPE_MODE, field + Bytes(HTTP_UPDATE_MODE_MANUAL));
    EXPECT_EQ(First().save_path, std::string(127, 'p'));
    EXPECT_EQ(First().version, std::string(31, 'w'));
    EXPECT_EQ(First().flags, 0x61616161U | APP_FLAG_MANUAL);
    // Another connection may speak for the app.
    Send(Connect(), HTTP_MSG_TYPE_UPDATE_RSP, Bytes(0) + field + std::string(32, 'v'));
    EXPECT_EQ(First().version, std::string(31, 'v'));
}

TEST_F(RegServer, LastDeregistrationEndsTheConnection) {
    const int app = Connect();
    for (const char* name : {"alpha", "beta"}) ASSERT_EQ(Register(app, name), REG_OK);
    Send(app, HTTP_MSG_TYPE_DEREGIST, "alpha");  // no zero byte inside the payload
    Send(app, HTTP_MSG_TYPE_DEREGIST, std::string("nobody\0beta", 11));
    EXPECT_FALSE(Ended(app));
    EXPECT_STREQ(reg_app_help_text(), "Files:beta (multiple files splitted by space)");
    Send(app, HTTP_MSG_TYPE_DEREGIST, std::string("beta\0rest", 9));
    EXPECT_TRUE(Ended(app));
}

TEST_F(RegServer, NamesAndTableHaveBounds) {
    const std::string longest(31, 'x');
    const int app = Connect();
    {
        const MemoryEndsAfter now(0);
        EXPECT_EQ(reg_app_add(app, "alpha", "1", 0), REG_NO_MEMORY);
    }
    for (const std::string name : {"alpha", longest.c_str(), "beta"}) Register(app, name);
    AppSet set{};
    const std::string names = " \t alpha \v\f gamma\r\n" + longest + " Beta bet ";
    EXPECT_EQ(reg_app_parse_names(names.c_str(), &set), 0);
    EXPECT_EQ(set.words[0], 0x3U);
    EXPECT_EQ(reg_app_parse_names(("beta " + longest + "x").c_str(), &set), -1);
    EXPECT_EQ(set.words[0], 0x7U);
}

TEST_F(RegServer, HostilePackets) {
    const auto head = [](uint16_t type, uint16_t length) {
        return Bytes(http_update_packet_header{1, type, length, {}});
    };
    const auto packet = [&](uint16_t type, uint16_t length) {
        return head(type, length) + std::string(length, '\xff');
    };
    const struct {
        std::string packet;
        bool stays;
        const char* log;
    } rows[] = {
        {packet(10, 5), true, "type >= HTTP_MSG_TYPE_MAX"},
        {packet(8, 4096), true, "<-->deal invalid type 8"},
        {packet(5, 0), true, "pkt length 0 is not equal 64"},
        {packet(9, 161), true, "pkt length 161 is not equal 160"},
        {packet(7, 37), true, "len 37 is not equal 36"},
        {packet(4, 67), true, "invalid packet in update-result"},
        {packet(1, 197), false, "pkt length 197 is not equal 196"},
        {packet(1, 4097), true, "The pkt len:4097 is large than 4096"},
        {"12345", false, "<-->receive fail [5],errno"},
        {head(5, 64) + "x", false, "received 64 fail for 1, errno"},
        {head(5, 5000) + "x", false, "<-->disconnect"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log);
        const int app = Connect();
        ASSERT_EQ(Register(app, "alpha"), REG_OK);
        ASSERT_GT(send(app, row.packet.data(), row.packet.size(), 0), 0);
        if (!row.stays) (void)shutdown(app, SHUT_WR);
        Turn();
        ExpectLog(row.log);
        EXPECT_EQ(Ended(app), !row.stays);
        EXPECT_TRUE(!row.stays || Register(app, "beta") == REG_OK) << "out of step";
        Disconnect(app);
        EXPECT_EQ(First().fd, -1);
    }
}

// Otherwise the connection waits for ever and the loop spins on it.
TEST_F(RegServer, RefusesConnectionsWithoutDescriptors) {
    const int refused = Dial();
    {
        const ResourceLimit<RLIMIT_NOFILE> low(static_cast<rlim_t>(refused) + 8);
        std::vector<UniqueFd> eaten;
        while (eaten.empty() || eaten.back().valid()) eaten.emplace_back(dup(refused));
        EXPECT_EQ(fakes::RunReadable(loop_), 1);
        EXPECT_EQ(fakes::RunReadable(loop_), 0);
    }
    EXPECT_TRUE(Ended(refused));
    EXPECT_EQ(Register(Connect(), "alpha"), REG_OK);
}

}  // namespace
