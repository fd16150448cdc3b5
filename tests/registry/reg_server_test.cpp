#include "registry/reg_server.h"

#include <poll.h>

#include "tests/registry/registry_fixture.h"

static int s_waits;  // of this process for a socket

// Stands in for the C library's, in the packet library too.
extern "C" int poll(pollfd* fds, nfds_t count, int timeout_ms) {
    if (timeout_ms != 0) ++s_waits;
    const timespec limit{timeout_ms / 1000, timeout_ms % 1000 * 1'000'000};
    return ppoll(fds, count, timeout_ms < 0 ? nullptr : &limit, nullptr);
}

namespace {

using RegServer = RegistryServerTest;

std::string head(uint16_t type, uint16_t length) {
    return Bytes(http_update_packet_header{1, type, length, {}});
}

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
    for (const std::string name : {"alpha", longest.c_str(), "beta"}) Register(app, name);
    AppSet set{};
    const std::string names = " \t alpha \v\f gamma\r\n" + longest + " Beta bet ";
    EXPECT_EQ(reg_app_parse_names(names.c_str(), &set), 0);
    EXPECT_EQ(set.words[0], 0x3U);
    EXPECT_EQ(reg_app_parse_names(("beta " + longest + "x").c_str(), &set), -1);
    EXPECT_EQ(set.words[0], 0x7U);
}

TEST_F(RegServer, HostilePackets) {
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
        {head(5, 64), false, "received 64 fail for 0, errno"},
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

TEST_F(RegServer, LoopNeverWaitsForAnApp) {
    s_waits = 0;
    const int well = Connect();
    const std::string packet = head(HTTP_MSG_TYPE_REGIST, 196) + Field("", 4) + Field("half", 192);
    for (const size_t cut : {1U, 12U, 13U, 207U}) {
        SCOPED_TRACE(cut);
        const int half = Connect();
        // A packet that is too long is skipped as it comes, a byte out of band is one like others.
        for (const std::string& part : {head(9, 5000), std::string(4999, 'x')}) {
            EXPECT_GT(send(half, part.data(), part.size(), MSG_NOSIGNAL), 0);
            Turn();
        }
        ssize_t sent = send(half, "x", 1, MSG_OOB | MSG_NOSIGNAL);
        if (sent < 0) sent = send(half, "x", 1, MSG_NOSIGNAL);  // a kernel without such bytes
        EXPECT_EQ(sent, 1);
        EXPECT_GT(send(half, packet.data(), cut, MSG_NOSIGNAL), 0);
        EXPECT_EQ(Register(well, "well"), REG_OK);
        EXPECT_GT(send(half, packet.data() + cut, packet.size() - cut, MSG_NOSIGNAL), 0);
        EXPECT_EQ(fakes::Timers(loop_), 1U);
        Turn();
        EXPECT_EQ(Answer(half, "half"), REG_OK);
        EXPECT_EQ(fakes::Timers(loop_), 0U);
        Disconnect(half);
    }
    const int mute = Connect();
    while (send(mute, packet.data(), packet.size(), MSG_NOSIGNAL) > 0) Turn();
    ExpectLog("send HTTP_MSG_TYPE_REGIST_RSP fail");
    EXPECT_EQ(Register(well, "half"), REG_OK);
    EXPECT_EQ(s_waits, 0);
}

TEST_F(RegServer, SilentConnectionsGiveWayOldestFirst) {
    std::vector<int> silent;
    for (int n = 0; n < REG_CLIENT_MAX; ++n) silent.push_back(Connect());
    ASSERT_EQ(Register(silent[0], "oldest"), REG_OK);
    for (const char* name : {"alpha", "beta"}) EXPECT_EQ(Register(Connect(), name), REG_OK);
    for (size_t n = 0; n < 4; ++n) EXPECT_EQ(Ended(silent[n]), n == 1 || n == 2) << n;
}

struct RegServerGrace : RegServer {
    RegServerGrace() { grace_ms_ = REG_GRACE_MS; }
};

TEST_F(RegServerGrace, WhoHasJustComeKeepsHisPlace) {
    for (int n = 0; n < REG_CLIENT_MAX; ++n) EXPECT_FALSE(Ended(Connect()));
    EXPECT_TRUE(Ended(Connect()));
    ExpectLog("client num is large than 10");
}

TEST_F(RegServer, OneUserLeavesRoomForOthers) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can";
    // The server is another user meanwhile, so the connection is a stranger's to it.
    const auto stranger = [&] {
        const int app = Dial();
        EXPECT_EQ(seteuid(65534), 0);
        Turn();
        EXPECT_EQ(seteuid(0), 0);
        return app;
    };
    std::vector<int> apps;
    for (int n = 0; n < 9; ++n) apps.push_back(stranger());
    EXPECT_TRUE(Ended(apps[0]));
    for (size_t n = 1; n < 9; ++n) EXPECT_EQ(Register(apps[n], std::to_string(n)), REG_OK);
    EXPECT_TRUE(Ended(stranger()));
    ExpectLog("client num is large than 8");
    for (const char* name : {"alpha", "beta"}) EXPECT_EQ(Register(Connect(), name), REG_OK);
    EXPECT_TRUE(Ended(Connect()));
}

}  // namespace
