// The daily update and the public timer, in virtual time on both clocks.
#include "admin/admin.h"

#include <sys/syscall.h>

#include <atomic>
#include <ctime>
#include <set>
#include <thread>

#include "config/server_list.h"
#include "config/settings.h"
#include "frame/health.h"
#include "frame/identity.h"
#include "frame/loop.h"
#include "tests/registry/registry_fixture.h"
#include "update/progress.h"

// The two clocks that the daemon reads, in place of the C library's.
static std::atomic<time_t> s_wall{0};
static std::atomic<time_t> s_monotonic{0};

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

class Admin : public RegistryServerTest {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        RegistryServerTest::SetUp();
        hu_serv_config_init();
        update_progress_init();
        update_mode = UPDATE_MODE_AUTO;
        DebugMask = DEBUG_INFO;
        // The daily run asks a server that does not answer: its report is enough here.
        ASSERT_EQ(hu_serv_config_add("127.0.0.1", 1, nullptr, false), HU_SERV_OK);
        http_update_admin_master = loop_;
    }
    void TearDown() override {
        s_monotonic = 0;
        RegistryServerTest::TearDown();
    }
    static void SetTime(int hour, int minute, int second) {
        s_wall = hour * 3600 + minute * 60 + second;
    }
    // What the minute's turn logs.
    std::string Minute() {
        fakes::Syslog();
        tq_thread task{loop_, nullptr, nullptr, -1, ""};
        EXPECT_EQ(http_update_admin_timer_proc(&task), 0);
        return fakes::Syslog();
    }
};

TEST_F(Admin, DueWithinTenMinutesAlsoPastMidnight) {
    const auto due = [](DailyTime daily, int hour, int minute, int second) {
        update_time_set(daily);
        SetTime(hour, minute, second);
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

TEST_F(Admin, RunsWaitForAppsOtherRunsAndAnHour) {
    s_monotonic = 100000;
    update_time_set({10, 0});
    SetTime(10, 0, 30);
    EXPECT_EQ(Minute(), "auto_time happen;cur_time 10 0;\nhttp update have no reg app\n");
    EXPECT_EQ(Register(Connect(), "alpha"), 0);
    ASSERT_TRUE(update_state_claim());
    EXPECT_HAS(Minute(), "timer: There are business modules in the upgrading");
    update_state_release();
    s_monotonic += 3599;
    EXPECT_EQ(Minute(), "") << "a refused run counts, too";
    s_monotonic += 1;
    EXPECT_HAS(Minute(), "update from server 127.0.0.1: ");
}

TEST_F(Admin, WatchdogIsFedOnlyWhileTheOtherLoopTurns) {
    s_monotonic = 1000;
    std::thread(loop_watch).join();
    http_client_dead_detection(loop_);
    (void)fakes::HamCalls();
    s_monotonic += 600;
    fakes::Advance(loop_, 60);
    EXPECT_EQ(fakes::HamCalls(), "ham_client_reset_thread_notify(120,3)\n");
    s_monotonic += 1;
    fakes::Advance(loop_, 60);
    EXPECT_EQ(fakes::HamCalls(), "");
    EXPECT_EQ(fakes::Timers(loop_).size(), 1U) << "it may turn again";
}

TEST_F(Admin, PublicTimerRetriesWhatFailed) {
    tq_thread_master_finish(loop_);  // a daemon whose server is not installed yet
    loop_ = tq_thread_master_create();
    const std::string socket = dir_ / REG_SOCKET_PATH;
    std::filesystem::remove(socket);
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
