// Packets on real local sockets: the daemon's side, the app SDK against a daemon
// played by the test, and the parser of update requests.

#include "frame/platform/http_update.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/local_socket.h"
#include "base/unique_fd.h"
#include "host/http_update/app_request.h"
#include "host/http_update/http_update_app.h"
#include "tests/support/packets.h"
#include "tests/support/temp_dir.h"

namespace {

struct Pair {
    UniqueFd near, far;
    Pair() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        near.reset(fds[0]);
        far.reset(fds[1]);
    }
};

// A request's payload from its files and facts.
std::string request(size_t files, const std::string& body,
                    const std::string& tail = std::string(4, '\0')) {
    return Field("alpha", 32) + Number(files) + Number((body + tail).size()) + body + tail;
}

TEST(HttpUpdate, ReceiveTellsEndFromStall) {
    Pair pair;
    char bytes[1000];
    std::thread dribbler([&] {
        while (send(pair.near.get(), "x", 1, MSG_NOSIGNAL) == 1) (void)usleep(20000);
    });
    // A byte now and then does not win more time.
    EXPECT_EQ(-1, http_update_reg_receive_assign(pair.far.get(), bytes, sizeof(bytes)));
    EXPECT_EQ(ETIMEDOUT, errno);
    (void)shutdown(pair.near.get(), SHUT_RDWR);
    dribbler.join();
    // What came before the end, and then nothing.
    EXPECT_LT(http_update_reg_receive_assign(pair.far.get(), bytes, sizeof(bytes)), 1000);
    errno = EIO;
    EXPECT_EQ(0, http_update_reg_receive_assign(pair.far.get(), bytes, 8));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(-1, http_update_reg_receive_skip(pair.far.get(), 1));
}

TEST(HttpUpdate, SendersOnOneSocketNeverInterleave) {
    Pair pair;
    // Far beyond one buffer, so every send has to wait.
    const auto text = [](int sender) {
        return std::string(60000, static_cast<char>('a' + sender));
    };
    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&, i] {
            for (int n = 0; n < 10; ++n) SendPacket(pair.near.get(), i, text(i));
        });
    }
    for (int n = 0; n < 40; ++n) {
        const auto [type, payload] = ReceivePacket(pair.far.get());
        ASSERT_EQ(text(type), payload);
    }
    for (std::thread& sender : senders) sender.join();
}

TEST(HttpUpdate, StuckPeerDelaysOnlyItsOwnSenders) {
    Pair stuck, other;
    const Deadline deadline(9000);
    const std::string large(60000, 'x');
    auto fill = [&] {
        while (http_update_reg_send_normal(stuck.near.get(), 3, large.data(), 60000) == 0) continue;
        EXPECT_TRUE(errno == ETIMEDOUT || errno == EPIPE) << strerror(errno);
    };
    std::thread first(fill);
    std::thread second(fill);  // waits for its turn within the same five seconds
    SendPacket(other.near.get(), 2, "x");
    first.join();
    second.join();
    EXPECT_GT(deadline.LeftMs(), 0);
    // The stream ends inside a packet: nothing may be taken for the rest of it.
    EXPECT_EQ(-1, http_update_reg_send_normal(stuck.near.get(), 2, "x", 1));
    EXPECT_EQ(EPIPE, errno);
}

TEST(HttpUpdate, SendNowWaitsForNobody) {
    Pair full;
    while (send(full.near.get(), "x", 1, MSG_DONTWAIT) == 1) continue;
    std::atomic<bool> ended = false;
    std::thread patient([&] {
        EXPECT_EQ(-1, http_update_reg_send_normal(full.near.get(), 3, "x", 1));
        ended = true;
    });
    for (int n = 0; n < 10000; ++n) {  // before and while the other one waits
        ASSERT_EQ(-1, http_update_reg_send_now(full.near.get(), 2, "x", 1));
        ASSERT_EQ(EAGAIN, errno);
    }
    EXPECT_FALSE(ended);
    full.far.reset();
    patient.join();
}

