// The daily update and the public timer, in virtual time on both clocks.
#include "admin/admin.h"

#include <sys/syscall.h>

#include <atomic>
#include <ctime>

#include "config/server_list.h"
#include "config/settings.h"
#include "frame/identity.h"
#include "frame/startup.h"
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
        SetClocks(0, 0, 0);
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
        http_update_admin_master = nullptr;
        s_monotonic = 0;
        RegistryServerTest::TearDown();
    }
    static void SetClocks(int hour, int minute, int second) {
        s_wall = hour * 3600 + minute * 60 + second;
    }
    static void Pass(time_t seconds) {
        s_wall += seconds;
        s_monotonic += seconds;
    }
    // The minute's turn; true when a daily run took place.
    bool Minute() {
        fakes::Syslog();
        tq_thread task{loop_, nullptr, nullptr, -1, ""};
        EXPECT_EQ(http_update_admin_timer_proc(&task), 0);
        log_ = fakes::Syslog();
        return log_.find("update from server 127.0.0.1: ") != std::string::npos;
    }

    std::string log_;
};

TEST_F(Admin, DueWithinTenMinutesAlsoPastMidnight) {
    struct Row {
        DailyTime daily;
        int hour, minute, second;
        bool due;
    };
    for (const Row& row : {Row{{3, 5}, 3, 4, 59, false},
                           {{3, 5}, 3, 5, 0, true},
                           {{3, 5}, 3, 14, 59, true},
                           {{3, 5}, 3, 15, 0, false},
                           {{23, 55}, 0, 4, 59, true},
                           {{23, 55}, 0, 5, 0, false},
                           {{0, 0}, 23, 59, 59, false}}) {
        update_time_set(row.daily);
        SetClocks(row.hour, row.minute, row.second);
        EXPECT_EQ(http_update_admin_time_check(), row.due ? 0 : -1)
            << row.daily.update_hour << " at " << row.hour << ":" << row.minute;
    }
}

TEST_F(Admin, RunsAreAnHourApart) {
    EXPECT_EQ(Register(Connect(), "alpha"), 0);
    s_monotonic = 100000;
    update_time_set({10, 0});
    SetClocks(10, 0, 30);
    EXPECT_TRUE(Minute());
    EXPECT_NE(log_.find("auto_time happen;cur_time 10 0;\n"), std::string::npos);
    update_time_set({10, 55});
    Pass(3599);
    EXPECT_FALSE(Minute()) << "within the hour, whatever is configured";
    Pass(1);
    EXPECT_TRUE(Minute());
}

TEST_F(Admin, WaitsForModeAndApps) {
    s_monotonic = 1000000;
    update_time_set({1, 0});
    SetClocks(1, 0, 0);
    EXPECT_FALSE(Minute());
    EXPECT_EQ(log_, "auto_time happen;cur_time 1 0;\nhttp update have no reg app\n");
    EXPECT_EQ(Register(Connect(), "alpha"), 0);
    reg_app_set_mode("alpha", APP_MODE_MANUAL);
    EXPECT_FALSE(Minute());
    reg_app_set_mode("alpha", 0);
    update_mode = UPDATE_MODE_MANUAL;
    EXPECT_FALSE(Minute());
    EXPECT_EQ(log_, "http update mode is manual\n");
    update_mode = UPDATE_MODE_AUTO;
    ASSERT_TRUE(update_state_claim());
    EXPECT_FALSE(Minute());
    EXPECT_NE(log_.find("timer: There are business modules in the upgrading"), std::string::npos);
    update_state_release();
    EXPECT_FALSE(Minute()) << "a refused run counts as the day's";
    Pass(86400);
    EXPECT_TRUE(Minute());
}

TEST_F(Admin, DefaultTimeIsDrawnInRange) {
    for (int i = 0; i < 200; i++) {
        http_update_admin_rand_time();
        const DailyTime time = update_time_get();
        EXPECT_TRUE(time.update_hour >= 0 && time.update_hour < 24);
        EXPECT_TRUE(time.update_minute >= 0 && time.update_minute < 60);
        EXPECT_EQ(time.update_minute, default_update_time_get().update_minute);
        const double fraction = http_update_admin_rand_fraction();
        EXPECT_TRUE(fraction >= 0 && fraction < 1);
    }
}

TEST_F(Admin, PublicTimerRetriesWhatFailed) {
    tq_thread_master_finish(loop_);  // a daemon whose server is not installed yet
    loop_ = tq_thread_master_create();
    const std::string socket = dir_ / "oam/http_client/.http_update";
    std::filesystem::remove(socket);
    std::filesystem::create_directories(socket + "/in-the-way");
    fakes::SetHamResult(-1);
    http_client_registe_ham();
    http_client_get_device_info();
    EXPECT_EQ(http_update_admin_reg_install(loop_), 0);
    EXPECT_NE(dir_.Read("oam/http_client/.http_reg_server_dump").find("<-->reg install fail"),
              std::string::npos);
    fakes::Advance(loop_, 60);
    EXPECT_FALSE(ham_registered);

    fakes::SetHamResult(0);
    std::filesystem::remove_all(socket);
    fakes::SetDeviceFile("/proc/setmac/SerialNO", "S1");
    fakes::Syslog();
    fakes::Advance(loop_, 60);
    EXPECT_TRUE(ham_registered);
    ExpectLog(
        "ham reg success\nget serial number again\nget product name again\n"
        "get mac again\nget hardware version again\n");
    EXPECT_STREQ(device_identity_copy().serial_number, "S1");
    EXPECT_TRUE(std::filesystem::is_socket(socket));
    fakes::Advance(loop_, 60);
    EXPECT_EQ(fakes::Syslog().find("get serial"), std::string::npos);
    EXPECT_EQ(fakes::Timers(loop_).size(), 1u);
}
