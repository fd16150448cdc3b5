// Packets on real local sockets: the daemon's side, the app SDK against a daemon
// played by the test, and the parser of update requests.

#include "frame/platform/http_update.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/unique_fd.h"
#include "host/http_update/app_request.h"
#include "host/http_update/http_update_app.h"
#include "tests/support/temp_dir.h"

namespace {

struct Pair {
    UniqueFd near;
    UniqueFd far;
    Pair() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        near.reset(fds[0]);
        far.reset(fds[1]);
    }
};

std::string field(const std::string& text, size_t size) {
    std::string out = text;
    out.resize(size, '\0');
    return out;
}

std::string number16(size_t value) {
    const uint16_t number = static_cast<uint16_t>(value);
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

std::string fact(const std::string& name, const std::string& text) {
    return number16(name.size() + 1) + number16(text.size() + 1) + name + '\0' + text + '\0';
}

// A request's payload from its files and facts.
std::string request(size_t files, const std::string& body,
                    const std::string& tail = std::string(4, '\0')) {
    return field("alpha", 32) + number16(files) + number16((body + tail).size()) + body + tail;
}

// Parses a payload that lies at the end of readable memory: in every build a read
// beyond it is a crash.
ParsedRequest* parse(const std::string& payload) {
    constexpr size_t SIZE = 65536;
    static uint8_t* const s_end = [] {
        void* memory =
            mmap(nullptr, 2 * SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        uint8_t* end = static_cast<uint8_t*>(memory) + SIZE;
        EXPECT_EQ(0, mprotect(end, SIZE, PROT_NONE));
        return end;
    }();
    uint8_t* begin = s_end - payload.size();
    memcpy(begin, payload.data(), payload.size());
    return app_request_parse({begin, payload.size()});
}

TEST(HttpUpdate, PacketArrivesWholeAndHeaderIsLaidOut) {
    Pair pair;
    ASSERT_EQ(0, http_update_reg_send_normal(pair.near.get(), 9, "abcde", 5));
    uint16_t header[6] = {};
    ASSERT_EQ(12, http_update_reg_receive_assign(pair.far.get(), header, sizeof header));
    const uint16_t expected[6] = {1, 9, 5, 0, 0, 0};
    EXPECT_EQ(0, memcmp(expected, header, sizeof header));
    EXPECT_EQ(0, http_update_reg_receive_skip(pair.far.get(), 3));
    char rest[4] = "";
    EXPECT_EQ(2, http_update_reg_receive_assign(pair.far.get(), rest, 2));
    EXPECT_STREQ("de", rest);
    EXPECT_EQ(-1, http_update_reg_send_normal(pair.near.get(), 9, rest, 65536));
    EXPECT_EQ(EMSGSIZE, errno);
}

TEST(HttpUpdate, ReceiveTellsEndFromStall) {
    Pair pair;
    char bytes[8];
    ASSERT_EQ(3, send(pair.near.get(), "abc", 3, 0));
    EXPECT_EQ(-1, http_update_reg_receive_assign(pair.far.get(), bytes, 8));
    EXPECT_EQ(ETIMEDOUT, errno);
    ASSERT_EQ(3, send(pair.near.get(), "abc", 3, 0));
    pair.near.reset();
    EXPECT_EQ(3, http_update_reg_receive_assign(pair.far.get(), bytes, 8));
    errno = EIO;
    EXPECT_EQ(0, http_update_reg_receive_assign(pair.far.get(), bytes, 8));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(-1, http_update_reg_receive_skip(pair.far.get(), 1));
}

TEST(HttpUpdate, DribblingPeerIsCutOff) {
    Pair pair;
    const Deadline deadline(4000);
    std::thread dribbler([&] {
        while (deadline.LeftMs() > 0 && send(pair.near.get(), "x", 1, MSG_NOSIGNAL) == 1) {
            (void)usleep(20000);
        }
    });
    char bytes[1000];
    EXPECT_EQ(-1, http_update_reg_receive_assign(pair.far.get(), bytes, sizeof bytes));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GT(deadline.LeftMs(), 0);  // a byte now and then does not win more time
    pair.far.reset();
    dribbler.join();
}

TEST(HttpUpdate, SendersOnOneSocketNeverInterleave) {
    Pair pair;
    constexpr int SIZE = 60000;  // far beyond one buffer, so every send has to wait
    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&pair, i] {
            const std::string payload(SIZE, static_cast<char>('a' + i));
            for (int n = 0; n < 10; ++n) {
                EXPECT_EQ(0, http_update_reg_send_normal(pair.near.get(), static_cast<uint16_t>(i),
                                                         payload.data(), SIZE));
            }
        });
    }
    for (int n = 0; n < 40; ++n) {
        http_update_packet_header header{};
        ASSERT_EQ(12, http_update_reg_receive_assign(pair.far.get(), &header, sizeof header));
        ASSERT_EQ(SIZE, header.length);
        std::string payload(SIZE, '\0');
        ASSERT_EQ(SIZE, http_update_reg_receive_assign(pair.far.get(), payload.data(), SIZE));
        ASSERT_EQ(std::string(SIZE, static_cast<char>('a' + header.type)), payload);
    }
    for (std::thread& sender : senders) sender.join();
}

