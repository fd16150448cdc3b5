// The facts come from four modules at four moments: they may differ by what happened in
// between, never within one of them.
#include "update/status_facts.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "admin/admin.h"
#include "base/clock.h"
#include "config/settings.h"
#include "registry/app_registry.h"

namespace {
struct Finding {
    UpdateStatusFacts* facts;
    bool last_success_seen;  // the run that the totals name is in the list
};
}  // namespace

static bool run_look(RunRecord& run, void* argument) {
    auto* finding = static_cast<Finding*>(argument);
    UpdateStatusFacts* facts = finding->facts;
    const RunOutcome outcome = history_outcome(run);
    if (outcome == RunOutcome::Running) {
        facts->current = run;
        return true;
    }
    if (!facts->has_last) {
        facts->has_last = true;
        facts->last = run;
        facts->last_outcome = outcome;
    }
    if (run.number == facts->totals.last_success_number) finding->last_success_seen = true;
    if (!run_outcome_is_success(outcome)) return true;
    facts->success_number = run.number;
    facts->success_kind = run.kind;
    facts->success_s = run.end_s;
    return false;  // older ones tell nothing more
}

static void history_facts(UpdateStatusFacts* facts) {
    Finding finding{facts, false};
    facts->history_error = history_read(&facts->totals, nullptr, nullptr);
    const int error = history_read(nullptr, run_look, &finding);
    if (facts->history_error == 0) facts->history_error = error;
    // One that has left the list counts; one that an app's answer has spoilt does not.
    const HistoryTotals& totals = facts->totals;
    if (facts->success_number != 0 || finding.last_success_seen) return;
    facts->success_number = totals.last_success_number;
    facts->success_kind = totals.last_success_kind;
    facts->success_s = totals.last_success_s;
}

static void progress_facts(UpdateStatusFacts* facts) {
    facts->progress = update_progress_copy();
    facts->is_running = facts->progress.state == UPDATE_STATE_RUNNING;
    const UpdateProgress& progress = facts->progress;
    if (!facts->is_running || progress.begin_ms == 0) return;
    const int64_t now_ms = monotonic_ms();
    const int64_t taken_ms = std::max<int64_t>(now_ms - progress.begin_ms, 1);
    facts->bytes_per_s = progress.fresh_bytes * 1000 / static_cast<uint64_t>(taken_ms);
    facts->silence_s = (now_ms - progress.last_bytes_ms) / 1000;
    // Of an unknown size the library always tells a little more than has come.
    facts->size_is_known = progress.file_size > progress.down_size + 1;
}

static uint32_t set_count(const AppSet& apps) {
    uint32_t count = 0;
    for (int slot = 0; slot < APP_REG_MAX; ++slot) count += app_set_contains(apps, slot) ? 1U : 0U;
    return count;
}

static void app_facts(UpdateStatusFacts* facts) {
    AppSet all{};
    reg_app_all(&all);
    facts->registered_apps = set_count(all);
    AppSet daily;
    reg_app_auto_set(&daily);
    facts->daily_apps = set_count(daily);
}

void update_status_facts(UpdateStatusFacts* facts) {
    facts->version = HTTP_CLIENT_VERSION;
    facts->uptime_s = http_update_admin_uptime();
    progress_facts(facts);
    history_facts(facts);
    facts->daily_s = http_update_admin_next_daily();
    facts->is_manual = facts->daily_s == 0;
    const DailyTime daily = update_time_get();
    const DailyTime usual = default_update_time_get();
    facts->time_is_default =
        daily.update_hour == usual.update_hour && daily.update_minute == usual.update_minute;
    app_facts(facts);
    facts->resume = resume_outlook();
    facts->now_s = time(nullptr);
}

int64_t update_next_daily_after(const RunRecord& run) {
    constexpr int64_t hour_s = 3600;
    return http_update_admin_next_daily(run.kind == UPDATE_RUN_DAILY ? hour_s : 0);
}

const char* history_error_words(int error) {
    return error == EINVAL ? "it is damaged, what is told is incomplete" : strerror(error);
}
