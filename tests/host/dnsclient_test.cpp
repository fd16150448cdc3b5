// Look-ups against a DNS server on the loopback interface.
#include "frame/platform/dnsclient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "frame/sync.h"
#include "frame/text.h"
#include "frame/unique_fd.h"

namespace {

// A UDP socket on the loopback interface; *server becomes its "ip:port".
UniqueFd loopback_socket(std::string* server) {
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    *server = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    return fd;
}

// Answers A queries: names "N.good.test" with 10.0.0.N, "nodata.test" with nothing, "refused.test"
// and "failed.test" with that status, "silent.test" never, anything else with NXDOMAIN.
class DnsServer {
  public:
    DnsServer() : fd_(loopback_socket(&servers_)), thread_([this] { Serve(); }) {}
    ~DnsServer() {
        (void)shutdown(fd_.get(), SHUT_RDWR);  // ends the wait of the thread
        thread_.join();
    }
    DnsServer(const DnsServer&) = delete;
    DnsServer& operator=(const DnsServer&) = delete;

    const std::string& servers() const { return servers_; }
    std::string AskedFrom(const std::string& name) {
        const MutexLock lock(lock_);
        return asked_from_[name];
    }

  private:
    void Serve() {
        char buffer[512];
        sockaddr_in peer{};
        for (;;) {
            socklen_t peer_length = sizeof peer;
            const ssize_t got = recvfrom(fd_.get(), buffer, sizeof buffer, 0,
                                         reinterpret_cast<sockaddr*>(&peer), &peer_length);
            if (got < 17) return;
            const std::string reply =
                Reply(std::string(buffer, static_cast<size_t>(got)), inet_ntoa(peer.sin_addr));
            if (reply.empty()) continue;
            (void)sendto(fd_.get(), reply.data(), reply.size(), 0,
                         reinterpret_cast<sockaddr*>(&peer), peer_length);
        }
    }

    std::string Reply(std::string query, const std::string& source) {
        std::string name;
        size_t at = 12;
        while (query[at] != 0) {
            const auto length = static_cast<size_t>(query[at]);
            name += (name.empty() ? "" : ".") + query.substr(at + 1, length);
            at += length + 1;
        }
        query.resize(at + 5);
        query.replace(6, 6, 6, '\0');
        {
            const MutexLock lock(lock_);
            asked_from_[name] = source;
        }
        char status = 3;
        if (name == "silent.test") return "";
        if (name == "refused.test") status = 5;
        if (name == "failed.test") status = 2;
        if (name == "nodata.test") status = 0;
        if (name.ends_with(".good.test")) {
            status = 0;
            query[7] = 1;
            // The name again, type A, class IN, a minute to live, four bytes.
            query += std::string("\xc0\x0c\0\x01\0\x01\0\0\0\x3c\0\x04\x0a\0\0", 15) +
                     static_cast<char>(atoi(name.c_str()));
        }
        query[2] = static_cast<char>(0x81);
        query[3] = static_cast<char>(0x80 | status);
        return query;
    }

    std::string servers_;
    UniqueFd fd_;
    Mutex lock_;
    std::map<std::string, std::string> asked_from_ GUARDED_BY(lock_);
    std::thread thread_;
};

// "10.0.0.7", or "-1" for a refused name, or "[code]".
std::string resolve(const std::string& name, const char* source = "0.0.0.0") {
    DnsRequest request{};
    text_copy(request.name, name);
    request.constant_260 = 1;
    request.constant_408 = 2;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(source);
    memcpy(request.source, &address, sizeof address);
    if (dns_domain_to_ip(&request) < 0) return "-1";
    if (request.result != DNS_RESULT_RESOLVED) return "[" + std::to_string(request.result) + "]";
    EXPECT_EQ(request.family, AF_INET);
    const in_addr found{request.address};
    char text[INET_ADDRSTRLEN] = "";
    return inet_ntop(AF_INET, &found, text, sizeof text);
}

TEST(DnsClient, ResolvesAndTellsFailuresApart) {
    DnsServer server;
    setenv("DNS_CLIENT_SERVERS", server.servers().c_str(), 1);
    EXPECT_EQ(dns_client_agent_init(), 0);
    // A bare root directory has no such file; the name server then refuses the name.
    const char* localhost = access("/etc/hosts", R_OK) == 0 ? "127.0.0.1" : "[4]";
    const struct {
        const char* name;
        const char* result;
    } rows[] = {{"7.good.test", "10.0.0.7"}, {"7.GOOD.test.", "-1"},   {"8.good.test.", "10.0.0.8"},
                {"missing.test", "-1"},      {"nodata.test", "-1"},    {"refused.test", "[4]"},
                {"failed.test", "[4]"},      {"localhost", localhost}, {"a..b", "-1"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(resolve(row.name), row.result);
    }
    EXPECT_EQ(resolve("9.good.test", "127.0.0.2"), "10.0.0.9");
    EXPECT_EQ(server.AskedFrom("9.good.test"), "127.0.0.2");
    EXPECT_EQ(resolve("10.good.test", "192.0.2.1"), "[4]") << "not an address of this machine";
    EXPECT_EQ(server.AskedFrom("10.good.test"), "");
    setenv("DNS_CLIENT_SERVERS", "not a server", 1);
    EXPECT_EQ(resolve("7.good.test"), "[5]");
    unsetenv("DNS_CLIENT_SERVERS");
}

TEST(DnsClient, SilentServersEndInTimeAndHoldNobodyElse) {
    DnsServer server;
    // The first server never answers (nobody reads its queries): one round later
    // the second one is asked.
    std::string servers;
    const UniqueFd deaf = loopback_socket(&servers);
    servers += "," + server.servers();
    setenv("DNS_CLIENT_SERVERS", servers.c_str(), 1);
    std::atomic<bool> silent_done = false;
    std::thread silent([&] {
        EXPECT_EQ(resolve("silent.test"), "[3]");
        silent_done = true;
    });
    std::vector<std::thread> threads;
    for (int i = 1; i <= 4; ++i) {
        threads.emplace_back([i, &silent_done] {
            const std::string number = std::to_string(i);
            EXPECT_EQ(resolve(number + ".good.test"), "10.0.0." + number);
            EXPECT_FALSE(silent_done);
        });
    }
    for (std::thread& thread : threads) thread.join();
    timespec before{}, after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    silent.join();
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_LT(after.tv_sec - before.tv_sec, 10) << "three rounds of two servers take 14 s";
    unsetenv("DNS_CLIENT_SERVERS");
}

TEST(DnsClient, AcceptsHostNamesOnly) {
    const std::string label(63, 'a'), long_name = label + "." + label + "." + label + ".";
    const struct {
        std::string name;
        bool accepted;
    } rows[] = {{"update.example.com", true},
                {"update.example.com.", true},
                {"h", true},
                {"3com.example", true},
                {"a-b_c.x1", true},
                {long_name + std::string(61, 'b'), true},
                {long_name + std::string(61, 'b') + ".", true},
                {long_name + std::string(62, 'b'), false},
                {label + "a.com", false},
                {"", false},
                {".", false},
                {".com", false},
                {"a..b", false},
                {"a.b..", false},
                {"-a.com", false},
                {"a-.com", false},
                {"a b.com", false},
                {"a/b", false},
                {"a\xc3\xa9.com", false},
                {"255.255.255.255", false},
                {"example.123", false}};
    EXPECT_FALSE(hostname_verify(nullptr));
    for (const auto& row : rows) {
        EXPECT_EQ(hostname_verify(row.name.c_str()), row.accepted) << row.name;
    }
}

}  // namespace