TEST(HttpUpdate, StuckPeerDelaysOnlyItsOwnSenders) {
    Pair stuck;
    Pair other;
    const Deadline deadline(9000);
    const std::string large(60000, 'x');
    auto fill = [&] {
        while (http_update_reg_send_normal(stuck.near.get(), 3, large.data(), 60000) == 0) {
        }
        EXPECT_TRUE(errno == ETIMEDOUT || errno == EPIPE) << strerror(errno);
    };
    std::thread first(fill);
    std::thread second(fill);  // waits for its turn within the same five seconds
    EXPECT_EQ(0, http_update_reg_send_normal(other.near.get(), 2, "x", 1));
    first.join();
    second.join();
    EXPECT_GT(deadline.LeftMs(), 0);
    // The stream ends inside a packet: nothing may be taken for the rest of it.
    EXPECT_EQ(-1, http_update_reg_send_normal(stuck.near.get(), 2, "x", 1));
    EXPECT_EQ(EPIPE, errno);
}

TEST(AppRequest, GivesFilesAndFacts) {
    const std::string longest(255, 'p');
    const std::string body = std::string("\x06") + "a.bin" + '\0' + '\0' + longest + '\0' +
                             fact("version", "2.0") + fact("empty", "");
    ParsedRequest* parsed = parse(request(2, body));
    ASSERT_NE(nullptr, parsed);
    const http_app_request& got = parsed->request;
    EXPECT_STREQ("alpha", got.app);
    ASSERT_EQ(2U, got.file_count);
    EXPECT_STREQ("a.bin", got.files[0]);
    EXPECT_EQ(longest, got.files[1]);  // its length byte is 0
    EXPECT_EQ(2U, got.fact_count);
    EXPECT_STREQ("2.0", http_app_find_fact(&got, "version"));
    EXPECT_STREQ("", http_app_find_fact(&got, "empty"));
    EXPECT_EQ(nullptr, http_app_find_fact(&got, "vers"));
    http_app_request_free(&parsed->request);
}

