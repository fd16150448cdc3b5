#include "http/connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "config/settings.h"
#include "frame/identity.h"
#include "frame/log.h"
#include "frame/text.h"
#include "frame/unique_fd.h"
#include "tests/fakes/fakes.h"
#include "tests/http/reply_server.h"

TEST(Connection, LeavesFromTheSourceAddressOrSaysWhyNot) {
    const ReplyServer server({});  // connections wait in its queue
    const uint16_t closed_port = ReplyServer({}).port();
    const std::string refused =
        "connect to 127.0.0.1:" + std::to_string(closed_port) + " failed, Connection refused\n";
    const struct {
        const char* host;
        const char* source;
        const char* dns_source;  // empty: the name service is not asked, and does not work
        std::string log;         // empty: connects
    } rows[] = {
        {"127.1", "0.0.0.0", "", ""},
        {"good.host", "0.0.0.0", "0.0.0.0", ""},
        {"good.host", "127.0.0.9", "127.0.0.9", ""},
        {"127.0.0.1", "0.0.0.0", "", refused},
        {"some.host", "0.0.0.0", "", "[domain_to_ip]-->dns client agent init fail\n"},
        {"bad host!", "0.0.0.0", "0.0.0.0",
         "[url_domain_to_ip]-->bad host! unrecognized hostname\n"},
        {"255.255.255.255", "127.0.0.9", "127.0.0.9",
         "[url_domain_to_ip]-->255.255.255.255 invalid domain\n"},
        {"unresolved.host", "0.0.0.0", "0.0.0.0",
         "[url_domain_to_ip]-->unresolved.host: dns parse failed[0]\n"},
        {"good.host", "my address", "", "HTTP: convert source ip error!\r\n\n"},
        {"127.0.0.1", "192.0.2.1", "", "HTTP: bind source ip to socket error!\r\n\n"},
    };
    DebugMask = DEBUG_ERROR;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.host + row.log);
        fakes::Reset();
        fakes::SetHost("good.host", "127.0.0.1");
        fakes::SetHost("unresolved.host", "");
        fakes::FailDnsInit(*row.dns_source == '\0');
        dns_ready = false;
        src_ip_set(row.source);
        UpdateServer target{};
        text_copy(target.host, row.host);
        target.port = row.log == refused ? closed_port : server.port();
        EXPECT_EQ(url_connect(&target), row.log.empty() ? UPDATE_OK : UPDATE_CONNECT_FAIL);
        const UniqueFd fd(target.socket);
        const std::string log = fakes::Syslog();
        if (row.log.empty()) {
            EXPECT_NE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
            EXPECT_EQ(fakes::DnsSource(), row.dns_source);
        } else {
            EXPECT_FALSE(fd.valid());
            EXPECT_TRUE(log.ends_with(row.log + "url_connect<-->connect local fail\n")) << log;
        }
    }
    src_ip_set(SRC_IP_NONE);
}
