#include "http/exchange.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "base/text.h"
#include "base/unique_fd.h"
#include "http/socket_io.h"
#include "tests/support/daemon_test.h"

// The daemon's end of a connection, and the server's.
class Exchange : public DaemonTest {
  protected:
    Exchange() { Connect(); }

    void Connect() {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        fd_ = UniqueFd(ends[0]);
        server_ = UniqueFd(ends[1]);
        ASSERT_EQ(fcntl(fd_.get(), F_SETFL, O_NONBLOCK), 0);
    }
    bool Send(const std::string& text) const {
        return send(server_.get(), text.data(), text.size(), MSG_NOSIGNAL) > 0;
    }
    std::string Body() {
        std::string text(comm_buf_len(&body_), '?');
        comm_buf_read(&body_, text.data(), comm_buf_len(&body_));
        return text;
    }

    UniqueFd fd_, server_;
    OwnedCommBuf body_;
};

TEST_F(Exchange, WritesRequestsThatFit) {
    HttpRequest request{};
    request.method = HTTP_METHOD_POST;
    request.port = 80;
    text_copy(request.host, "a.example");
    text_copy(request.path, "/a.asp");
    ASSERT_EQ(comm_buf_append(&request.body, "x=1&y=2", 7), 7);
    ASSERT_EQ(pkg_send(fd_.get(), &request), 0);
    char text[PKG_REQUEST_SIZE]{};
    ASSERT_GT(read(server_.get(), text, sizeof(text)), 0);
    EXPECT_STREQ(text,
                 "POST /a.asp HTTP/1.0\r\nHost: a.example\r\nAccept: */*\r\n"
                 "Accept-Language: zh-cn\r\nUser-Agent: Http-client/1.0\r\nContent-Length: 7\r\n"
                 "Content-Type: application/x-www-form-urlencoded\r\n\r\nx=1&y=2");
    const int head = static_cast<int>(strlen(text)) - 7 + 3;  // the length has four digits
    for (const int spare : {1, 0}) {                          // for the terminator
        const int size = static_cast<int>(PKG_REQUEST_SIZE) - spare - head;
        ASSERT_EQ(comm_buf_append(&request.body, nullptr, size), size);
        EXPECT_EQ(pkg_send(fd_.get(), &request), spare == 1 ? 0 : -1);
    }
    ExpectLog("pkg_create-->comm buf too long ");
}

TEST_F(Exchange, ReadsResponses) {
    using std::string;
    const string ok = "HTTP/1.0 200 OK\r\n";
    // Response, body, log; an empty log: the response is taken.
    const std::tuple<string, string, string> rows[] = {
        {"HTTP/1.1 200 OK\r\nA: b\r\nContent-Length:  11\r\n\r\n0123456789a", "0123456789a", ""},
        {ok + string("Content-Length:3\r\n\r\n\0b\0", 23), string("\0b\0", 3), ""},
        {ok + "X-Content-Length: 9\r\nContent-Length: 1\r\n\r\nzzz", "z", ""},
        {"HTTP/1.0 201 OK\r\nContent-Length: 0\r\n\r\n", "", "status_code is [201]"},
        {ok + "A: b\r\n\r\nContent-Length: 2", "", "connent length -1"},
        {ok + "Content-Length:\r\n\r\n", "", "connent length -1"},
        {ok + "Content-Length: 4294967297\r\n\r\nx", "", "connent length 2147483647"},
        {ok + string("A\0B\r\nContent-Length: 1\r\n\r\n", 26), "", "connent length -1"},
        {"HTTP/2 %s%n%s\r\n\r\n", "", "parse head first fail [HTTP/2 %s%n%s"},
        {ok, "", "retry 0 [Success 0] in endstr"},
        {ok + string(2030, 'a') + "\r\n\r\n", "", "head too long 2047"},
    };
    for (const auto& [response, body, log] : rows) {
        SCOPED_TRACE(response);
        Connect();
        ASSERT_TRUE(Send(response));
        server_.reset();
        EXPECT_EQ(pkg_recv(fd_.get(), &body_), log.empty() ? 0 : -1);
        EXPECT_EQ(Body(), body);
        ExpectLog(log);
    }
}