TEST(AppRequest, RefusesWhatDoesNotFit) {
    const std::string good = request(1, std::string("\x02") + "a" + '\0' + fact("v", "1"));
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
        {"empty name", request(0, number16(0) + number16(2) + "b" + '\0')},
        {"fact beyond the end", request(0, "", "abcdefgh")},
        {"not zero at the end", request(0, "", {"\0\0\0\1", 4})},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(nullptr, parse(row.payload));
        EXPECT_EQ(EBADMSG, errno);
    }
    // Damage of each byte, and every cut: no read may go beyond the end.
    for (size_t i = 0; i < good.size(); ++i) {
        for (int value = 0; value < 256; value += 5) {
            std::string damaged = good;
            damaged[i] = static_cast<char>(value);
            ParsedRequest* parsed = parse(damaged);
            if (parsed != nullptr) http_app_request_free(&parsed->request);
        }
        EXPECT_EQ(nullptr, parse(good.substr(0, i)));
    }
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
        (void)unlink(path_.c_str());
        listener_.reset(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
        ASSERT_EQ(0, bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
        ASSERT_EQ(0, listen(listener_.get(), 5));
    }
    void Accept() { daemon_.reset(accept(listener_.get(), nullptr, nullptr)); }
    void Reply(int32_t result, const std::string& name) {
        Send(2, std::string(reinterpret_cast<const char*>(&result), 4) + field(name, 32));
    }
    void Send(uint16_t type, const std::string& payload) {
        ASSERT_EQ(0, http_update_reg_send_normal(daemon_.get(), type, payload.data(),
                                                 static_cast<int>(payload.size())));
    }
    // The app's next packet: its payload, when the type is right.
    std::string Receive(uint16_t type) {
        http_update_packet_header header{};
        EXPECT_EQ(12, http_update_reg_receive_assign(daemon_.get(), &header, sizeof header));
        EXPECT_EQ(type, header.type);
        std::string payload(header.length, '\0');
        EXPECT_EQ(header.length,
                  http_update_reg_receive_assign(daemon_.get(), payload.data(), header.length));
        return payload;
    }
    // The daemon's answer is sent before the question, which saves a thread.
    int Register(const char* name, const char* version, const char* save_path, uint32_t flags) {
        Reply(0, name);
        const http_app_info info = {name, version, save_path, flags};
        return http_app_register(app_, &info);
    }

    // Waits for an update request; its files and facts as one text.
    std::string Wait(int timeout_ms = 5000) {
        http_app_request* got = nullptr;
        const int result = http_app_wait(app_, timeout_ms, &got);
        if (result <= 0) return std::to_string(result);
        std::string text = got->app;
        for (size_t i = 0; i < got->file_count; ++i) text += std::string(" ") + got->files[i];
        for (size_t i = 0; i < got->fact_count; ++i) text += std::string(" ") + got->facts[i].text;
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
    ASSERT_EQ(0, Register("alpha", "1.0", "/data/a/", HTTP_APP_MANUAL));
    const std::string number("\2\0\0\0", 4);  // the tests run on little-endian machines
    EXPECT_EQ(number + field("alpha", 32) + field("1.0", 32) + field("/data/a/", 128), Receive(1));
    EXPECT_EQ(0, http_app_answer(app_, "alpha", 0, "2.0"));
    EXPECT_EQ(std::string(4, '\0') + field("alpha", 32) + field("2.0", 32), Receive(4));
    EXPECT_EQ(0, http_app_answer(app_, "alpha", -2, nullptr));
    EXPECT_EQ(std::string("\xfe\xff\xff\xff") + field("alpha", 32) + field("", 32), Receive(4));
    EXPECT_EQ(0, http_app_set_version(app_, "alpha", "3"));
    EXPECT_EQ(field("alpha", 32) + field("3", 32), Receive(5));
    EXPECT_EQ(0, http_app_set_manual(app_, "alpha", 7));
    EXPECT_EQ(field("alpha", 32) + std::string("\1\0\0\0", 4), Receive(7));
    EXPECT_EQ(0, http_app_set_save_path(app_, "alpha", "/b/"));
    EXPECT_EQ(field("alpha", 32) + field("/b/", 128), Receive(9));
    EXPECT_EQ(0, http_app_deregister(app_, "alpha"));
    EXPECT_EQ(std::string("alpha") + '\0', Receive(6));
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
    Send(3, request(1, std::string("\x02") + "a" + '\0'));
    Reply(12, "other");  // the late answer to an earlier question
    ASSERT_EQ(0, Register("alpha", "", nullptr, 0));
    EXPECT_EQ("alpha a", Wait(0));
    EXPECT_EQ("0", Wait(30));
}

TEST_F(AppSdk, PacketInPiecesIsPutTogether) {
    const std::string payload = request(0, fact("v", "1"));
    const std::string bytes = number16(77) + number16(3) + number16(payload.size()) +
                              std::string(6, '\x55') + payload;  // any filler will do
    for (const char byte : bytes) {
        EXPECT_EQ("0", Wait(0));
        ASSERT_EQ(1, send(daemon_.get(), &byte, 1, 0));
    }
    EXPECT_EQ("alpha 1", Wait());
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
        EXPECT_EQ(std::string(4, '\0') + field("alpha", 32) + field("2", 32) + field("/a/", 128),
                  Receive(1));
        Reply(0, "alpha");
        EXPECT_EQ(std::string(4, '\0') + field("beta", 32) + field("3", 32) + field("", 128),
                  Receive(1));
        Reply(12, "beta");
    });
    EXPECT_EQ(HTTP_APP_NAME_TAKEN, http_app_reconnect(app_));
    daemon.join();
}

}  // namespace
