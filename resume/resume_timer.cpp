// The retries of the resume list, and its report. The handle of the pending timer lies
// under the list's lock, since the report, on another thread, asks it for the time left.
#include "resume/resume_timer.h"

#include <climits>
#include <cstdlib>
#include <ctime>

#include "base/shown_text.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "config/server_list.h"
#include "frame/log.h"
#include "frame/loop.h"
#include "frame/report.h"
#include "http/status.h"
#include "registry/app_registry.h"
#include "resume/resume_file.h"

// The timer's loop. Admin thread.
static tq_thread_master* s_loop = nullptr;

// Handle of the pending timer, or null. Written on the admin thread; cleared
// under the lock as its callback starts, so that who reads it under the lock may
// query it.
static tq_thread* resume_timer GUARDED_BY(resume_lock) = nullptr;

int resume_delay() {
    constexpr int delay_min = 30;
    constexpr int delay_max = 120;
    srand(static_cast<unsigned>(time(nullptr)));
    const int minutes = rand() % (delay_max - delay_min + 1) + delay_min;
    http_client_debug_print(HTTPC_LOG_ERROR, "%d min<-->after the time begin to resume down",
                            minutes);
    return minutes * 60;
}

static tq_thread* pending_timer() {
    MutexLock guard(resume_lock);
    return resume_timer;
}

static void set_timer(tq_thread* timer) {
    MutexLock guard(resume_lock);
    resume_timer = timer;
}

void resume_timer_init(tq_thread_master* loop) {
    s_loop = loop;
    set_timer(nullptr);
}

// Delay of the last timer that was asked for. Admin thread.
static long s_delay_s = 0;

static bool timer_arm(void* /*argument*/) {
    if (resume_empty() || pending_timer() != nullptr) return true;
    set_timer(tq_thread_add_timer(s_loop, resume_timer_proc, nullptr, s_delay_s));
    return pending_timer() != nullptr;
}

void resume_timer_add(int seconds) {
    if (resume_empty()) {
        resume_retry_count = RESUME_RETRY_MAX;
        return;
    }
    if (pending_timer() != nullptr) return;
    s_delay_s = seconds;
    if (timer_arm(nullptr)) return;
    http_client_debug_print(HTTPC_LOG_ERROR, "http update add timer fail");
    http_client_debug_dump("http update resume add timer fail");
    loop_owe(timer_arm, nullptr);
}

void resume_timer_catch_up() {
    if (resume_read_again()) resume_timer_add(RESUME_START_DELAY_S);
}

// The registered ones of the listed apps.
static void listed_apps(AppSet* set) {
    char name[RESUME_NAME_SIZE];
    for (uint32_t position = 0; resume_app_name(position, name); ++position) {
        (void)reg_app_parse_names(name, set);  // an app that is gone adds nothing
        http_client_debug_print(HTTPC_LOG_INFO, "%s<-->begin to resume", name);
    }
}

int resume_timer_proc(tq_thread*) {
    set_timer(nullptr);
    if (resume_empty()) {
        resume_retry_count = RESUME_RETRY_MAX;
        return 0;
    }
    --resume_retry_count;
    AppSet set{};
    listed_apps(&set);
    const UpdateStatus status =
        http_update_run(set, UPDATE_RUN_RESUME, resume_report, SERVERS_BOTH);
    if (status != UPDATE_OK) {
        http_client_debug_print(HTTPC_LOG_INFO, "resume: %s", update_status_str(status));
    }
    if (resume_retry_count == 0 && !resume_empty()) {
        resume_free_first();
        resume_retry_count = RESUME_RETRY_MAX;
    }
    resume_timer_add(resume_delay());
    return 0;
}

void resume_report(const AppSet&, UpdateRunKind, const char* host, UpdateStatus status) {
    if (status != UPDATE_OK) {
        http_client_debug_print(HTTPC_LOG_INFO, "resume: update from server %s: %s", host,
                                update_status_str(status));
        return;
    }
    update_result_output(UPDATE_RUN_RESUME);
}

ResumeOutlook resume_outlook() {
    ResumeOutlook outlook{};
    outlook.apps = resume_app_count();
    outlook.retries_left = resume_retry_count;
    MutexLock guard(resume_lock);
    if (resume_timer == nullptr) return outlook;
    outlook.is_armed = true;
    outlook.seconds_left = static_cast<int64_t>(tq_thread_timer_remain_second(resume_timer));
    return outlook;
}

// --- report

namespace {
// One line of the table, cut to its columns.
struct ReportRow {
    int32_t number;  // of the file within its app
    char name[16];
    char path[49];
};

// What the report shows, copied in one go.
struct Report {
    bool timer_pending = false;
    unsigned long seconds_left = 0;
    int32_t row_count = 0;
    MemPtr<ReportRow[]> rows;  // null for none, or for want of memory
};
}  // namespace

static int32_t count_rows_locked() REQUIRES(resume_lock) {
    uint32_t count = 0;
    for (const ResumeApp* app = resume_next_app(&ResumeList); app != nullptr;
         app = resume_next_app(app)) {
        count += app->count;
    }
    return static_cast<int32_t>(count);
}

static void fill_rows_locked(ReportRow* row) REQUIRES(resume_lock) {
    for (const ResumeApp* app = resume_next_app(&ResumeList); app != nullptr;
         app = resume_next_app(app)) {
        int32_t number = 0;
        for (const ResumeFile* file = resume_next_file(app, &app->files); file != nullptr;
             file = resume_next_file(app, file), ++row) {
            row->number = ++number;
            (void)text_copy(row->name, ShownText(app->name).get());
            (void)text_copy(row->path, ShownText(file->path).get());
        }
    }
}

static void take_report(Report* report) {
    MutexLock guard(resume_lock);
    if (resume_timer != nullptr) {
        report->timer_pending = true;
        report->seconds_left = tq_thread_timer_remain_second(resume_timer);
    }
    report->row_count = count_rows_locked();
    constexpr auto row_size = static_cast<int32_t>(sizeof(ReportRow));
    if (report->row_count > INT32_MAX / row_size) return;
    report->rows.reset(static_cast<ReportRow*>(mem_zalloc(report->row_count * row_size)));
    if (report->rows != nullptr) fill_rows_locked(report->rows.get());
}

void resume_show(int output) {
    Report report;
    take_report(&report);
    if (report.row_count == 0) return report_printf(output, "resume-list is empty\n");
    report_printf(output, "retry-count: %d\n", resume_retry_count.load());
    if (report.timer_pending) {
        const int left = static_cast<int>(report.seconds_left);
        report_printf(output, "retry-time: %02d:%02d:%02d\n", left / 3600, left / 60 % 60,
                      left % 60);
    }
    report_printf(output, "app-name        NO. filename\n");
    report_printf(output, "--------------- --- ------------------------------------------------\n");
    if (report.rows == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "not enough memory");
        return;
    }
    for (int32_t i = 0; i < report.row_count; ++i) {
        const ReportRow& row = report.rows[static_cast<size_t>(i)];
        report_printf(output, "%-15.15s %-3d %-48.48s\n", row.name, row.number, row.path);
    }
}
