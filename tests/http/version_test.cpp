#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <chrono>

#include "config/server_list.h"
#include "config/settings.h"
#include "frame/identity.h"
#include "frame/log.h"
#include "frame/text.h"
#include "http/check_version.h"
#include "http/version_query.h"
#include "http/version_reply.h"
#include "tests/fakes/fakes.h"
#include "tests/http/reply_server.h"

constexpr int APP_FD = 1000;

// A device with an identity and, as each test needs, apps and servers.
class Version : public testing::Test {
  protected:
    Version() {
        fakes::Reset();
        DebugMask = 0;
        src_ip_set(SRC_IP_NONE);
        fakes::SetDeviceFile("/proc/setmac/SerialNO", "SN 1+2");
        fakes::SetDeviceFile("/proc/setmac/projectid", "Router:9");
        fakes::SetDeviceFile("/proc/macaddr", "00d0.f822.33aa");
        fakes::SetSystemText("tqsys_get_os_name", "OS ");
        fakes::SetSystemText("tqsys_get_project", "RG");
        fakes::SetSystemText("tqsys_get_release_type", "r");
        fakes::SetSystemText("tqsys_get_release", "1");
        fakes::SetSystemText("tqsys_get_hw_version", "1.0");
        http_client_get_device_info();
    }
    ~Version() override { reg_app_del_by_fd(APP_FD); }

