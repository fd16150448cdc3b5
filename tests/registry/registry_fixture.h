// A registration server on a real socket in a private directory, its loop in
// virtual time, and apps that speak real packets to it.
#pragma once

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <string>
#include <vector>

#include "frame/log.h"
#include "frame/paths.h"
#include "frame/platform/http_update.h"
#include "frame/text.h"
#include "frame/unique_fd.h"
#include "registry/app_registry.h"
#include "registry/reg_messages.h"
#include "registry/reg_server.h"
#include "tests/fakes/fakes.h"
#include "tests/support/temp_dir.h"

template <typename Message>
std::string Bytes(const Message& message) {
    return {reinterpret_cast<const char*>(&message), sizeof message};
}

class RegistryServerTest : public testing::Test {
  protected:
    void SetUp() override {
        fakes::Reset();
        ASSERT_EQ(setenv("TMPDIR", dir_.path().c_str(), 1), 0);
        ASSERT_EQ(setenv("DATA_VEMO_DIR", (dir_ / "d").c_str(), 1), 0);
        http_client_get_env_dir();
        std::filesystem::create_directories(dir_ / WORKING_DIR);
        loop_ = tq_thread_master_create();
        DebugMask = DEBUG_REGISTER;
        ASSERT_EQ(reg_server_install(loop_), 0);
    }
    void TearDown() override {
        apps_.clear();
        Turn();
        DebugMask = 0;
        tq_thread_master_finish(loop_);
    }

    // Runs the loop until nothing is left to do.
    void Turn() {
        while (fakes::RunReadable(loop_) > 0) {
        }
    }
    // A new connection; the server has accepted, or refused, it.
    int Connect() {
        UniqueFd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (void)text_copy(address.sun_path, dir_ / REG_SOCKET_PATH);
        EXPECT_EQ(connect(sock.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        Turn();
        apps_.push_back(std::move(sock));
        return apps_.back().get();
    }
    void Disconnect(int app) {
        std::erase_if(apps_, [&](const UniqueFd& sock) { return sock.get() == app; });
        Turn();
    }
    void Send(int app, uint16_t type, const std::string& payload) {
        const auto size = static_cast<int>(payload.size());
        EXPECT_EQ(http_update_reg_send_normal(app, type, payload.data(), size), 0);
        Turn();
    }
    // The result in the server's answer.
    int Register(int app, const std::string& name, const std::string& save_path = "") {
        RegistMessage message{};
        (void)text_copy(message.name, name);
        (void)text_copy(message.version, "1.0");
        (void)text_copy(message.save_path, save_path);
        Send(app, HTTP_MSG_TYPE_REGIST, Bytes(message));
        return Answer(app, name);
    }
    int Answer(int app, const std::string& name) {
        const auto [type, payload] = Receive(app);
        if (type != HTTP_MSG_TYPE_REGIST_RSP || payload.size() != sizeof(RegistReply)) return -1;
        EXPECT_EQ(payload.substr(4), (name + std::string(32, '\0')).substr(0, 32));
        return payload[0];
    }
    // The next packet that is there; type 0 without one.
    static std::pair<int, std::string> Receive(int app) {
        http_update_packet_header header{};
        if (recv(app, &header, sizeof header, MSG_DONTWAIT) != sizeof header) return {0, ""};
        std::string text(header.length, '\0');
        EXPECT_EQ(http_update_reg_receive_assign(app, text.data(), header.length), header.length);
        return {header.type, text};
    }
    static bool Ended(int app) {
        char byte = 0;
        const ssize_t got = recv(app, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }
    // The app in slot 0; fd -1 when there is none.
    static AppEntry First() {
        AppEntry entry{};
        if (reg_app_get(0, &entry) != 0) entry.fd = -1;
        return entry;
    }
    static void ExpectLog(const std::string& text) {
        const std::string log = fakes::Syslog();
        EXPECT_NE(log.find(text), log.npos) << text << " is missing in\n" << log;
    }

    TempDir dir_;
    tq_thread_master* loop_ = nullptr;
    std::vector<UniqueFd> apps_;
};
