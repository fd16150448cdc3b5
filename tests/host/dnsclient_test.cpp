// Look-ups against a DNS server on the loopback interface.
#include "frame/platform/dnsclient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <time.h>

#include <atomic>
#include <string>
#include <thread>

#include "base/text.h"
#include "base/unique_fd.h"

namespace {

sockaddr_in address_of(const char* ip) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(ip);
    return address;
}

// Answers A queries by the first label: a number N with 10.0.0.N, "refused" and
// "nodata" with that, "silent" never, anything else with NXDOMAIN.
class DnsServer {
  public:
    explicit DnsServer(bool answers = true) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address = address_of("127.0.0.1");
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
        name = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        if (answers) thread_ = std::thread([this] { Serve(); });
    }
    ~DnsServer() {
        (void)shutdown(fd_.get(), SHUT_RDWR);  // ends the wait of the thread
        if (thread_.joinable()) thread_.join();
    }
    std::string name;  // "ip:port"
    std::atomic<in_addr_t> last_peer = 0;
    std::atomic<bool> stranger_asked = false;

  private:
    void Serve() {
        char query[512];
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        auto* const address = reinterpret_cast<sockaddr*>(&peer);
        for (ssize_t got = 0;; length = sizeof peer) {
            got = recvfrom(fd_.get(), query, sizeof query, 0, address, &length);
            if (got < 17) return;
            last_peer = peer.sin_addr.s_addr;
            const std::string asked(query, static_cast<size_t>(got)), reply = Reply(asked);
            if (asked.find("stranger") != asked.npos) stranger_asked = true;
            if (!reply.empty()) sendto(fd_.get(), reply.data(), reply.size(), 0, address, length);
        }
    }
    static std::string Reply(std::string query) {
        const std::string label = query.substr(13, static_cast<size_t>(query[12]));
        const int number = atoi(label.c_str());
        if (label == "silent") return "";
        query.resize(query.find('\0', 12) + 5);
        query.replace(6, 6, 6, '\0');
        query[2] = static_cast<char>(0x81);
        const bool found = number > 0 || label == "nodata";
        query[3] = static_cast<char>(0x80 | (label == "refused" ? 5 : found ? 0 : 3));
        if (number == 0) return query;
        query[7] = 1;
        // The name again, type A, class IN, a minute to live, four bytes.
        query += std::string("\xc0\x0c\0\x01\0\x01\0\0\0\x3c\0\x04\x0a\0\0", 15);
        return query + static_cast<char>(number);
    }
    UniqueFd fd_;
    std::thread thread_;
};

// "10.0.0.7", or "-1" for a refused name, or "[code]".
std::string resolve(const std::string& name, const char* source = "0.0.0.0") {
    DnsRequest request{};
    text_copy(request.name, name);
    const sockaddr_in address = address_of(source);
    memcpy(request.source, &address, sizeof address);
    if (dns_domain_to_ip(&request) < 0) return "-1";
    if (request.result != DNS_RESULT_RESOLVED) {
        return std::string("[").append(std::to_string(request.result)) + "]";
    }
    EXPECT_EQ(request.family, AF_INET);
    return inet_ntoa({request.address});
}

TEST(DnsClient, ResolvesAndTellsFailuresApart) {
    DnsServer server;
    setenv("DNS_CLIENT_SERVERS", server.name.c_str(), 1);
    setenv("LOCALDOMAIN", "stranger.test", 1);  // stands for resolv.conf's search list
    EXPECT_EQ(dns_client_agent_init(), 0);
    for (const auto& [name, result] : {std::pair("7.test", "10.0.0.7"),
                                       {"8.test.", "10.0.0.8"},
                                       {"missing.test", "-1"},
                                       {"nodata.test", "-1"},
                                       {"refused.test", "[4]"},
                                       {"a..b", "-1"}}) {
        EXPECT_EQ(resolve(name), result) << name;
    }
    EXPECT_FALSE(server.stranger_asked);
    EXPECT_EQ(resolve("missing"), "-1");
    EXPECT_TRUE(server.stranger_asked) << "short names are looked for in the list";
    EXPECT_EQ(resolve("9.test", "127.0.0.2"), "10.0.0.9");
    EXPECT_EQ(server.last_peer, inet_addr("127.0.0.2"));
    EXPECT_EQ(resolve("10.test", "192.0.2.1"), "[4]") << "not an address of this machine";
    setenv("DNS_CLIENT_SERVERS", "not a server", 1);
    EXPECT_EQ(resolve("7.test"), "[5]");
    for (const char* name : {"localhost", "LocalHost.", "a.localhost"}) {
        EXPECT_EQ(resolve(name), "127.0.0.1") << name << " needs neither hosts file nor server";
    }
    EXPECT_EQ(resolve("notlocalhost"), "[5]");
}

TEST(DnsClient, SilentServersEndInTimeAndHoldNobodyElse) {
    // The first server never answers: one round later the second one is asked.
    DnsServer deaf(false), server;
    setenv("DNS_CLIENT_SERVERS", (deaf.name + "," + server.name).c_str(), 1);
    std::atomic<bool> silent_done = false;
    std::thread silent([&] {
        EXPECT_EQ(resolve("silent.test"), "[3]");
        silent_done = true;
    });
    EXPECT_EQ(resolve("1.test"), "10.0.0.1");
    EXPECT_FALSE(silent_done);
    const time_t before = time(nullptr);
    silent.join();
    EXPECT_LT(time(nullptr) - before, 10) << "three rounds of two servers take 14 s";
}

TEST(DnsClient, AcceptsHostNamesOnly) {
    const std::string label(63, 'a'), long_name = label + "." + label + "." + label + ".";
    EXPECT_TRUE(hostname_verify((long_name + std::string(61, 'b')).c_str()));
    EXPECT_FALSE(hostname_verify((long_name + std::string(62, 'b')).c_str()));
    EXPECT_FALSE(hostname_verify((label + "a.com").c_str()));
    for (const char* name : {"update.example.com", "h.", "3com.a-b_c.x1"}) {
        EXPECT_TRUE(hostname_verify(name)) << name;
    }
    for (const char* name : {".", "", "a..b", "-a.com", "a-.com", "a b.com", "255.255.255.255"}) {
        EXPECT_FALSE(hostname_verify(name)) << name;
    }
}

}  // namespace
