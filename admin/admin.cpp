// The admin thread, the daily update and the public timer.
//
// Two clocks are at work. The time of day says when the daily update is due; the
// monotonic clock keeps it an hour from the end of the one before. No time of day
// is remembered: a clock set back makes the daily update due a second time when
// that hour is over, but no setting of the clock stops the daily ones for good.
#include "admin/admin.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>

#include "base/clock.h"
#include "config/server_list.h"
#include "config/settings.h"
#include "frame/health.h"
#include "frame/identity.h"
#include "frame/log.h"
#include "frame/loop.h"
#include "frame/memory_reserve.h"
#include "registry/app_registry.h"
#include "registry/reg_server.h"
#include "resume/resume_timer.h"
#include "update/history.h"
#include "update/progress.h"
#include "update/update_run.h"

static constexpr long TIMER_S = 60;
static constexpr int DAILY_INTERVAL_S = 600;  // a run starts within this after its time
static constexpr int DAILY_APART_S = 3600;    // between the end of a run and the next start
static constexpr int DAY_S = 86400;

tq_thread_master* http_update_admin_master = nullptr;

// When the last daily run ended; zero: none since start. Written on the admin thread.
static std::atomic<int64_t> s_last_auto_update_s{0};

// Written once, before other threads start.
static int64_t s_start_s = 0;

// Whether the registration server is installed. Main thread.
static bool s_reg_installed = false;

// What else failed at start; null: nothing. Main thread.
static AdminRetry s_again = nullptr;

// --- daily update, on the admin thread

static int day_second(int hour, int minute, int second) {
    return hour * 3600 + minute * 60 + second;
}

// How long the last daily run keeps the next away.
static int64_t apart_left_s() {
    const int64_t last_s = s_last_auto_update_s.load(std::memory_order_relaxed);
    return last_s == 0 ? 0 : std::max<int64_t>(last_s + DAILY_APART_S - monotonic_s(), 0);
}

int64_t http_update_admin_next_daily(int64_t not_before_s) {
    if (update_mode.load(std::memory_order_relaxed) == UPDATE_MODE_MANUAL) return 0;
    tzset();  // as in the check of the time
    const time_t earliest = time(nullptr) + std::max(apart_left_s(), not_before_s);
    const DailyTime daily = update_time_get();
    tm local{};
    (void)localtime_r(&earliest, &local);
    // The one of the day before may reach past midnight.
    for (local.tm_mday -= 1;; local.tm_mday += 1) {
        local.tm_hour = daily.update_hour;
        local.tm_min = daily.update_minute;
        local.tm_sec = 0;
        local.tm_isdst = -1;
        const time_t begin = mktime(&local);
        if (earliest < begin + DAILY_INTERVAL_S) return std::max(begin, earliest);
    }
}

int64_t http_update_admin_uptime() { return monotonic_s() - s_start_s; }

int http_update_admin_time_check() {
    if (apart_left_s() > 0) return -1;
    tzset();  // the device's zone may have been changed meanwhile
    const time_t wall = time(nullptr);
    tm local{};
    (void)localtime_r(&wall, &local);
    const DailyTime daily = update_time_get();
    const int current = day_second(local.tm_hour, local.tm_min, local.tm_sec);
    const int target = day_second(daily.update_hour, daily.update_minute, 0);
    const bool due = target <= current && current < target + DAILY_INTERVAL_S;
    const bool due_past_midnight = current + DAY_S < target + DAILY_INTERVAL_S;
    if (!due && !due_past_midnight) return -1;
    http_client_debug_print(HTTPC_LOG_INFO, "auto_time happen;cur_time %d %d;", local.tm_hour,
                            local.tm_min);
    return 0;
}

void http_update_admin_report(const AppSet& /*requested*/, UpdateRunKind kind, const char* host,
                              UpdateStatus status) {
    if (status != UPDATE_OK) {
        http_client_debug_print(HTTPC_LOG_INFO, "update from server %s: %s", host,
                                update_status_str(status));
    } else {
        update_result_output(kind);
    }
}

static void daily_run(const AppSet& apps) {
    const UpdateStatus status =
        http_update_run(apps, UPDATE_RUN_DAILY, http_update_admin_report, SERVERS_BOTH);
    if (status != UPDATE_OK) {
        http_client_debug_print(HTTPC_LOG_INFO, "timer: %s", update_status_str(status));
    }
    s_last_auto_update_s.store(monotonic_s(), std::memory_order_relaxed);
    resume_timer_add(resume_delay());
}

static bool update_timer_arm(void* /*argument*/) {
    return tq_thread_add_timer(http_update_admin_master, http_update_admin_timer_proc, nullptr,
                               TIMER_S) != nullptr;
}

