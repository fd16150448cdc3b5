// A registration server on a real socket in a private directory, its loop in
// virtual time, and apps that speak real packets to it.
#pragma once

#include <cerrno>
#include <vector>

#include "base/local_socket.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "registry/app_registry.h"
#include "registry/reg_messages.h"
#include "registry/reg_server.h"
#include "tests/support/daemon_test.h"
#include "tests/support/packets.h"

class RegistryServerTest : public DaemonTest {
  protected:
    void SetUp() override {
        loop_ = tq_thread_master_create();
        ASSERT_EQ(reg_server_install(loop_, grace_ms_), 0);
    }
    void TearDown() override {
        apps_.clear();
        Turn();
        DebugMask = 0;
        tq_thread_master_finish(loop_);
    }

    void Turn() {
        while (fakes::RunReadable(loop_) > 0) continue;
    }
    // A connection that the server has not looked at yet.
    int Dial() {
        UniqueFd& app = apps_.emplace_back();
        EXPECT_EQ(local_connect((dir_ / REG_SOCKET_PATH).c_str(), 0, &app), 0);
        return app.get();
    }
    int Connect() {
        const int app = Dial();
        Turn();
        return app;
    }
    void Disconnect(int app) {
        std::erase_if(apps_, [&](const UniqueFd& sock) { return sock.get() == app; });
        Turn();
    }
    void Send(int app, uint16_t type, const std::string& payload) {
        SendPacket(app, type, payload);
        Turn();
    }
    // The result in the server's answer.
    int Register(int app, const std::string& name, const std::string& save_path = "") {
        http_msg_regist message{0, "", "1.0", ""};
        (void)text_copy(message.name, name);
        (void)text_copy(message.save_path, save_path);
        Send(app, HTTP_MSG_TYPE_REGIST, Bytes(message));
        return Answer(app, name);
    }
    int Answer(int app, const std::string& name) {
        const auto [type, payload] = Receive(app);
        if (type != HTTP_MSG_TYPE_REGIST_RSP || payload.size() != sizeof(http_msg_regist_rsp))
            return -1;
        EXPECT_EQ(payload.substr(4), Field(name, 32));
        return payload[0];
    }
    // The next packet that is there; type 0 without one.
    static std::pair<int, std::string> Receive(int app) { return ReceivePacket(app, MSG_DONTWAIT); }
    static bool Ended(int app) {
        char byte = 0;
        const ssize_t got = recv(app, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }
    // The app in slot 0; fd -1 when there is none.
    static AppEntry First() {
        AppEntry entry{};
        return reg_app_get(0, &entry) == 0 ? entry : AppEntry{-1, "", "", "", 0};
    }

    int64_t grace_ms_ = 0;
    tq_thread_master* loop_ = nullptr;
    std::vector<UniqueFd> apps_;
};
