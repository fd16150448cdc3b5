// The support service over its real socket, on a real loop.
#include "frame/platform/tech_support_msg.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "frame/unique_fd.h"
#include "host/tech_support_msg/protocol.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr int BIG = 5;      // a report longer than a socket's buffer
constexpr int ENDLESS = 6;  // a report longer than allowed

int answer(int type, void*) {
    const std::string block(4096, 'x');
    if (type == 0) tech_module_msg_output("100%% of %s\n", "zero");
    if (type == 1) tech_module_msg_output("lost: no completion\n");
    for (int i = 0; type >= BIG && i < (type == ENDLESS ? 300 : 200); ++i) {
        tech_module_msg_output("%s", block.c_str());
    }
    if (type == 1 || type == 2) return 0;
    tech_module_msg_deal_completion();
    tech_module_msg_output("after the end\n");
    tech_module_msg_deal_completion();
    return 0;
}

// The service is the process's only one, so all tests share it.
class TechSupport : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        setenv("TMPDIR", s_dir.path().c_str(), 1);
        setenv("TQ_THREAD_SPEED", "100", 1);
        s_master = tq_thread_master_create();
        EXPECT_EQ(tech_reg_service_callback("oam#test", s_master, answer), -1) << "no directory";
        std::filesystem::create_directories(s_dir / "oam/http_client");
        s_dir.Write("oam/http_client/.tech_support", "left over");
        EXPECT_EQ(tech_reg_service_callback("oam#test", s_master, answer), 0);
        EXPECT_EQ(tech_reg_service_callback("oam#test", s_master, answer), -1) << "twice";
        EXPECT_EQ(tech_module_reg_dump_file("/tmp/%s dump"), 0);
        EXPECT_EQ(tech_module_reg_dump_file("/tmp/second"), 0);
        EXPECT_NE(tech_module_reg_dump_file("/tmp/a\nb"), 0);
        tech_module_msg_output("nobody asked\n");
        tech_module_msg_deal_completion();
    }
    static void TearDownTestSuite() { tq_thread_master_finish(s_master); }

    static UniqueFd Connect() {
        const sockaddr_un address = tech_support_address();
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        EXPECT_EQ(connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        return fd;
    }

    // Runs the loop while the client does its work on another thread.
    template <typename Client>
    static void Serve(Client client) {
        std::atomic<bool> done = false;
        std::thread thread([&] {
            client();
            done = true;
        });
        tq_thread record{};
        while (!done) {
            // A tick ends the wait for the last event.
            tq_thread_add_timer(
                s_master, [](tq_thread*) { return 0; }, nullptr, 1);
            if (tq_thread_fetch(s_master, &record) != nullptr) tq_thread_call(&record);
        }
        thread.join();
    }

    static std::string ReadAll(const UniqueFd& fd) {
        std::string reply;
        char buffer[4096];
        for (;;) {
            const ssize_t got = recv(fd.get(), buffer, sizeof buffer, 0);
            if (got <= 0) return reply;
            reply.append(buffer, static_cast<size_t>(got));
        }
    }

    static std::string Ask(const std::string& request) {
        std::string reply;
        Serve([&] {
            const UniqueFd fd = Connect();
            (void)send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL);
            if (!request.ends_with('\n')) (void)shutdown(fd.get(), SHUT_WR);
            reply = ReadAll(fd);
        });
        return reply;
    }

    static inline TempDir s_dir;
    static inline tq_thread_master* s_master;
};

TEST_F(TechSupport, AnswersEachRequestByTheProtocol) {
    const struct {
        std::string request;
        std::string reply;
    } rows[] = {
        {"report 0\n", "complete 13\n100% of zero\n"},
        {"report 1\n", "no report\n"},
        {"report 2\n", "no report\n"},
        {"report 3\n", "complete 0\n"},
        {"report 4\nreport 0\n", "complete 0\n"},
        {"files\n", "/tmp/%s dump\n/tmp/second\n"},
        {"report\n", ""},
        {"report -1\n", ""},
        {"report 1x\n", ""},
        {"report 9999999999\n", ""},
        {"report 0", ""},
        {"\n", ""},
        {std::string(TECH_SUPPORT_REQUEST_MAX, 'r'), ""},
        {"report 0\n", "complete 13\n100% of zero\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.request);
        EXPECT_EQ(Ask(row.request), row.reply);
    }
    struct stat status {};
    ASSERT_EQ(stat((s_dir / "oam/http_client/.tech_support").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFSOCK | 0600});
}

TEST_F(TechSupport, SendsLongReportsAndCutsEndlessOnes) {
    EXPECT_EQ(Ask("report 5\n"), "complete 819200\n" + std::string(819200, 'x'));
    const std::string cut = Ask("report 6\n");
    EXPECT_EQ(cut.size(), strlen("complete 1048576\n") + 1048576);
    EXPECT_TRUE(cut.starts_with("complete 1048576\nxxx"));
    EXPECT_TRUE(cut.ends_with("xxx\n(the report was cut here)\n"));
}

TEST_F(TechSupport, StalledPeersHoldNeitherTheLoopNorThePlaces) {
    UniqueFd silent[TECH_SUPPORT_CONNECTION_MAX], deaf;
    Serve([&] {
        for (UniqueFd& fd : silent) fd = Connect();
        deaf = Connect();
        (void)send(deaf.get(), "report 5\n", 9, MSG_NOSIGNAL);
        char first = 0;
        EXPECT_EQ(recv(deaf.get(), &first, 1, 0), 1);
    });
    EXPECT_EQ(Ask("report 0\n"), "complete 13\n100% of zero\n");
    Serve([&] {
        char byte = 0;
        EXPECT_EQ(recv(silent[0].get(), &byte, 1, 0), 0) << "the oldest had to go";
        EXPECT_EQ(send(silent[3].get(), "repo", 4, MSG_NOSIGNAL), 4);
        EXPECT_EQ(send(silent[3].get(), "rt 2\n", 5, MSG_NOSIGNAL), 5);
        EXPECT_EQ(ReadAll(silent[3]), "no report\n");
        EXPECT_EQ(ReadAll(deaf), ("complete 819200\n" + std::string(819200, 'x')).substr(1));
    });
}

}  // namespace