TEST(AppRequest, RefusesWhatDoesNotFit) {
    const std::string good = request(1, std::string("\x02") + "a" + '\0' + Fact("v", "1"));
    std::string rest = good;
    rest[34] = static_cast<char>(rest[34] + 1);
    const struct {
        const char* name;
        std::string payload;
    } rows[] = {
        {"rest length differs", rest},
        {"name without end", std::string(32, 'n') + request(0, "").substr(32)},
        {"zero byte inside a path", request(1, std::string("\x03") + '\0' + "a" + '\0')},
        {"path beyond the end", request(1, "\xff", std::string(250, 'a'))},
        {"empty name", request(0, Number(0) + Number(2) + "b" + '\0')},
        {"fact beyond the end", request(0, "", "abcdefgh")},
        {"not zero at the end", request(0, "", {"\0\0\0\1", 4})},
    };
    // A copy of just its size: a sanitizer sees every read beyond it.
    const auto accepted = [](const std::string& payload) {
        ParsedRequest* parsed =
            app_request_parse(std::vector<uint8_t>(payload.begin(), payload.end()));
        if (parsed != nullptr) http_app_request_free(&parsed->request);
        return parsed != nullptr;
    };
    for (const auto& row : rows) {
        EXPECT_FALSE(accepted(row.payload)) << row.name;
        EXPECT_EQ(EBADMSG, errno) << row.name;
    }
    for (size_t i = 0; i < good.size(); ++i) EXPECT_FALSE(accepted(good.substr(0, i)));
    EXPECT_TRUE(accepted(good));
}

// The SDK against a daemon played by the test, packet by packet.
class AppSdk : public ::testing::Test {
  protected:
    AppSdk() {
        Listen();
        app_ = http_app_open(path_.c_str());
        EXPECT_NE(nullptr, app_);
        Accept();
    }
    ~AppSdk() override { http_app_close(app_); }
    void Listen() {
        listener_.reset(socket(AF_UNIX, SOCK_STREAM, 0));
        ASSERT_EQ(local_bind(listener_.get(), path_.c_str()), 0);
        ASSERT_EQ(listen(listener_.get(), 5), 0);
    }
    void Accept() { daemon_.reset(accept(listener_.get(), nullptr, nullptr)); }
    void Reply(int32_t result, const std::string& name) {
        Send(2, Bytes(result) + Field(name, 32));
    }
    void Send(int type, const std::string& payload) { SendPacket(daemon_.get(), type, payload); }
    // The payload of the app's next packet, when the type is right.
    std::string Receive(int type) {
        const auto [got, payload] = ReceivePacket(daemon_.get());
        EXPECT_EQ(type, got);
        return payload;
    }
    // The daemon's answer is sent before the question, which saves a thread.
    int Register(const char* name, const char* version, const char* save_path, uint32_t flags) {
        Reply(0, name);
        const http_app_info info = {name, version, save_path, flags};
        return http_app_register(app_, &info);
    }

    // Waits for an update request; its files and facts as one text, or the result.
    std::string Wait(int timeout_ms = 5000) {
        http_app_request* got = nullptr;
        const int result = http_app_wait(app_, timeout_ms, &got);
        if (result <= 0) return std::to_string(result);
        std::string text = got->app;
        for (size_t i = 0; i < got->file_count; ++i) text += std::string(" ") + got->files[i];
        for (size_t i = 0; i < got->fact_count; ++i) {
            const auto [name, fact] = std::pair(got->facts[i].name, got->facts[i].text);
            text += std::string(" ") + name + "=" + fact;
            EXPECT_STREQ(fact, http_app_find_fact(got, name));
        }
        EXPECT_EQ(nullptr, http_app_find_fact(got, "vers"));
        http_app_request_free(got);
        return text;
    }

    TempDir directory_;
    std::string path_ = directory_ / "s";
    UniqueFd listener_;
    UniqueFd daemon_;
    http_app* app_ = nullptr;
};

TEST_F(AppSdk, MessagesHaveTheirLayout) {
    const std::string alpha = Field("alpha", 32);
    const struct {
        int result, type;
        std::string payload;
    } rows[] = {
        {Register("alpha", "1.0", "/data/a/", HTTP_APP_MANUAL), 1,
         Bytes(2) + alpha + Field("1.0", 32) + Field("/data/a/", 128)},
        {http_app_answer(app_, "alpha", 0, "2.0"), 4, Bytes(0) + alpha + Field("2.0", 32)},
        {http_app_answer(app_, "alpha", -2, nullptr), 4, Bytes(-2) + alpha + Field("", 32)},
        {http_app_set_version(app_, "alpha", "3"), 5, alpha + Field("3", 32)},
        {http_app_set_manual(app_, "alpha", 7), 7, alpha + Bytes(1)},
        {http_app_set_save_path(app_, "alpha", "/b/"), 9, alpha + Field("/b/", 128)},
        {http_app_deregister(app_, "alpha"), 6, Field("alpha", 6)},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(0, row.result) << row.type;
        EXPECT_EQ(row.payload, Receive(row.type)) << row.type;
    }
}

