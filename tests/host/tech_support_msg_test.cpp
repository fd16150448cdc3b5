// The support service over its real socket, on a real loop.
#include "frame/platform/tech_support_msg.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "base/unique_fd.h"
#include "host/tech_support_msg/protocol.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr char COMPLETE[] = "complete 10\n100% of 0\n";  // of "report 0"
constexpr size_t BIG = 819200;                           // more than a socket's buffer takes

// Report 1 is never completed, 2 is large, 3 too large.
int answer(int type, void*) {
    tech_module_msg_output("100%% of %d\n", type);
    for (int i = 1; i < type; ++i) {
        tech_module_msg_output("%s", std::string(BIG, 'x').c_str());
    }
    if (type == 1) return 0;
    tech_module_msg_deal_completion();
    tech_module_msg_output("after the end\n");
    tech_module_msg_deal_completion();
    return 0;
}

std::atomic<bool> s_stop = false;

void serve(const TempDir& dir, std::promise<void>* started) {
    tq_thread_master* master = tq_thread_master_create();
    EXPECT_EQ(tech_reg_service_callback("oam#test", master, answer), -1) << "no directory";
    dir.Write("oam/http_client/.tech_support", "left over");
    EXPECT_EQ(tech_reg_service_callback("oam#test", master, answer), 0);
    EXPECT_EQ(tech_module_reg_dump_file("/tmp/%s dump"), 0);
    EXPECT_EQ(tech_module_reg_dump_file("/tmp/second"), 0);
    started->set_value();
    for (tq_thread task{}; !s_stop && tq_thread_fetch(master, &task) != nullptr;) {
        tq_thread_call(&task);
    }
    tq_thread_master_finish(master);
}

UniqueFd dial() {
    const sockaddr_un address = tech_support_address();
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return fd;
}

std::string read_all(const UniqueFd& fd) {
    std::string reply(4 * BIG, '\0');
    const ssize_t got = recv(fd.get(), reply.data(), reply.size(), MSG_WAITALL);
    return reply.substr(0, got < 0 ? 0 : static_cast<size_t>(got));
}

std::string ask(const std::string& request) {
    const UniqueFd fd = dial();
    (void)send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL);
    if (!request.ends_with('\n')) (void)shutdown(fd.get(), SHUT_WR);
    return read_all(fd);
}

// The service is the process's only one, so both parts share it.
TEST(TechSupport, AnswersByTheProtocolAndSurvivesStalledPeers) {
    const TempDir dir;
    setenv("TMPDIR", dir.path().c_str(), 1);
    setenv("TQ_THREAD_SPEED", "100", 1);
    std::promise<void> started;
    std::thread loop(serve, std::cref(dir), &started);
    started.get_future().get();
    const std::string too_long(TECH_SUPPORT_REQUEST_MAX, 'r');
    for (const auto& [request, reply] : {std::pair("report 0\nreport 1\n", COMPLETE),
                                         {"report 1\n", "no report\n"},
                                         {"files\n", "/tmp/%s dump\n/tmp/second\n"},
                                         {"report -1\n", ""},
                                         {"report 1x\n", ""},
                                         {"report 0", ""},
                                         {too_long.c_str(), ""}}) {
        EXPECT_EQ(ask(request), reply) << request;
    }
    struct stat status {};
    EXPECT_EQ(stat((dir / "oam/http_client/.tech_support").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFSOCK | 0600});
    const std::string cut = ask("report 3\n");
    EXPECT_EQ(cut.size(), strlen("complete 1048576\n") + 1048576);
    EXPECT_TRUE(cut.starts_with("complete 1048576\n100"));
    EXPECT_TRUE(cut.ends_with("xxx\n(the report was cut here)\n"));

    UniqueFd silent[TECH_SUPPORT_CONNECTION_MAX], deaf;
    for (UniqueFd& fd : silent) fd = dial();
    deaf = dial();
    (void)send(deaf.get(), "report 2\n", 9, MSG_NOSIGNAL);
    char first = 0;
    EXPECT_EQ(recv(deaf.get(), &first, 1, MSG_PEEK), 1);
    EXPECT_EQ(ask("report 0\n"), COMPLETE);
    EXPECT_EQ(read_all(silent[0]), "") << "the oldest had to go";
    for (const char* part : {"repo", "rt 1\n"}) send(silent[3].get(), part, strlen(part), 0);
    EXPECT_EQ(read_all(silent[3]), "no report\n");
    EXPECT_EQ(read_all(deaf), "complete 819210\n100% of 2\n" + std::string(BIG, 'x'));
    s_stop = true;
    (void)dial();  // turns the loop once more
    loop.join();
}

}  // namespace
