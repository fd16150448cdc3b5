// When the daily update is due, the public timer and the watchdog's, in virtual time.
#include "admin/admin.h"

#include <sys/syscall.h>

#include <atomic>
#include <ctime>
#include <set>
#include <thread>

#include "config/settings.h"
#include "frame/health.h"
#include "frame/identity.h"
#include "frame/loop.h"
#include "registry/reg_messages.h"
#include "registry/reg_server.h"
#include "tests/support/daemon_test.h"

// The two clocks that the daemon reads, in place of the C library's.
static std::atomic<time_t> s_wall{0};
static std::atomic<time_t> s_monotonic{0};  // 0: the real one

extern "C" time_t time(time_t* result) noexcept {
    if (result != nullptr) *result = s_wall;
    return s_wall;
}
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (clock != CLOCK_MONOTONIC || s_monotonic == 0)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    *now = {s_monotonic, 0};
    return 0;
}

class Admin : public DaemonTest {
  protected:
    ~Admin() override {
        s_monotonic = 0;
        tq_thread_master_finish(loop_);
    }
    tq_thread_master* loop_ = tq_thread_master_create();
};

TEST_F(Admin, DueWithinTenMinutesAlsoPastMidnight) {
    setenv("TZ", "UTC", 1);
    const auto due = [](DailyTime daily, int hour, int minute, int second) {
        update_time_set(daily);
        s_wall = hour * 3600 + minute * 60 + second;
        return http_update_admin_time_check() == 0;
    };
    EXPECT_FALSE(due({3, 5}, 3, 4, 59));
    EXPECT_TRUE(due({3, 5}, 3, 5, 0));
    EXPECT_TRUE(due({3, 5}, 3, 14, 59));
    EXPECT_FALSE(due({3, 5}, 3, 15, 0));
    EXPECT_TRUE(due({23, 55}, 0, 4, 59));
    EXPECT_FALSE(due({23, 55}, 0, 5, 0));
    EXPECT_FALSE(due({0, 0}, 23, 59, 59));
}

TEST_F(Admin, DefaultTimeIsDrawnInRange) {
    std::set<int> minutes;
    for (int i = 0; i < 200; ++i) {
        http_update_admin_rand_time();
        const DailyTime drawn = update_time_get();
        EXPECT_TRUE(drawn.update_hour >= 0 && drawn.update_hour < 24) << drawn.update_hour;
        minutes.insert(drawn.update_minute);
    }
    EXPECT_TRUE(minutes.size() > 1 && *minutes.begin() >= 0 && *minutes.rbegin() < 60);
}

TEST_F(Admin, WatchdogIsFedEveryMinuteWhileTheOtherLoopTurns) {
    s_monotonic = 1000;
    std::thread(loop_watch).join();
    http_client_dead_detection(loop_);
    EXPECT_EQ(fakes::HamCalls(), "ham_client_reg_thread_notify(120,3)\n");
    s_monotonic += 600;
    fakes::Advance(loop_, 60);
    EXPECT_EQ(fakes::HamCalls(), "ham_client_reset_thread_notify(120,3)\n");
    fakes::SetHamResult(-1);
    fakes::Advance(loop_, 60);
    ExpectDump("ham_client_reset_thread_notify failed.");
    fakes::Advance(loop_, 60);
    EXPECT_HAS(fakes::HamCalls(), "reset") << "a failure does not stop it";
    s_monotonic += 1;
    fakes::Advance(loop_, 60);
    EXPECT_EQ(fakes::HamCalls(), "");
    EXPECT_EQ(fakes::Timers(loop_), 1U) << "the other loop may turn again";
}

TEST_F(Admin, PublicTimerRetriesWhatFailed) {
    DebugMask = DEBUG_INFO;
    const std::string socket = dir_ / REG_SOCKET_PATH;
    std::filesystem::create_directories(socket + "/in-the-way");
    fakes::SetHamResult(-1);
    http_client_registe_ham();
    EXPECT_EQ(http_update_admin_reg_install(loop_), 0);
    fakes::Advance(loop_, 60);
    EXPECT_FALSE(ham_registered);

    fakes::SetHamResult(0);
    std::filesystem::remove_all(socket);
    dir_.Write("proc/setmac/SerialNO", "S1");
    fakes::Advance(loop_, 60);
    EXPECT_TRUE(ham_registered);
    EXPECT_STREQ(device_identity_copy().serial_number, "S1");
    EXPECT_TRUE(std::filesystem::is_socket(socket));
    fakes::Syslog();
    fakes::Advance(loop_, 60);
    EXPECT_EQ(fakes::Syslog(),
              "get product name again\nget mac again\nget hardware version again\n");
}
