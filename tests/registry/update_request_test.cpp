#include "registry/update_request.h"

#include <atomic>
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

class UpdateRequest : public RegistryServerTest {
  protected:
    static int Request(const std::string& xml, const char* name, std::vector<std::string> paths) {
        const XmlDoc document(xml_doc_read_mem(xml.c_str()));
        EXPECT_NE(document, nullptr);
        std::vector<char*> pointers;
        for (std::string& path : paths) pointers.push_back(path.data());
        return reg_update_req(xmlDocGetRootElement(document.get()), name, pointers.data(),
                              static_cast<int32_t>(pointers.size()));
    }
    static std::string Number(size_t value) { return Bytes(static_cast<uint16_t>(value)); }
    static std::string Entry(const std::string& path) {
        return static_cast<char>(path.size() + 1) + path + '\0';
    }
    static std::string Record(const std::string& name, const std::string& text) {
        return Number(name.size() + 1) + Number(text.size() + 1) + name + '\0' + text + '\0';
    }
    static std::string Payload(std::string name, size_t count, const std::string& middle) {
        name.resize(APP_NAME_SIZE, '\0');
        return name + Number(count) + Number(middle.size() + 4) + middle + std::string(4, '\0');
    }
    void ExpectRequest(int app, const std::string& payload) {
        const auto [type, received] = Receive(app);
        EXPECT_EQ(type, HTTP_MSG_TYPE_UPDATE_REQ);
        EXPECT_EQ(received, payload);
    }
};

TEST_F(UpdateRequest, CarriesFilesAndNodes) {
    const std::string name(31, 'n');
    const std::string longest(255, 'p');
    const std::string text1023(1023, 't');
    std::string sixty;
    std::string fifty;
    for (int i = 0; i < 60; ++i) {
        sixty += "<e>" + std::to_string(i) + "</e>";
        if (i < 50) fifty += Record("e", std::to_string(i));
    }
    struct Row {
        const char* name;
        std::string xml;
        std::vector<std::string> paths;
        std::string middle;
    };
    const Row rows[] = {
        {"usual",
         "<app name='x'>\n <version>2.0</version>\n <filecnt>2</filecnt>\n</app>",
         {"a.bin", "b.txt"},
         Entry("a.bin") + Entry("b.txt") + Record("version", "2.0") + Record("filecnt", "2")},
        {"nothing", "<app/>", {}, ""},
        {"empty path", "<app/>", {""}, Entry("")},
        {"longest path", "<app/>", {longest}, '\0' + longest + '\0'},
        {"other children",
         "<app>t<!--c--><?p i?><a/><b><c>1</c></b><d>2<e/>3</d><f><![CDATA[4]]></f></app>",
         {},
         Record("d", "2")},
        {"long texts",
         "<app><a>" + text1023 + "t</a><b>" + text1023 + "</b><c>1</c></app>",
         {},
         Record("b", text1023) + Record("c", "1")},
        {"sixty children", "<app>" + sixty + "</app>", {}, fifty},
        {"blanks count as children",
         "<app>\n" + sixty + "</app>",
         {},
         fifty.substr(0, fifty.size() - Record("e", "49").size())},
    };
    const int app = Connect();
    ASSERT_EQ(Register(app, name), REG_OK);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(Request(row.xml, name.c_str(), row.paths), 0);
        ExpectRequest(app, Payload(name, row.paths.size(), row.middle));
        EXPECT_EQ(First().flags, APP_FLAG_BUSY);
        Send(app, HTTP_MSG_TYPE_UPDATE_RSP, Bytes(UpdateResultMessage{5, {}, {}}));
    }
}