TEST_F(Exchange, ReceivesTheLargestBodyInPieces) {
    const std::string body(PKG_CONTENT_LENGTH_MAX, 'm');
    std::thread server([&] {
        EXPECT_TRUE(Send("HTTP/1.1 200 OK\r\nContent-Le") && Send("ngth: 2097152\r\n\r"));
        EXPECT_TRUE(Send("\n") && Send(body));
    });
    EXPECT_EQ(pkg_recv(fd_.get(), &body_), 0);
    server.join();
    EXPECT_EQ(Body(), body);
    ASSERT_TRUE(Send("HTTP/1.1 200 OK\r\nContent-Length: 2097153\r\n\r\n"));
    EXPECT_EQ(pkg_recv(fd_.get(), &body_), -1);
    EXPECT_FALSE(Has(fakes::Syslog(), "in commbuf receive"));
}

TEST_F(Exchange, GivesUpOnSlowPeers) {
    std::atomic<bool> stop{false};
    std::thread server([&] {
        while (!stop && Send("x")) usleep(50000);
        server_.reset();
    });
    char head[PKG_HEAD_SIZE]{};
    // Time-outs count over a whole phase, whatever comes in between.
    const SockLimits four{.wait_s = 0.02, .timeouts = 4};
    EXPECT_EQ(sock_recv_endstr(fd_.get(), head, sizeof(head), "\r\n\r\n", four), -1);
    ExpectLog("retry 4 [Connection timed out 110] in endstr");
    // No time-out, but too few bytes.
    const SockLimits pace{.wait_s = 5, .pace_window_ms = 200};
    EXPECT_EQ(sock_recv_endstr(fd_.get(), head, sizeof(head), "\r\n\r\n", pace), -1);
    ExpectLog("retry 0 [Connection timed out 110] in endstr");
    EXPECT_EQ(sock_recv_commbuf(fd_.get(), &body_, PKG_CONTENT_LENGTH_MAX, pace), -1);
    // Bytes that keep coming don't keep the operator from ending it.
    Cancel cancel([] { return true; });
    EXPECT_EQ(sock_recv_commbuf(fd_.get(), &body_, 1 << 20, {.cancel = &cancel}), -1);
    ExpectLog("retry 0 [Operation canceled 125] in commbuf receive");
    // A close after a time-out is not taken for another.
    stop = true;
    const SockLimits patient{.wait_s = 0.02, .timeouts = 1000};
    EXPECT_EQ(sock_recv_commbuf(fd_.get(), &body_, PKG_CONTENT_LENGTH_MAX, patient), -1);
    server.join();
    ExpectLog(" [Success 0] in commbuf receive");
}

TEST_F(Exchange, SendsToASlowPeerAndGivesUpOnADeadOne) {
    const std::string text(1 << 20, 's');
    std::string received(text.size(), '?');
    std::thread server([&] {
        EXPECT_EQ(recv(server_.get(), received.data(), received.size(), MSG_WAITALL), 1 << 20);
    });
    EXPECT_EQ(sock_send(fd_.get(), text.data(), text.size()), 0);
    server.join();
    EXPECT_EQ(received, text);
    EXPECT_EQ(sock_send(fd_.get(), text.data(), text.size(), {.wait_s = 0.01}), -1);
    ExpectLog("send fail [110, Connection timed out]");
}

TEST_F(Exchange, WaitsOnDescriptorsBeyondTheUsualSet) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = 4000;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const UniqueFd high(fcntl(fd_.get(), F_DUPFD, 3000));
    ASSERT_TRUE(high.valid());
    EXPECT_EQ(sock_wait(high.get(), SOCK_READABLE, 0.0), 0);
    EXPECT_TRUE(Send("x"));
    EXPECT_EQ(sock_wait(high.get(), SOCK_READABLE | SOCK_WRITABLE, SOCK_WAIT_DEFAULT), 2);
    EXPECT_EQ(sock_wait(SOCK_FD_MAX, SOCK_READABLE, 0.0), -1);
}
