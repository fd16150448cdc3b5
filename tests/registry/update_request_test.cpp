#include "registry/update_request.h"

#include <fcntl.h>

#include <functional>
#include <thread>

#include "http/xml.h"
#include "tests/registry/registry_fixture.h"

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

TEST_F(UpdateRequest, RefusedRequestLeavesTheAppAlone) {
    const int app = Connect();
    ASSERT_EQ(Register(app, "alpha"), REG_OK);
    // 40 + 254 * 257 + 217 = 65535 bytes, the most that a packet carries.
    std::vector<std::string> many(254, std::string(255, 'p'));
    many.push_back(std::string(216, 'p'));
    EXPECT_EQ(Request("<app/>", "alpha", {"ok", std::string(256, 'p')}), -1);
    EXPECT_EQ(Request("<app/>", "alpha", many), -1);
    EXPECT_EQ(Request("<app/>", "beta", {}), -1);
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
