#include "http/exchange.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "frame/log.h"
#include "frame/paths.h"
#include "frame/text.h"
#include "frame/unique_fd.h"
#include "http/socket_io.h"
#include "tests/fakes/fakes.h"
#include "tests/support/temp_dir.h"

// The daemon's end of a connection, and the server's.
class Exchange : public testing::Test {
  protected:
    Exchange() {
        dir_.Write("oam/http_client/.http_reg_server_dump", "");
        setenv("TMPDIR", dir_.path().c_str(), 1);
        http_client_get_env_dir();
        fakes::Reset();
        DebugMask = DEBUG_ALL;
        comm_buf_init(&body_, 0);
        Connect();
    }
    ~Exchange() override { comm_buf_reset(&body_); }

    void Connect() {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        fd_ = UniqueFd(ends[0]);
        server_ = UniqueFd(ends[1]);
        ASSERT_EQ(fcntl(fd_.get(), F_SETFL, O_NONBLOCK), 0);
    }
    void Send(const std::string& text) const {
        ASSERT_EQ(send(server_.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    static bool Logged(const std::string& text) {
        return fakes::Syslog().find(text) != std::string::npos;
    }
    std::string Body() {
        std::string text(comm_buf_len(&body_), '?');
        comm_buf_read(&body_, text.data(), comm_buf_len(&body_));
        return text;
    }

    TempDir dir_;
    UniqueFd fd_;
    UniqueFd server_;
    CommBuf body_;
};

TEST_F(Exchange, WritesTheRequestAsServersKnowIt) {
    HttpRequest request{};
    request.port = 80;
    text_copy(request.host, "a.example");
    text_copy(request.path, "/a.asp");
    comm_buf_init(&request.body, 0);
    EXPECT_EQ(pkg_send(fd_.get(), &request), -1);  // no method
    request.method = HTTP_METHOD_POST;
    ASSERT_EQ(comm_buf_append(&request.body, "x=1&y=2", 7), 7);
    ASSERT_EQ(pkg_send(fd_.get(), &request), 0);
    char text[PKG_REQUEST_SIZE]{};
    ASSERT_GT(read(server_.get(), text, sizeof(text)), 0);
    EXPECT_STREQ(text,
                 "POST /a.asp HTTP/1.0\r\nHost: a.example\r\nAccept: */*\r\n"
                 "Accept-Language: zh-cn\r\nUser-Agent: Http-client/1.0\r\nContent-Length: 7\r\n"
                 "Content-Type: application/x-www-form-urlencoded\r\n\r\nx=1&y=2");
    EXPECT_EQ(comm_buf_len(&request.body), 0u);
    request.method = HTTP_METHOD_GET;
    request.port = 8080;
    const std::string get =
        "GET /a.asp HTTP/1.0\r\nHost: a.example:8080\r\nAccept: */*\r\n"
        "Accept-Language: zh-cn\r\nUser-Agent: Http-client/1.0\r\n\r\n";
    EXPECT_EQ(pkg_create(text, &request), static_cast<int>(get.size()));
    EXPECT_EQ(std::string(text, get.size()), get);
}

TEST_F(Exchange, RefusesARequestThatDoesNotFit) {
    HttpRequest request{};
    request.method = HTTP_METHOD_POST;
    comm_buf_init(&request.body, 0);
    char text[PKG_REQUEST_SIZE]{};
    ASSERT_GT(comm_buf_append(&request.body, nullptr, 3900), 0);
    const int head = pkg_create(text, &request) - 3900;
    for (const int spare : {1, 0}) {  // bytes left for the terminator
        const int size = static_cast<int>(PKG_REQUEST_SIZE) - spare - head;
        ASSERT_EQ(comm_buf_append(&request.body, nullptr, size), size);
        EXPECT_EQ(pkg_send(fd_.get(), &request), spare == 1 ? 0 : -1);
    }
    comm_buf_reset(&request.body);
    EXPECT_TRUE(Logged("pkg_create-->comm buf too long "));
}

TEST_F(Exchange, ReadsResponses) {
    using std::string;
    const string ok = "HTTP/1.0 200 OK\r\n";
    // An empty log: the response is taken, with that body.
    const struct {
        const char* name;
        string response;
        string body;
        const char* log;
    } rows[] = {
        {"all at once", ok + "Content-Length: 3\r\n\r\nabc", "abc", ""},
        {"two spaces", ok + "A: b\r\nContent-Length:  11\r\n\r\n0123456789a", "0123456789a", ""},
        {"no space", ok + "Content-Length:2\r\nC: d\r\n\r\nxy", "xy", ""},
        {"zero bytes", ok + string("Content-Length: 3\r\n\r\n\0b\0", 24), string("\0b\0", 3), ""},
        {"empty body", ok + "Content-Length: 0\r\n\r\nignored", "", ""},
        {"more than announced", ok + "Content-Length: 2\r\n\r\nabcdef", "ab", ""},
        {"like-named field", ok + "X-Content-Length: 9\r\nContent-Length: 1\r\n\r\nz", "z", ""},
        {"no number", ok + "Content-Length: x\r\n\r\n", "", ""},
        {"cut body", ok + "Content-Length: 5\r\n\r\nabc", "abc", "in commbuf receive"},
        {"not found", "HTTP/1.1 404 No\r\nContent-Length: 0\r\n\r\n", "", "status_code is [404]"},
        {"no length", ok + "A: b\r\n\r\nContent-Length: 2", "", "connent length -1"},
        {"empty length", ok + "Content-Length:\r\n\r\n", "", "connent length -1"},
        {"negative", ok + "Content-Length: -5\r\n\r\n", "", "connent length -5"},
        {"too large", ok + "Content-Length: 2097153\r\n\r\n", "", "exceed max size 2097152"},
        {"wraps round", ok + "Content-Length: 4294967297\r\n\r\nx", "", "exceed max size"},
        {"zero in header", ok + string("A\0B\r\nContent-Length: 1\r\n\r\n", 26), "", "length -1"},
        {"other version", "HTTP/2 200\r\nContent-Length: 0\r\n\r\n", "", "parse head first fail"},
        {"formats", "%s%n%s\r\n\r\n", "", "parse head first fail [%s%n%s"},
        {"no blank line", ok, "", "retry 0 [Success 0] in endstr"},
        {"endless header", ok + string(2030, 'a') + "\r\n\r\n", "", "head too long 2047"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Connect();
        fakes::Syslog();
        Send(row.response);
        server_.reset();
        EXPECT_EQ(pkg_recv(fd_.get(), &body_), *row.log == '\0' ? 0 : -1);
        EXPECT_EQ(Body(), row.body);
        EXPECT_TRUE(Logged(row.log));
    }
}

TEST_F(Exchange, ReceivesTheLargestBodyInPieces) {
    const std::string body(PKG_CONTENT_LENGTH_MAX, 'm');
    std::thread server([&] {
        Send("HTTP/1.1 200 OK\r\nContent-Le");
        Send("ngth: 2097152\r\n\r");
        Send("\n");
        Send(body);
    });
    EXPECT_EQ(pkg_recv(fd_.get(), &body_), 0);
    server.join();
    EXPECT_EQ(Body(), body);
}

TEST_F(Exchange, CountsTimeOutsOverAWholePhase) {
    const SockLimits limits{.wait_s = 0.02};
    char head[64]{};
    EXPECT_EQ(sock_recv_endstr(fd_.get(), head, sizeof(head), "\r\n\r\n", limits), -1);
    EXPECT_TRUE(Logged("retry 10 [Connection timed out 110] in endstr"));
    EXPECT_EQ(sock_recv_commbuf(fd_.get(), &body_, 4, limits), -1);
    EXPECT_TRUE(Logged("retry 10 [Connection timed out 110] in commbuf receive"));

    // Data between time-outs gives no new ones, and a close after a time-out is
    // not taken for another.
    std::thread server([&] {
        for (const char* piece : {"a", "b", "\r\n\r\n"}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(70));
            Send(piece);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        server_.reset();
    });
    const SockLimits patient{.wait_s = 0.02, .timeouts = 1000};
    EXPECT_EQ(sock_recv_endstr(fd_.get(), head, sizeof(head), "\r\n\r\n", patient), 6);
    EXPECT_EQ(sock_recv_commbuf(fd_.get(), &body_, 4, patient), -1);
    server.join();
    EXPECT_TRUE(Logged(" [Success 0] in commbuf receive"));
}

TEST_F(Exchange, GivesUpOnAPeerThatDribbles) {
    const SockLimits limits{.wait_s = 5, .timeouts = 10, .grace_ms = 100, .bytes_per_s = 512};
    std::atomic<bool> stop{false};
    std::thread server([&] {
        while (!stop) {
            if (send(server_.get(), "x", 1, MSG_NOSIGNAL) < 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    char head[PKG_HEAD_SIZE]{};
    EXPECT_EQ(sock_recv_endstr(fd_.get(), head, sizeof(head), "\r\n\r\n", limits), -1);
    EXPECT_TRUE(Logged("retry 0 [Connection timed out 110] in endstr"));
    EXPECT_EQ(sock_recv_commbuf(fd_.get(), &body_, PKG_CONTENT_LENGTH_MAX, limits), -1);
    EXPECT_LT(comm_buf_len(&body_), 1000u);
    stop = true;
    server.join();
}

TEST_F(Exchange, SendsToASlowPeerAndGivesUpOnADeadOne) {
    const std::string text(1 << 20, 's');
    std::string received;
    std::thread server([&] {
        char chunk[8192];
        ssize_t count = 0;
        while (received.size() < text.size() &&
               (count = read(server_.get(), chunk, sizeof(chunk))) > 0) {
            received.append(chunk, static_cast<size_t>(count));
        }
    });
    EXPECT_EQ(sock_send(fd_.get(), text.data(), text.size()), 0);
    server.join();
    EXPECT_EQ(received, text);

    EXPECT_EQ(sock_send(fd_.get(), text.data(), text.size(), {.wait_s = 0.01}), -1);
    EXPECT_TRUE(Logged("send fail [110, Connection timed out]"));
    server_.reset();
    EXPECT_EQ(sock_send(fd_.get(), "x", 1), -1);
    EXPECT_TRUE(Logged("send fail [32, Broken pipe]"));
}

TEST_F(Exchange, WaitsOnDescriptorsBeyondTheUsualSet) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const UniqueFd high(fcntl(fd_.get(), F_DUPFD, 3000));
    ASSERT_TRUE(high.valid());
    EXPECT_EQ(sock_wait(high.get(), SOCK_READABLE, 0.0), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(sock_wait(high.get(), SOCK_WRITABLE, 0.0), 1);
    Send("x");
    EXPECT_EQ(sock_wait(high.get(), SOCK_READABLE | SOCK_WRITABLE, SOCK_WAIT_DEFAULT), 2);
    EXPECT_EQ(sock_wait(SOCK_FD_MAX, SOCK_READABLE, 0.0), -1);
    EXPECT_EQ(sock_wait(-1, SOCK_READABLE, 0.0), -1);
}
