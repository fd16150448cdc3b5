#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>

#include <algorithm>
#include <future>

#include "base/text.h"
#include "base/unique_fd.h"
#include "config/settings.h"
#include "frame/identity.h"
#include "frame/log.h"
#include "http/check_version.h"
#include "http/version_reply.h"
#include "registry/app_registry.h"
#include "tests/support/daemon_test.h"

using Version = DaemonTest;

constexpr int APP_FD = 1000;

static void Register(const char* name, const char* version, uint32_t flags = 0) {
    ASSERT_EQ(reg_app_add(APP_FD, name, version, flags), REG_OK);
}

// Answers one connection with the reply; the result is what came in.
static std::string Serve(int listener, const std::string& reply) {
    const UniqueFd fd(accept(listener, nullptr, nullptr));
    char request[8192];  // one send of the client, which loopback keeps in one piece
    const ssize_t size = recv(fd.get(), request, sizeof(request), 0);
    (void)send(fd.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
    return {request, static_cast<size_t>(std::max<ssize_t>(size, 0))};
}

static std::string Md5(const std::string& text) {
    unsigned char digest[16];
    EVP_Digest(text.data(), text.size(), digest, nullptr, EVP_md5(), nullptr);
    char hex[33];
    for (int i = 0; i < 16; i++) snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

TEST_F(Version, QueryCarriesIdentityKeyAndTheFreeApps) {
    dir_.Write("proc/setmac/SerialNO", "SN 1+2");
    dir_.Write("proc/setmac/projectid", "Router:9");
    dir_.Write("proc/macaddr", "00d0.f822.33aa");
    dir_.Write("etc/http_client/device.conf",
               "os_name=O\nproject=P\nrelease_type=T\nrelease=1\nhw_version=1 0\n");
    http_client_get_device_info();
    DebugMask = DEBUG_ERROR;
    Register("alpha", "1:0");
    Register("empty", "");
    Register("busy", "1", APP_FLAG_BUSY);
    Register("a&b", "2 0");
    Register("not asked", "5");
    AppSet asked{};
    for (const int slot : {0, 1, 2, 3, 12}) app_set_insert(&asked, slot);  // 12 is free
    const std::string list =
        "<filelist><app name='busy'/><app name='a&amp;b'/>"
        "<app name='not asked'/><app name='stranger'/></filelist>";
    const UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof(address);
    ASSERT_EQ(bind(listener.get(), generic, size) + listen(listener.get(), 1), 0);
    ASSERT_EQ(getsockname(listener.get(), generic, &size), 0);
    auto served = std::async(
        std::launch::async, Serve, listener.get(),
        "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(list.size()) + "\r\n\r\n" + list);
    UpdateServer target{};
    text_copy(target.host, "127.0.0.1");
    text_copy(target.uri, "/qb/x.asp");
    target.port = ntohs(address.sin_port);
    AppSet updated{};
    auto status = UpdateStatus(99);
    EXPECT_NE(http_update_version_query(asked, &status, &updated, &target), nullptr);
    (void)shutdown(listener.get(), SHUT_RDWR);  // nothing waits for a connection that failed
    EXPECT_EQ(status, UPDATE_OK);
    EXPECT_EQ(target.socket, -1);
    EXPECT_EQ(updated.words[0], 0x8u);  // listed and asked about
    EXPECT_EQ(fakes::Syslog(),
              "[empty]<-->1 have no version\n[busy]<-->2 is busy now, try again later\n");
    reg_app_del_by_fd(APP_FD);

    const DeviceIdentity identity = device_identity_copy();
    const std::string request = served.get();
    EXPECT_TRUE(request.starts_with("POST /qb/x.asp HTTP/1.0\r\nHost: 127.0.0.1:"));
    const size_t begin = request.find("timestamp=") + 10;
    const std::string time = request.substr(begin, request.find('&', begin) - begin);
    const std::string key = Md5(std::string("SN 1+2") + identity.software_version + "Router:9" +
                                time + time + "3f6a2d9e81c47b05e9d2a6c4f01b738e");
    EXPECT_EQ(request.substr(request.find("&product")),
              "&product=Router%3A9&sn=SN%201+2&mac=00d0.f822.33aa&hardware=1%200&chset=1"
              "&timestamp=" +
                  time + "&randomCode=" + time + "&registerKey=" + key +
                  "&localIp=127.0.0.1&dataType=component&alpha=1%3A0&a&b=2%200");
}

TEST_F(Version, CheckTakesTheVersionFromAppOrFile) {
    for (const char* name : {"alpha", "beta", "gamma"}) Register(name, "1.0");
    const XmlDoc document(
        xml_doc_read_mem("<filelist><app name='beta'><file name='%s'><version>f1</version></file>"
                         "<file/></app><app name='alpha'><version> a version of 27 characters"
                         "</version><other/><file name='a-file-name-of-thirty-letters!'><version>"
                         "f2</version></file></app></filelist>"));
    AppSet updated{};
    for (const int slot : {0, 1, 7}) app_set_insert(&updated, slot);  // 7 has left
    output_check(document.get(), updated);
    EXPECT_TRUE(fakes::Terminal().ends_with(
        "\nalpha            a version of 27 cha a-file-name-of-thirty-let\n"
        "beta            f1                   %s                       \n"
        "beta                                                          \n"));
    reg_app_del_by_fd(APP_FD);
}
