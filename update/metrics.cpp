// The file is replaced whole: a scrape sees the figures of one moment. What has no value
// (a success before the first one, the next run in manual mode) has no line.
#include "update/metrics.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "base/file.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "frame/log.h"
#include "update/status_facts.h"

static constexpr mode_t FILE_MODE = 0644;

static const char* s_path = nullptr;  // null: off
static bool s_failing = false;        // a run's thread alone writes it, one run at a time

void metrics_init() {
    const char* path = getenv(METRICS_VARIABLE);
    s_path = path == nullptr || *path == '\0' ? nullptr : path;
}

namespace {

class Figures {
  public:
    // Opens a family; its samples follow.
    void Family(const char* name, const char* type, const char* help) {
        name_ = name;
        Append("# HELP http_client_%s %s\n# TYPE http_client_%s %s\n", name, help, name, type);
    }
    // labels: with their braces, or "".
    void Sample(uint64_t value, const char* labels = "") {
        Append("http_client_%s%s %llu\n", name_, labels, static_cast<unsigned long long>(value));
    }
    void Gauge(const char* name, const char* help, int64_t value) {
        Family(name, "gauge", help);
        Sample(static_cast<uint64_t>(value));
    }
    void Counter(const char* name, const char* help, uint64_t value) {
        Family(name, "counter", help);
        Sample(value);
    }
    [[nodiscard]] std::string_view View() const { return {text_, length_}; }

  private:
    [[gnu::format(printf, 2, 3)]] void Append(const char* format, ...) {
        va_list args;
        va_start(args, format);
        (void)text_vappendf(text_, sizeof(text_), &length_, format, args);
        va_end(args);
    }

    char text_[4096] = "";  // twice what there is
    size_t length_ = 0;
    const char* name_ = "";
};

void add_runs(const HistoryTotals& totals, Figures* figures) {
    figures->Family("runs_total", "counter", "Update runs that have ended.");
    for (const UpdateRunKind kind : UPDATE_RUN_ALL_KINDS) {
        for (const bool success : {true, false}) {
            char labels[64];
            size_t length = 0;
            (void)text_appendf(labels, sizeof(labels), &length, "{kind=\"%s\",outcome=\"%s\"}",
                               run_kind_name(kind), success ? "succeeded" : "failed");
            figures->Sample((success ? totals.succeeded : totals.failed)[kind], labels);
        }
    }
    figures->Counter("fetched_bytes_total", "Bytes of files that were downloaded.",
                     totals.fetched_bytes);
    figures->Counter("resumed_bytes_total", "Bytes that were there and were not fetched again.",
                     totals.resumed_bytes);
}

void add_times(const RunRecord& run, const UpdateStatusFacts& facts, Figures* figures) {
    figures->Gauge("start_time_seconds", "When the daemon was started.",
                   facts.now_s - facts.uptime_s);
    figures->Gauge("last_run_timestamp_seconds", "When the last run ended.", run.end_s);
    figures->Gauge("last_run_success", "Whether it succeeded.",
                   run_outcome_is_success(run_outcome(run)) ? 1 : 0);
    if (facts.success_number != 0) {
        figures->Gauge("last_success_timestamp_seconds", "When the last successful run ended.",
                       facts.success_s);
    }
    const int64_t daily_s = update_next_daily_after(run);
    if (daily_s != 0) {
        figures->Gauge("next_run_timestamp_seconds", "When the next daily run is due.", daily_s);
    }
}

void add_stock(const UpdateStatusFacts& facts, Figures* figures) {
    figures->Gauge("apps_registered", "Apps that are registered.", facts.registered_apps);
    figures->Gauge("resume_apps", "Apps whose downloads are going to be resumed.",
                   facts.resume.apps);
    figures->Gauge("retries_left", "Resume runs before the first of them is given up.",
                   facts.resume.retries_left);
}

}  // namespace

static void tell_failure(int error) {
    if (error != 0 && !s_failing) {
        http_client_warning("figures can't be written: [%s] %s", s_path, strerror(error));
    }
    s_failing = error != 0;
}

void metrics_run_ended(const RunRecord& run) {
    if (s_path == nullptr) return;
    const MemPtr<UpdateStatusFacts> facts = mem_make<UpdateStatusFacts>();
    if (facts == nullptr) return;  // the next run makes them
    update_status_facts(facts.get());
    Figures figures;
    figures.Family("info", "gauge", "The daemon's version.");
    char labels[64];
    size_t length = 0;
    (void)text_appendf(labels, sizeof(labels), &length, "{version=\"%s\"}", facts->version);
    figures.Sample(1, labels);
    add_runs(facts->totals, &figures);
    add_times(run, *facts, &figures);
    add_stock(*facts, &figures);
    tell_failure(file_replace(s_path, figures.View(), FILE_MODE));
}