TEST_F(AppSdk, RefusesTextsThatDoNotFit) {
    const std::string name(32, 'n');
    const std::string path(128, 'p');
    const http_app_info rows[] = {
        {name.c_str(), "", "", 0}, {"a", name.c_str(), "", 0}, {"a", "", path.c_str(), 0}};
    for (const http_app_info& row : rows) EXPECT_EQ(-ENAMETOOLONG, http_app_register(app_, &row));
    EXPECT_EQ(-EINVAL, http_app_answer(app_, "", 0, nullptr));
    char byte;
    EXPECT_EQ(-1, recv(daemon_.get(), &byte, 1, MSG_DONTWAIT));  // nothing was sent
    EXPECT_EQ(nullptr, http_app_open(path.c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST_F(AppSdk, RequestDuringRegistrationIsKept) {
    const std::string longest(255, 'p');  // its length byte is 0
    Send(3, request(2, "\x06" + Field("a.bin", 6) + '\0' + longest + '\0' + Fact("version", "2.0") +
                           Fact("empty", "")));
    Reply(12, "other");  // the late answer to an earlier question
    ASSERT_EQ(0, Register("alpha", "", nullptr, 0));
    EXPECT_EQ("alpha a.bin " + longest + " version=2.0 empty=", Wait(0));
    EXPECT_EQ("0", Wait(30));
}

TEST_F(AppSdk, PacketInPiecesIsPutTogether) {
    const std::string payload = request(0, Fact("v", "1"));
    const std::string bytes = Number(77) + Number(3) + Number(payload.size()) +
                              std::string(6, '\x55') + payload;  // any filler will do
    for (const char byte : bytes) {
        EXPECT_EQ("0", Wait(0));
        ASSERT_EQ(1, send(daemon_.get(), &byte, 1, 0));
    }
    EXPECT_EQ("alpha v=1", Wait());
}

TEST_F(AppSdk, BadRequestIsAnsweredAsFailed) {
    Send(3, request(1, ""));
    Send(3, "alpha");
    Send(3, request(0, ""));
    EXPECT_EQ(std::to_string(-EBADMSG), Wait());
    EXPECT_EQ(EBADMSG, Receive(4)[0]);
    EXPECT_EQ(std::to_string(-EBADMSG), Wait());
    EXPECT_EQ("alpha", Wait());  // the connection is as good as before
}

TEST_F(AppSdk, ReconnectRegistersWhatChangedSince) {
    ASSERT_EQ(0, Register("alpha", "1", "/a/", 0));
    ASSERT_EQ(0, Register("beta", "1", "", HTTP_APP_MANUAL));
    ASSERT_EQ(0, Register("gone", "1", "", 0));
    EXPECT_EQ(0, http_app_answer(app_, "alpha", 0, "2"));
    EXPECT_EQ(0, http_app_answer(app_, "beta", 5, "2"));  // failed: the version stays
    EXPECT_EQ(0, http_app_set_manual(app_, "beta", 0));
    EXPECT_EQ(0, http_app_deregister(app_, "gone"));
    daemon_.reset();
    listener_.reset();
    EXPECT_EQ(std::to_string(-ECONNRESET), Wait());
    EXPECT_EQ(-1, http_app_fd(app_));
    EXPECT_EQ(std::to_string(-ENOTCONN), Wait(-1));
    EXPECT_EQ(-ENOTCONN, http_app_set_version(app_, "beta", "3"));  // carried by the next one
    EXPECT_GT(0, http_app_reconnect(app_));

    Listen();
    std::thread daemon([this] {
        Accept();
        EXPECT_EQ(Bytes(0) + Field("alpha", 32) + Field("2", 32) + Field("/a/", 128), Receive(1));
        Reply(0, "alpha");
        EXPECT_EQ(Bytes(0) + Field("beta", 32) + Field("3", 32) + Field("", 128), Receive(1));
        Reply(12, "beta");
    });
    EXPECT_EQ(HTTP_APP_NAME_TAKEN, http_app_reconnect(app_));
    daemon.join();
}

}  // namespace
