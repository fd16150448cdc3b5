#include "registry/reg_server.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "tests/registry/registry_fixture.h"

namespace {

using RegServer = RegistryServerTest;

std::string Header(uint16_t type, uint16_t length) {
    http_update_packet_header header{};
    header.type = type;
    header.length = length;
    return Bytes(header);
}

TEST_F(RegServer, AppLivesThroughItsMessages) {
    const int app = Connect();
    ASSERT_EQ(Register(app, "alpha"), REG_OK);
    EXPECT_STREQ(First().save_path, "");
    ASSERT_EQ(Register(app, "alpha", "/data/alpha/"), REG_OK);
    EXPECT_STREQ(First().save_path, "/data/alpha/");
    ASSERT_EQ(Register(Connect(), "alpha", "/theft/"), REG_DUPLICATE);

    SavePathMessage path{"alpha", "/data/b/"};
    Send(app, HTTP_MSG_TYPE_SAVEPATH, Bytes(path));
    Send(app, HTTP_MSG_TYPE_VERSION, Bytes(VersionMessage{"alpha", "1.1"}));
    Send(app, HTTP_MSG_TYPE_MODE, Bytes(ModeMessage{"alpha", APP_MODE_MANUAL}));
    const AppEntry entry = First();
    EXPECT_STREQ(entry.save_path, "/data/b/");
    EXPECT_STREQ(entry.version, "1.1");
    EXPECT_EQ(entry.flags, APP_FLAG_MANUAL);
    // Another connection may speak for the app.
    Send(Connect(), HTTP_MSG_TYPE_UPDATE_RSP, Bytes(UpdateResultMessage{0, "alpha", "2.0"}));
    EXPECT_STREQ(First().version, "2.0");
}

TEST_F(RegServer, LastDeregistrationEndsTheConnection) {
    const int app = Connect();
    ASSERT_EQ(Register(app, "alpha") + Register(app, "beta"), REG_OK);
    (void)fakes::Syslog();
    Send(app, HTTP_MSG_TYPE_DEREGIST, "alpha");  // no zero byte inside the payload
    ExpectLog("<-->deregist [alpha] success");
    Send(app, HTTP_MSG_TYPE_DEREGIST, std::string("nobody\0beta", 11));
    ExpectLog("<-->deregist [nobody] invalid");
    EXPECT_FALSE(Ended(app));
    EXPECT_STREQ(reg_app_help_text(), "Files:beta (multiple files splitted by space)");
    Send(app, HTTP_MSG_TYPE_DEREGIST, std::string("beta\0rest", 9));
    ExpectLog("<-->deregist all and disconnect");
    EXPECT_TRUE(Ended(app));

    const int stranger = Connect();
    Send(stranger, HTTP_MSG_TYPE_DEREGIST, std::string(REG_PKT_MAX, 'x'));
    EXPECT_TRUE(Ended(stranger));
}

TEST_F(RegServer, HostilePackets) {
    struct Row {
        const char* name;
        std::string packet;
        bool stays;
        const char* log;
    };
    const auto packet = [](uint16_t type, size_t length) {
        return Header(type, static_cast<uint16_t>(length)) + std::string(length, '\xff');
    };
    for (const Row& row : {
             Row{"type 0", packet(0, 5), true, "type >= HTTP_MSG_TYPE_MAX"},
             {"type 10", packet(10, 0), true, "type >= HTTP_MSG_TYPE_MAX"},
             {"type 65535", packet(65535, 1), true, "type >= HTTP_MSG_TYPE_MAX"},
             {"type 2", packet(2, 36), true, "<-->deal invalid type 2"},
             {"type 3", packet(3, 0), true, "<-->deal invalid type 3"},
             {"type 8", packet(8, 4096), true, "<-->deal invalid type 8"},
             {"version short", packet(5, 63), true, "pkt length 63 is not equal 64"},
             {"version empty", packet(5, 0), true, "pkt length 0 is not equal 64"},
             {"path long", packet(9, 161), true, "pkt length 161 is not equal 160"},
             {"mode long", packet(7, 37), true, "len 37 is not equal 36"},
             {"result short", packet(4, 67), true, "invalid packet in update-result"},
             {"register short", packet(1, 195), false, "pkt length 195 is not equal 196"},
             {"register long", packet(1, 197), false, "pkt length 197 is not equal 196"},
             {"4097 bytes", packet(1, 4097), true, "The pkt len:4097 is large than 4096"},
             {"65535 bytes", packet(1, 65535), true, "The pkt len:65535 is large than 4096"},
             {"half a header", "12345", false, "<-->receive fail [5],errno"},
             {"cut payload", Header(5, 64) + "x", false, "received 64 fail for 1, errno"},
             {"cut skipped payload", Header(5, 5000) + "x", false, "<-->disconnect"},
         }) {
        SCOPED_TRACE(row.name);
        const int app = Connect();
        ASSERT_EQ(Register(app, "alpha"), REG_OK);
        (void)fakes::Syslog();
        const auto size = static_cast<ssize_t>(row.packet.size());
        ASSERT_EQ(send(app, row.packet.data(), row.packet.size(), 0), size);
        if (!row.stays) (void)shutdown(app, SHUT_WR);
        Turn();
        ExpectLog(row.log);
        EXPECT_EQ(Ended(app), !row.stays);
        if (row.stays) {
            EXPECT_EQ(Register(app, "beta"), REG_OK);  // still in step
        }
        Disconnect(app);
        Turn();
        EXPECT_STREQ(reg_app_help_text(), "Files: null");
    }
}

// Fields that are filled to the last byte have no terminator.
TEST_F(RegServer, UnterminatedFieldsAreCut) {
    const int app = Connect();
    Send(app, HTTP_MSG_TYPE_REGIST, std::string(sizeof(RegistMessage), 'n'));
    const std::string name(31, 'n');
    EXPECT_EQ(Answer(app, name), REG_OK);
    EXPECT_EQ(First().name, name);
    EXPECT_EQ(First().save_path, std::string(127, 'n'));
    Send(app, HTTP_MSG_TYPE_VERSION, std::string(32, 'n') + std::string(32, 'w'));
    EXPECT_EQ(First().version, std::string(31, 'w'));
    const int other = Connect();
    Send(other, HTTP_MSG_TYPE_REGIST, std::string(sizeof(RegistMessage), 'n'));
    EXPECT_EQ(Answer(other, name), REG_DUPLICATE);
}

TEST_F(RegServer, ServesTenConnections) {
    std::vector<int> apps;
    for (int i = 0; i < REG_CLIENT_MAX; ++i) apps.push_back(Connect());
    (void)fakes::Syslog();
    EXPECT_TRUE(Ended(Connect()));
    ExpectLog("client num is large than 10");
    EXPECT_EQ(Register(apps[9], "alpha"), REG_OK);
    Disconnect(apps[4]);
    Turn();
    (void)fakes::Syslog();
    EXPECT_EQ(Register(Connect(), "beta"), REG_OK);
    ExpectLog("<-->client listen index [4]");
}

TEST_F(RegServer, InstallsWhenItsTurnComes) {
    tq_thread_master_finish(loop_);
    loop_ = tq_thread_master_create();
    EXPECT_EQ(reg_server_install(nullptr), -1);
    fakes::FailReads(true);
    EXPECT_EQ(reg_server_install(loop_), -1);
    fakes::FailReads(false);
    const mode_t mask = umask(0);
    ASSERT_EQ(reg_server_install(loop_), 0);  // the file of the last one is there
    (void)umask(mask);
    struct stat status {};
    ASSERT_EQ(stat((dir_ / REG_SOCKET_PATH).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0777U);  // for apps of every user
    EXPECT_EQ(Register(Connect(), "alpha"), REG_OK);

    apps_.clear();
    Turn();
    tq_thread_master_finish(loop_);
    loop_ = tq_thread_master_create();
    const std::string path = dir_.path() + REG_SOCKET_PATH;
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(reg_server_install(loop_), -1);
    ExpectLog("bind fail for -1 errno [" + path + "][Address already in use]");
}

TEST_F(RegServer, ConnectionThatCannotBeArmedEnds) {
    const int app = Connect();
    ASSERT_EQ(Register(app, "alpha"), REG_OK);
    fakes::FailReads(true);
    Send(app, HTTP_MSG_TYPE_VERSION, Bytes(VersionMessage{"alpha", "2"}));
    fakes::FailReads(false);
    EXPECT_TRUE(Ended(app));
    EXPECT_EQ(First().fd, -1);
}

// Otherwise the connection waits for ever and the loop spins on it.
TEST_F(RegServer, RefusesConnectionsWithoutDescriptors) {
    const int app = Connect();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    UniqueFd waiting(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)text_copy(address.sun_path, dir_ / REG_SOCKET_PATH);
    ASSERT_EQ(connect(waiting.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    std::vector<UniqueFd> eaten;
    const rlimit low{static_cast<rlim_t>(waiting.get()) + 8, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    do {
        eaten.emplace_back(dup(waiting.get()));
    } while (eaten.back().valid());
    int turns = 0;
    while (fakes::RunReadable(loop_, 0) > 0 && turns < 10) ++turns;
    eaten.clear();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(turns, 1);
    EXPECT_TRUE(Ended(waiting.get()));
    EXPECT_EQ(Register(app, "alpha"), REG_OK);
    EXPECT_EQ(Register(Connect(), "beta"), REG_OK);
}

TEST_F(RegServer, HeldDescriptorIsNotReused) {
    const int app = Connect();
    ASSERT_EQ(Register(app, "alpha"), REG_OK);
    const int fd = First().fd;
    RegClientHold hold = reg_client_hold(fd);
    ASSERT_NE(hold, nullptr);
    Send(app, HTTP_MSG_TYPE_REGIST, "wrong");
    EXPECT_TRUE(Ended(app));  // a sender that waits for this app learns of it
    EXPECT_EQ(First().fd, -1);
    EXPECT_EQ(reg_client_hold(fd), nullptr);
    ASSERT_EQ(Register(Connect(), "beta"), REG_OK);
    EXPECT_NE(First().fd, fd);
    hold.reset();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

}  // namespace
