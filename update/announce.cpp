// The reason comes first in the words of the history, then what is done about it.
#include "update/announce.h"

#include <cstdarg>
#include <ctime>

#include "admin/admin.h"
#include "base/shown_text.h"
#include "base/text.h"
#include "config/server_list.h"
#include "frame/log.h"
#include "resume/resume_list.h"
#include "resume/resume_timer.h"
#include "update/history.h"
#include "update/metrics.h"
#include "update/status_facts.h"

namespace {

// A line under way; what finds no room is cut.
struct Line {
    char text[768] = "";
    size_t length = 0;

    [[gnu::format(printf, 2, 3)]] void Append(const char* format, ...) {
        va_list args;
        va_start(args, format);
        (void)text_vappendf(text, sizeof(text), &length, format, args);
        va_end(args);
    }
};

tm local_of(int64_t seconds) {
    const time_t time = seconds;
    tm local{};
    (void)localtime_r(&time, &local);
    return local;
}

// "03:05 tomorrow"; with the date when the day is neither this one nor the next.
void append_when(Line* line, int64_t seconds) {
    constexpr int64_t day_s = 86400;
    const int64_t now_s = time(nullptr);
    const tm at = local_of(seconds);
    const auto is_day_of = [&](int64_t other_s) {
        const tm other = local_of(other_s);
        return at.tm_yday == other.tm_yday && at.tm_year == other.tm_year;
    };
    line->Append("%02d:%02d", at.tm_hour, at.tm_min);
    if (is_day_of(now_s)) {
        line->Append(" today");
    } else if (is_day_of(now_s + day_s)) {
        line->Append(" tomorrow");
    } else {
        line->Append(" on %04d-%02d-%02d", at.tm_year + 1900, at.tm_mon + 1, at.tm_mday);
    }
}

void append_next(Line* line, int64_t daily_s) {
    if (daily_s == 0) {
        line->Append("no daily update (manual mode)");
    } else {
        line->Append("next ");
        append_when(line, daily_s);
    }
}

// What is still missing is tried again, before that.
void append_retry(Line* line) {
    const uint32_t apps = resume_app_count();
    if (apps == 0) return;
    line->Append("; %u app%s tried again within two hours, %d more time%s", apps,
                 apps == 1 ? " is" : "s are", resume_retry_count.load(std::memory_order_relaxed),
                 resume_retry_count.load(std::memory_order_relaxed) == 1 ? "" : "s");
}

void append_updated(Line* line, const RunRecord& run) {
    const char* separator = " ";
    for (uint32_t i = 0; i < run.app_count; ++i) {
        const RunApp& app = run.apps[i];
        if (run_app_failed(app)) continue;
        line->Append("%s%s", separator, ShownText(app.name).get());
        if (app.offered[0] != '\0') line->Append(" to %s", ShownText(app.offered).get());
        separator = ", ";
    }
}

void announce_run(const RunRecord& run) {
    const RunOutcome outcome = run_outcome(run);
    const RunFailureWords failure(run);
    Line line;
    line.Append("%s update: %s", run_kind_name(run.kind), run_outcome_name(outcome));
    if (outcome == RunOutcome::Updated || outcome == RunOutcome::Partly) append_updated(&line, run);
    if (*failure.get() != '\0') line.Append(": %s", failure.get());
    append_retry(&line);
    line.Append("; ");
    append_next(&line, update_next_daily_after(run));
    const bool failed = *failure.get() != '\0' && outcome != RunOutcome::Cancelled;
    if (failed) {
        http_client_warning("%s", line.text);
    } else {
        http_client_notice("%s", line.text);
    }
}

void announce_end(const RunRecord& run) {
    announce_run(run);
    metrics_run_ended(run);
}

void announce_failed_app(const char* app, const char* version, int32_t code) {
    Line line;
    line.Append("app %s", app);
    if (*version != '\0') line.Append(" (version %s)", version);
    http_client_warning("%s answered with failure %d", line.text, code);
}

void append_servers(Line* line) {
    OwnedServerList servers;
    if (hu_serv_list_copy(&servers, SERVERS_BOTH) != 0) return;
    const char* separator = "";
    for (const UpdateServer* server = hu_serv_list_first(&servers); server != nullptr;
         server = hu_serv_list_next(&servers, server)) {
        line->Append("%s%s:%u", separator, ShownText(server->host).get(), server->port);
        separator = ", ";
    }
}

}  // namespace

void announce_init() {
    metrics_init();
    history_listen({announce_end, announce_failed_app});
}

void announce_start() {
    Line line;
    line.Append("version %s started; asks ", HTTP_CLIENT_VERSION);
    append_servers(&line);
    line.Append("; ");
    append_next(&line, http_update_admin_next_daily());
    http_client_notice("%s", line.text);
}