TEST_F(UpdateRequest, RefusedRequestLeavesTheAppAlone) {
    const int app = Connect();
    ASSERT_EQ(Register(app, "alpha"), REG_OK);
    const std::string xml = "<app><a>1</a></app>";
    // 40 + 254 * 257 + 217 = 65535 bytes, the most that a packet carries.
    std::vector<std::string> many(254, std::string(255, 'p'));
    many.push_back(std::string(216, 'p'));
    EXPECT_EQ(reg_update_req(nullptr, "alpha", nullptr, 0), -1);
    ExpectLog("invalid para in reg update");
    EXPECT_EQ(Request(xml, "alpha", {"ok", std::string(256, 'p')}), -1);
    ExpectLog("p] is large than 256");
    EXPECT_EQ(Request("<app/>", "alpha", many), -1);
    ExpectLog("[alpha]<-->update req send fail");
    EXPECT_EQ(Request(xml, "beta", {}), -1);
    ExpectLog("[beta]<-->have no find in reg");
    {
        const MemoryEndsAfter now(0);
        EXPECT_EQ(Request(xml, "alpha", {}), -1);
    }
    ExpectLog("[alpha]<-->parse xml info failed");
    {
        const MemoryEndsAfter now(0);
        EXPECT_EQ(Request("<app/>", "alpha", {}), -1);
    }
    ExpectLog("[alpha]<-->update req malloc fail");
    EXPECT_EQ(First().flags, 0U);
    EXPECT_EQ(Receive(app).first, 0);
    many.back().pop_back();
    EXPECT_EQ(Request("<app/>", "alpha", many), 0);
    EXPECT_EQ(Receive(app).second.size(), 65535U);
}

// The main loop has not seen the end of the old connection yet.
TEST_F(UpdateRequest, FailedSendFreesTheNameAtOnce) {
    for (const bool queued : {false, true}) {
        SCOPED_TRACE(queued);
        const int next = Connect();
        const int app = Connect();
        ASSERT_EQ(Register(app, "alpha"), REG_OK);
        (void)shutdown(app, SHUT_RD);  // sends to it fail
        if (queued) SendOnly(app, HTTP_MSG_TYPE_VERSION, Bytes(VersionMessage{"alpha", "old"}));
        std::thread([] { EXPECT_EQ(Request("<app/>", "alpha", {"f"}), -1); }).join();
        ExpectLog("<-->deregister [alpha] in free by fd");
        EXPECT_EQ(First().fd, -1);
        EXPECT_EQ(Register(next, "alpha"), REG_OK);
        EXPECT_EQ(First().flags, 0U);
        EXPECT_STREQ(First().version, "1.0");
        EXPECT_STREQ(reg_app_help_text(), "Files:alpha (multiple files splitted by space)");
        char byte = 0;
        EXPECT_LT(send(app, &byte, 1, MSG_NOSIGNAL), 0);
        Disconnect(next);
        Turn();
    }
}

// The main loop ends the app's connection and accepts another just before the
// request goes out.
TEST_F(UpdateRequest, NewConnectionDoesNotGetTheOldOnesRequest) {
    const int app = Connect();
    ASSERT_EQ(Register(app, "alpha"), REG_OK);
    int other = -1;
    s_before_request = [&] {
        Disconnect(app);
        Turn();
        other = Connect();
        EXPECT_EQ(Register(other, "beta"), REG_OK);
    };
    EXPECT_EQ(Request("<app/>", "alpha", {"f"}), -1);
    Turn();
    EXPECT_EQ(Receive(other).first, 0);
    EXPECT_STREQ(First().name, "beta");
    EXPECT_FALSE(Ended(other));
}

// Connections come and go, and descriptors with them, while requests are sent:
// each must reach the app that it is for.
TEST_F(UpdateRequest, NeverReachesAnotherApp) {
    std::atomic<bool> done{false};
    std::atomic<int> sent{0};
    std::thread sender([&] {
        const char* names[] = {"left", "right"};
        for (int i = 0; !done; ++i) sent += Request("<app/>", names[i % 2], {"f"}) == 0 ? 1 : 0;
    });
    int received = 0;
    for (int i = 0; i < 100000 && (i < 300 || sent < 100); ++i) {
        const std::string name = i % 3 == 0 ? "left" : "right";
        const int app = Connect();
        SendOnly(app, HTTP_MSG_TYPE_REGIST, RegistPayload(name));
        Turn();
        for (auto packet = Receive(app); packet.first != 0; packet = Receive(app)) {
            const std::string told = packet.second.c_str() + (packet.first == 2 ? 4 : 0);
            ASSERT_EQ(told, name);
            received += packet.first == HTTP_MSG_TYPE_UPDATE_REQ ? 1 : 0;
        }
        Disconnect(app);
        Turn();
    }
    done = true;
    sender.join();
    EXPECT_GE(sent, 100);
    EXPECT_LE(received, sent);
}

}  // namespace