    static void Register(const char* name, const char* version) {
        ASSERT_EQ(reg_app_add(APP_FD, name, version, 0), REG_OK);
    }
    static void MarkBusy(const char* name) {
        const WriteLock guard(app_registry_lock);
        reg_app_find(name)->flags |= APP_FLAG_BUSY;
    }
    static AppSet All() {
        AppSet set{};
        reg_app_all(&set);
        return set;
    }
    UpdateStatus Query(uint16_t port, const AppSet& asked) {
        UpdateServer server{};
        text_copy(server.host, "127.0.0.1");
        text_copy(server.uri, "/qb/x.asp");
        server.port = port;
        server.socket = -1;
        updated_ = AppSet{};
        UpdateStatus status = 99;
        const XmlDoc document = http_update_version_query(asked, &status, &updated_, &server);
        EXPECT_EQ(document != nullptr, status == UPDATE_OK);
        EXPECT_EQ(server.socket, -1);
        return status;
    }
    // Runs the command to its end; returns what the operator saw.
    static std::string CheckVersion(bool second) {
        cli_record record{};
        record.context = second ? 1 : 0;
        const int ended = fakes::CommandsEnded();
        http_check_version_cmd(&record);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (fakes::CommandsEnded() == ended && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(fakes::CommandsEnded(), ended + 1);
        EXPECT_EQ(fakes::CommandsStarted(), ended + 1);
        return fakes::Terminal();
    }

    AppSet updated_{};
};

static std::string Field(const std::string& form, const std::string& name) {
    const size_t begin = form.find(name + "=") + name.size() + 1;
    return form.substr(begin, form.find('&', begin) - begin);
}

static std::string Md5(const std::string& text) {
    unsigned char digest[16];
    EVP_Digest(text.data(), text.size(), digest, nullptr, EVP_md5(), nullptr);
    char hex[33];
    for (int i = 0; i < 16; i++) snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

TEST_F(Version, QueryCarriesIdentityKeyAndTheFreeApps) {
    DebugMask = DEBUG_ERROR;
    Register("alpha", "1:0");
    Register("empty", "");
    Register("busy", "1");
    Register("a&b", "2 0");
    Register("not asked", "5");
    MarkBusy("busy");
    AppSet asked = All();
    asked.words[0] &= ~uint64_t{0x10};
    app_set_insert(&asked, 12);  // a free slot
    ReplyServer server(
        {Ok("<filelist><app name='busy'/><app name='a&amp;b'/>"
            "<app name='not asked'/><app name='stranger'/></filelist>")});
    EXPECT_EQ(Query(server.port(), asked), UPDATE_OK);
    EXPECT_EQ(updated_.words[0], 0x8u);  // listed and asked about
    const std::string request = server.Requests().at(0);
    const std::string form = request.substr(request.find("\r\n\r\n") + 4);
    const std::string time = Field(form, "timestamp");
    const std::string key =
        Md5("SN 1+2OS RG r(1)Router:9" + time + time + "3f6a2d9e81c47b05e9d2a6c4f01b738e");
    EXPECT_EQ(form,
              "bin=OS%20RG%20r(1)&product=Router%3A9&sn=SN%201+2&mac=00d0.f822.33aa"
              "&hardware=1.0&chset=1&timestamp=" +
                  time + "&randomCode=" + time + "&registerKey=" + key +
                  "&localIp=127.0.0.1&dataType=component&alpha=1%3A0&a&b=2%200");
    EXPECT_TRUE(request.starts_with("POST /qb/x.asp HTTP/1.0\r\nHost: 127.0.0.1:"));
    EXPECT_EQ(fakes::Syslog(),
              "[empty]<-->1 have no version\n[busy]<-->2 is busy now, try again later\n");
}

TEST_F(Version, FailuresEndInTheirStatus) {
    AppSet none{};
    EXPECT_EQ(http_update_version_send(nullptr, none, &updated_), UPDATE_SEND_FAIL);
    uint16_t closed_port = 0;
    { closed_port = ReplyServer({}).port(); }
    Register("alpha", "1");
    EXPECT_EQ(Query(closed_port, All()), UPDATE_CONNECT_FAIL);

    ReplyServer server({"", "HTTP/1.1 500 Oops\r\nContent-Length: 0\r\n\r\n", Ok(""), Ok("hello"),
                        Ok("<files/>"), Ok("<!DOCTYPE filelist><filelist/>"),
                        Ok("<filelist></filelist>") + "garbage"});
    const UpdateStatus expected[] = {6, 6, 8, 8, 8, 8, 0};
    for (const UpdateStatus status : expected) {
        EXPECT_EQ(Query(server.port(), All()), status);
        EXPECT_TRUE(app_set_is_empty(updated_));
    }
    EXPECT_EQ(server.Requests().size(), std::size(expected));

    MarkBusy("alpha");
    ReplyServer silent({""});
    EXPECT_EQ(Query(silent.port(), All()), UPDATE_ALL_BUSY);
}

TEST_F(Version, CheckPrintsAReportForEachServer) {
    hu_serv_config_init();
    EXPECT_EQ(CheckVersion(false), "%notice: No bussiness modules registration.\n");
    Register("alpha", "1.0");
    Register("an-app-name-of-24-letters", "1.0");
    Register("gamma", "1.0");
    const std::string reply =
        "<filelist><app name='an-app-name-of-24-letters'><file name='%s'><version>f1</version>"
        "</file><file/></app><app name='alpha'><version> a version of 27 characters</version>"
        "<other/><file name='a-file-name-of-thirty-letters!'><version>f2</version></file>"
        "<file name='b'/></app></filelist>";
    const std::string report =
        "Business modules need to be updated: alpha, an-app-name-of-24-letters.\n"
        "    app-name           version          filename\n"
        "--------------- -------------------- ------------------------\n"
        "alpha            a version of 27 cha a-file-name-of-thirty-let\n"
        "alpha            a version of 27 cha b                        \n"
        "an-app-name-of- f1                   %s                       \n"
        "an-app-name-of-                                               \n";
    ReplyServer first({Ok(reply), Ok("<filelist/>")});
    ASSERT_EQ(hu_serv_config_add("127.0.0.1", first.port(), "/u", false), HU_SERV_OK);
    EXPECT_EQ(CheckVersion(false), report);
    EXPECT_EQ(CheckVersion(false), "%notice: All the bussiness modules are the latest versions.\n");

    // In the order of configuration, each on its own.
    EXPECT_EQ(CheckVersion(true), "");
    ReplyServer cut({""});
    ReplyServer wrong_root({Ok("<x/>")});
    ReplyServer good({Ok(reply)});
    ASSERT_EQ(hu_serv_config_add("127.0.0.1", cut.port(), "/u", true), HU_SERV_OK);
    ASSERT_EQ(hu_serv_config_add("127.1", wrong_root.port(), "/u", true), HU_SERV_OK);
    ASSERT_EQ(hu_serv_config_add("127.0.0.1", good.port(), "/u", true), HU_SERV_OK);
    EXPECT_EQ(CheckVersion(true),
              "Check version from server: 127.0.0.1\r\n"
              "%notice: Communicate with the server failed.\n"
              "Check version from server: 127.1\r\n"
              "%notice: The server response message format is wrong.\n"
              "Check version from server: 127.0.0.1\r\n" +
                  report);

    // Apps that left after the reply have no line of their own.
    reg_app_del_by_fd(APP_FD);
    AppSet updated{};
    app_set_insert(&updated, 0);
    output_check(XmlDoc(xml_doc_read_mem("<filelist/>")).get(), updated);
    EXPECT_EQ(fakes::Terminal(),
              "Business modules need to be updated.\n"
              "    app-name           version          filename\n"
              "--------------- -------------------- ------------------------\n");
}
