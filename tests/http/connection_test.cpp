#include "http/connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>

#include "config/settings.h"
#include "frame/identity.h"
#include "frame/log.h"
#include "frame/text.h"
#include "frame/unique_fd.h"
#include "tests/fakes/fakes.h"
#include "tests/http/reply_server.h"

class Connection : public testing::Test {
  protected:
    Connection() {
        fakes::Reset();
        DebugMask = DEBUG_ERROR;
        dns_ready = false;
        src_ip_set(SRC_IP_NONE);
    }
    ~Connection() override { src_ip_set(SRC_IP_NONE); }
};

TEST_F(Connection, ConvertsDottedText) {
    in_addr_t address = 0;
    for (const char* text : {"127.0.0.1", "127.1", "0x7f000001"}) {
        EXPECT_EQ(ipv4_text_to_addr(text, &address), 1);
        EXPECT_EQ(address, htonl(INADDR_LOOPBACK));
    }
    for (const char* text : {"255.255.255.255", "1.2.3.256", "", "host"}) {
        EXPECT_EQ(ipv4_text_to_addr(text, &address), 0) << text;
    }
    EXPECT_EQ(ipv4_text_to_addr(nullptr, &address), 0);
    EXPECT_EQ(ipv4_text_to_addr("1.2.3.4", nullptr), 0);
}

TEST_F(Connection, LeavesFromTheSourceAddress) {
    ReplyServer server({"", "", ""});
    fakes::SetHost("update.example", "127.0.0.1");
    const struct {
        const char* host;
        const char* source;
        const char* dns_source;
        const char* local;
    } rows[] = {
        {"127.0.0.1", "0.0.0.0", "", "127.0.0.1"},  // no name service in play
        {"update.example", "0.0.0.0", "0.0.0.0", "127.0.0.1"},
        {"update.example", "127.0.0.9", "127.0.0.9", "127.0.0.9"},
    };
    for (const auto& row : rows) {
        src_ip_set(row.source);
        fakes::FailDnsInit(*row.dns_source == '\0');
        const UniqueFd fd(http_update_url_connect_detail(row.host, server.port()));
        ASSERT_TRUE(fd.valid());
        EXPECT_NE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(fakes::DnsSource(), row.dns_source);
        sockaddr_in local{};
        socklen_t size = sizeof(local);
        ASSERT_EQ(getsockname(fd.get(), reinterpret_cast<sockaddr*>(&local), &size), 0);
        EXPECT_EQ(local.sin_addr.s_addr, inet_addr(row.local));
    }
    EXPECT_EQ(fakes::Syslog(), "");
}

TEST_F(Connection, SaysWhyItFailed) {
    uint16_t closed_port = 0;
    { closed_port = ReplyServer({}).port(); }
    const std::string refused =
        "connect to 127.0.0.1:" + std::to_string(closed_port) + " failed, Connection refused\n";
    const struct {
        const char* host;
        const char* source;
        bool dns_fails;
        std::string log;
        int lookups;
    } rows[] = {
        {"127.0.0.1", "0.0.0.0", true, refused, 0},
        {"some.host", "0.0.0.0", true, "[domain_to_ip]-->dns client agent init fail\n", 0},
        {"bad host!", "0.0.0.0", false, "[url_domain_to_ip]-->bad host! unrecognized hostname\n",
         0},
        {"no.host", "0.0.0.0", false, "[url_domain_to_ip]-->no.host invalid domain\n", 1},
        {"unresolved.host", "0.0.0.0", false,
         "[url_domain_to_ip]-->unresolved.host: dns parse failed[0]\n", 1},
        {"255.255.255.255", "0.0.0.0", false,
         "[url_domain_to_ip]-->255.255.255.255 invalid domain\n", 1},
        {"some.host", "my address", false, "HTTP: convert source ip error!\r\n\n", 0},
        {"127.0.0.1", "192.0.2.1", false, "HTTP: bind source ip to socket error!\r\n\n", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log);
        fakes::Reset();
        fakes::SetHost("unresolved.host", "");
        fakes::FailDnsInit(row.dns_fails);
        dns_ready = false;
        src_ip_set(row.source);
        UpdateServer server{};
        text_copy(server.host, row.host);
        server.port = closed_port;
        EXPECT_EQ(url_connect(&server), UPDATE_CONNECT_FAIL);
        EXPECT_EQ(server.socket, -1);
        EXPECT_EQ(fakes::DnsLookups(), row.lookups);
        EXPECT_TRUE(fakes::Syslog().ends_with(row.log + "url_connect<-->connect local fail\n"));
    }
}
