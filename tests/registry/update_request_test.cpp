#include "registry/update_request.h"

#include <fcntl.h>

#include <functional>
#include <thread>

#include "http/xml.h"
#include "tests/registry/registry_fixture.h"
#include "tests/support/failing_alloc.h"

// Runs once, between the look-up of the app and the sending of its request.
static std::function<void()> s_before_request;

// The linker leads the daemon's calls here and __real_ to the library.
extern "C" {
int __real_http_update_reg_send_normal(int fd, uint16_t type, const void* payload, int length);
int __wrap_http_update_reg_send_normal(int fd, uint16_t type, const void* payload, int length) {
    if (type == HTTP_MSG_TYPE_UPDATE_REQ && s_before_request) {
        std::exchange(s_before_request, nullptr)();
    }
    return __real_http_update_reg_send_normal(fd, type, payload, length);
}
}

namespace {

using UpdateRequest = RegistryServerTest;

int Request(const std::string& xml, const char* name, std::vector<std::string> paths) {
    const XmlDoc document(xml_doc_read_mem(xml.c_str()));
    std::vector<char*> pointers;
    for (std::string& path : paths) pointers.push_back(path.data());
    return reg_update_req(xmlDocGetRootElement(document.get()), name, pointers.data(),
                          static_cast<int32_t>(pointers.size()));
}

TEST_F(UpdateRequest, CarriesFilesAndNodes) {
    const std::string name(31, 'n');
    const std::string longest(255, 'p');
    const std::string text1023(1023, 't');
    std::string xml = "<app name='x'>t<!--c--><?p i?><a/><b><c>1</c></b><d>2<e/>3</d>";
    xml += "<f><![CDATA[4]]></f><g>" + text1023 + "t</g><h>" + text1023 + "</h>";
    std::string rest = std::string("\6a.bin\0", 7) + '\0' + longest + '\0';
    rest += Fact("d", "2") + Fact("h", text1023);
    for (int i = 9; i < 60; ++i) {  // fifty nodes of any kind are looked at
        xml += "<i>" + std::to_string(i) + "</i>";
        if (i < 50) rest += Fact("i", std::to_string(i));
    }
    rest += std::string(4, '\0');
    const int app = Connect();
    ASSERT_EQ(Register(app, name), REG_OK);
    ASSERT_EQ(Request(xml + "</app>", name.c_str(), {"a.bin", longest}), 0);
    EXPECT_EQ(First().flags, APP_FLAG_BUSY);
    const auto [type, payload] = Receive(app);
    EXPECT_EQ(type, HTTP_MSG_TYPE_UPDATE_REQ);
    EXPECT_EQ(payload, name + '\0' + Number(2) + Number(rest.size()) + rest);
}

TEST_F(UpdateRequest, RefusedRequestLeavesTheAppAlone) {
    const int app = Connect();
    ASSERT_EQ(Register(app, "alpha"), REG_OK);
    // 40 + 254 * 257 + 217 = 65535 bytes, the most that a packet carries.
    std::vector<std::string> many(254, std::string(255, 'p'));
    many.push_back(std::string(216, 'p'));
    EXPECT_EQ(Request("<app/>", "alpha", {"ok", std::string(256, 'p')}), -1);
    EXPECT_EQ(Request("<app/>", "alpha", many), -1);
    EXPECT_EQ(Request("<app/>", "beta", {}), -1);
    for (const char* xml : {"<app><a>1</a></app>", "<app/>"}) {
        const MemoryEndsAfter now(0);
        EXPECT_EQ(Request(xml, "alpha", {}), -1);
    }
    EXPECT_EQ(First().flags, 0U);
    EXPECT_EQ(Receive(app).first, 0);
    many.back().pop_back();
    EXPECT_EQ(Request("<app/>", "alpha", many), 0);
    EXPECT_EQ(Receive(app).second.size(), 65535U);
}

// The main loop has not seen the end of the old connection yet.
TEST_F(UpdateRequest, FailedSendFreesTheNameAtOnce) {
    for (const bool queued : {false, true}) {
        const int next = Connect();
        const int app = Connect();
        ASSERT_EQ(Register(app, "alpha"), REG_OK);
        const std::string old = Bytes(http_msg_version{"alpha", "old"});
        if (queued) (void)http_update_reg_send_normal(app, HTTP_MSG_TYPE_VERSION, old.data(), 64);
        (void)shutdown(app, SHUT_RD);  // sends to it fail
        std::thread([] { EXPECT_EQ(Request("<app/>", "alpha", {"f"}), -1); }).join();
        EXPECT_EQ(First().fd, -1);
        EXPECT_EQ(Register(next, "alpha"), REG_OK);
        EXPECT_STREQ(First().version, "1.0");
        EXPECT_LT(send(app, "", 1, MSG_NOSIGNAL), 0);
        Disconnect(next);
    }
}

// The main loop ends the app's connection and accepts another just before the
// request goes out: it must not get the same descriptor.
TEST_F(UpdateRequest, NewConnectionDoesNotGetTheOldOnesRequest) {
    const int app = Connect();
    ASSERT_EQ(Register(app, "alpha"), REG_OK);
    const int old_fd = First().fd;
    int other = -1;
    s_before_request = [&] {
        Send(app, HTTP_MSG_TYPE_REGIST, "wrong");
        other = Connect();
        EXPECT_EQ(Register(other, "beta"), REG_OK);
    };
    EXPECT_EQ(Request("<app/>", "alpha", {"f"}), -1);
    Turn();
    EXPECT_EQ(Receive(other).first, 0);
    EXPECT_STREQ(First().name, "beta");
    EXPECT_EQ(fcntl(old_fd, F_GETFD), -1) << "left open";
}

}  // namespace
