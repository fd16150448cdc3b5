// The retries and the report, in virtual time, with an update driver by script.
#include "resume/resume_timer.h"

#include <ctime>
#include <functional>
#include <thread>

#include "config/server_list.h"
#include "frame/report.h"
#include "registry/app_registry.h"
#include "tests/resume/resume_fixture.h"

static std::function<UpdateStatus(const AppSet&)> s_run;
static int s_runs = 0;
static tq_thread_master* s_loop = nullptr;

UpdateStatus http_update_run(const AppSet& requested, UpdateRunKind kind, UpdateReportFn report,
                             unsigned selector) {
    EXPECT_TRUE(kind == UPDATE_RUN_RESUME && selector == SERVERS_BOTH);
    ++s_runs;
    report(requested, kind, "10.1.1.1", UPDATE_CONNECT_FAIL);
    return s_run(requested);
}

void update_result_output(UpdateRunKind) {}

struct ResumeTimerTest : ResumeTest {
    ResumeTimerTest() {
        s_loop = tq_thread_master_create();
        resume_timer_init(s_loop);
        s_runs = 0;
    }
    ~ResumeTimerTest() override { tq_thread_master_finish(s_loop); }
    // Seconds until the timer; -1 for none.
    static long Pending() {
        const auto timers = fakes::Timers(s_loop);
        EXPECT_LE(timers.size(), 1U);
        return timers.empty() ? -1 : timers[0];
    }
    static void Fire() { fakes::Advance(s_loop, Pending()); }
    static std::string Show() {
        resume_show(REPORT_TERMINAL);
        return fakes::Terminal();
    }
};

TEST_F(ResumeTimerTest, TimerIsArmedOnceAndOnlyForAList) {
    resume_retry_count = 2;
    resume_timer_add(RESUME_START_DELAY_S);
    EXPECT_EQ(Pending(), -1);
    EXPECT_EQ(resume_retry_count, 5);

    ASSERT_EQ(Add("app", {"a"}, 0), 0);
    fakes::FailTimers(true);
    resume_timer_add(RESUME_START_DELAY_S);
    fakes::FailTimers(false);
    EXPECT_EQ(Show().find("retry-time"), std::string::npos);

    resume_timer_add(RESUME_START_DELAY_S);
    fakes::Advance(s_loop, 100);
    resume_timer_add(7200);
    EXPECT_EQ(Pending(), 1700);
    resume_free_first();
    Fire();
    EXPECT_EQ(Pending(), -1) << "the list went empty meanwhile";
    EXPECT_EQ(s_runs, 0);
}

TEST_F(ResumeTimerTest, RunsAskForListedAppsUntilTheFrontIsGivenUp) {
    Touch({"a", "b"});
    for (const char* app : {"other", "back"}) ASSERT_EQ(reg_app_add(3, app, "1", 0), REG_OK);
    ASSERT_EQ(Add("back", {"a"}, 0), 0);
    ASSERT_EQ(Add("front", {"b"}, 0), 0);
    s_run = [](const AppSet& requested) {
        EXPECT_TRUE(!app_set_contains(requested, 0) && app_set_contains(requested, 1));
        EXPECT_EQ(resume_retry_count, RESUME_RETRY_MAX - s_runs);
        EXPECT_EQ(Pending(), -1);
        return UPDATE_OK;
    };
    resume_timer_add(1800);
    for (int i = 0; i < 4; ++i) {
        Fire();
        EXPECT_TRUE(Pending() >= 1800 && Pending() <= 7200) << Pending();
    }
    EXPECT_EQ(OnDisk({"a", "b"}), "ab");
    Fire();
    EXPECT_EQ(ResumeListed(), "back(1) a=-1");
    EXPECT_EQ(OnDisk({"a", "b"}), "a");
    EXPECT_EQ(resume_retry_count, RESUME_RETRY_MAX);
    ExpectLog("resume: update from server 10.1.1.1: Communicate with the server");
    reg_app_del_by_fd(3);
}

TEST_F(ResumeTimerTest, ShowPrintsTheTimeLeftInEveryZone) {
    setenv("TZ", "ZZZ-5:30", 1);
    tzset();
    ASSERT_EQ(Add("sixteen-letters-", {"%s"}, 0), 0);
    resume_timer_add(7200);
    fakes::Advance(s_loop, 3539);
    const std::string shown = Show();
    EXPECT_HAS(shown, "retry-count: 5\nretry-time: 01:01:01\napp-name ");
    EXPECT_HAS(shown, "\nsixteen-letters 1   " + dir_ / "%s" + "  ");
    unsetenv("TZ");
}

TEST_F(ResumeTimerTest, ReportAndFileMayMeetARun) {
    DebugMask = 0;
    ASSERT_EQ(Add("app", {"a"}, 0), 0);
    s_run = [this](const AppSet&) {
        resume_retry_count = RESUME_RETRY_MAX;
        return Add("app", {"a", "b"}, 1) == 0 ? UPDATE_OK : UPDATE_NO_MEMORY;
    };
    resume_timer_add(1800);
    std::thread admin([] {
        for (int i = 0; i < 100; ++i) Fire();
    });
    for (int i = 0; i < 100; ++i) {
        resume_show(REPORT_TERMINAL);
        resume_write();
    }
    admin.join();
    EXPECT_EQ(ResumeListed(), "app(2) a=0 b=-1");
}