int http_update_admin_timer_proc(tq_thread* /*task*/) {
    // First, so that no failure of a run leaves the timer unarmed.
    if (!update_timer_arm(nullptr)) {
        http_client_debug_dump("[%s %d]<-->update add timer fail", __func__, __LINE__);
        loop_owe(update_timer_arm, nullptr);
        return -1;
    }
    resume_timer_catch_up();
    history_flush();
    if (update_mode.load(std::memory_order_relaxed) == UPDATE_MODE_MANUAL) {
        http_client_debug_print(HTTPC_LOG_INFO, "http update mode is manual");
        return 0;
    }
    if (http_update_admin_time_check() != 0) return 0;
    AppSet apps;
    reg_app_auto_set(&apps);
    if (app_set_is_empty(apps)) {
        http_client_debug_print(HTTPC_LOG_INFO, "http update have no reg app");
        return 0;  // an app that registers before the interval ends is still served
    }
    daily_run(apps);
    return 0;
}

static void* http_update_admin_tqthread(void* /*argument*/) {
    (void)pthread_detach(pthread_self());
    (void)prctl(PR_SET_NAME, "http-updadmin");
    loop_watch();
    http_update_admin_master = tq_thread_master_create();
    if (http_update_admin_master == nullptr) {
        http_client_debug_dump_exit("[%s %d]<-->timermaster create fail", __func__, __LINE__);
    }
    if (!update_timer_arm(nullptr)) {
        http_client_debug_dump_exit("[%s %d]<-->add timer fail", __func__, __LINE__);
    }
    resume_timer_init(http_update_admin_master);
    resume_timer_add(RESUME_START_DELAY_S);
    if (loop_run(http_update_admin_master)) {
        http_client_debug_dump_exit("[%s %d]<-->the admin loop has ended", __func__, __LINE__);
    }
    return nullptr;
}

// --- start-up, on the main thread

int http_update_admin_rand(int n) {
    static bool s_seeded = false;
    if (!s_seeded) {
        srand(static_cast<unsigned>(time(nullptr)) ^ static_cast<unsigned>(getpid()));
        s_seeded = true;
    }
    return static_cast<int>(n * static_cast<double>(rand()) / 2147483648.0);
}

double http_update_admin_rand_fraction() {
    double fraction = 0;
    double scale = 1;
    for (int digits = 0; digits < 4; ++digits) {
        scale *= 10000;
        fraction += http_update_admin_rand(10000) / scale;
    }
    return fraction;
}

void http_update_admin_rand_time() {
    const auto draw = [](int n) {
        return static_cast<int>(http_update_admin_rand_fraction() * 10000) % n;
    };
    const int hour = draw(24);
    const int minute = draw(60);
    default_update_time_set({hour, minute});
    update_time_default();
}

void http_update_admin_init() {
    s_start_s = monotonic_s();
    update_progress_init();
    update_mode.store(UPDATE_MODE_AUTO, std::memory_order_relaxed);
    http_update_admin_rand_time();
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, http_update_admin_tqthread, nullptr) != 0) {
        http_client_debug_dump_exit("[%s %d]<-->admin thread fail", __func__, __LINE__);
    }
}

static bool public_timer_arm(void* master) {
    return tq_thread_add_timer(static_cast<tq_thread_master*>(master),
                               http_update_admin_public_timer, nullptr, TIMER_S) != nullptr;
}

int http_update_admin_reg_install(tq_thread_master* master) {
    s_reg_installed = reg_server_install(master) >= 0;
    if (!s_reg_installed) http_client_debug_dump("[%s %d]<-->reg install fail", __func__, __LINE__);
    if (!public_timer_arm(master)) {
        tq_thread_master_finish(master);
        http_client_debug_dump_exit("[%s %d]<-->add timer fail", __func__, __LINE__);
    }
    return 0;
}

void http_update_admin_retry(AdminRetry again) { s_again = again; }

// --- public timer, on the main loop

static void identity_retry() {
    struct Field {
        bool empty;
        const char* message;  // null: read again without one
        void (*read)();
    };
    const DeviceIdentity identity = device_identity_copy();
    const Field fields[] = {
        {identity.serial_number[0] == '\0', "get serial number again", http_client_get_serial},
        {identity.product_name[0] == '\0', "get product name again", http_client_get_product},
        {identity.mac_address[0] == '\0', "get mac again", http_client_get_mac},
        {identity.hardware_version[0] == '\0', "get hardware version again",
         http_client_get_hw_version},
        {identity.software_version[0] == '\0', nullptr, http_client_get_sw_version},
    };
    for (const Field& field : fields) {
        if (!field.empty) continue;
        if (field.message != nullptr) http_client_debug_print(HTTPC_LOG_INFO, "%s", field.message);
        field.read();
    }
}

int http_update_admin_public_timer(tq_thread* task) {
    memory_reserve_refill();
    http_client_retry_ham();
    identity_retry();
    if (!s_reg_installed) {
        s_reg_installed = reg_server_install(task->master) >= 0;
        if (!s_reg_installed) {
            http_client_debug_print(HTTPC_LOG_ERROR, "[%s %d]<-->reg install fail", __func__,
                                    __LINE__);
        }
    }
    if (s_again != nullptr && s_again(task->master)) s_again = nullptr;
    if (!public_timer_arm(task->master)) {
        http_client_debug_dump("[%s %d]<-->add public timer fail", __func__, __LINE__);
        loop_owe(public_timer_arm, task->master);
        return -1;
    }
    return 0;
}
