// Each line answers one question: what goes on, how the last run went, when the next one
// comes. Absolute times stand with relative words, so that nobody has to subtract.
#include "update/status_reports.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include "base/shown_text.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "frame/command_outcome.h"
#include "frame/report.h"
#include "http/command_thread.h"

static constexpr size_t COLUMNS = 80;
static constexpr size_t LABEL_COLUMNS = 14;
static constexpr int64_t DAY_S = 86400;

namespace {

// A short text that is made of numbers.
class ShortText {
  public:
    [[gnu::format(printf, 2, 3)]] void Append(const char* format, ...) {
        va_list args;
        va_start(args, format);
        (void)text_vappendf(text_, sizeof(text_), &length_, format, args);
        va_end(args);
    }
    [[nodiscard]] const char* get() const { return text_; }

  private:
    char text_[512] = "";
    size_t length_ = 0;
};

tm local_of(int64_t seconds) {
    const time_t time = seconds;
    tm local{};
    (void)localtime_r(&time, &local);
    return local;
}

bool same_day(const tm& a, const tm& b) { return a.tm_yday == b.tm_yday && a.tm_year == b.tm_year; }

// "today 03:05", "yesterday ...", "tomorrow ...", else with the date.
ShortText when(int64_t seconds, int64_t now_s) {
    const tm local = local_of(seconds);
    ShortText text;
    if (same_day(local, local_of(now_s))) {
        text.Append("today");
    } else if (same_day(local, local_of(now_s - DAY_S))) {
        text.Append("yesterday");
    } else if (same_day(local, local_of(now_s + DAY_S))) {
        text.Append("tomorrow");
    } else {
        text.Append("%04d-%02d-%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
    }
    text.Append(" %02d:%02d", local.tm_hour, local.tm_min);
    return text;
}

ShortText date_time(int64_t seconds) {
    const tm local = local_of(seconds);
    ShortText text;
    text.Append("%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

// The two largest units: "2 days 3 h", "4 s".
ShortText duration(int64_t seconds) {
    const auto number = [](int64_t value) { return static_cast<long long>(value); };
    ShortText text;
    seconds = std::max<int64_t>(seconds, 0);
    if (seconds >= DAY_S) {
        const int64_t days = seconds / DAY_S;
        text.Append("%lld day%s %lld h", number(days), days == 1 ? "" : "s",
                    number(seconds % DAY_S / 3600));
    } else if (seconds >= 3600) {
        text.Append("%lld h %lld min", number(seconds / 3600), number(seconds % 3600 / 60));
    } else if (seconds >= 60) {
        text.Append("%lld min %lld s", number(seconds / 60), number(seconds % 60));
    } else {
        text.Append("%lld s", number(seconds));
    }
    return text;
}

ShortText bytes_words(uint64_t bytes) {
    ShortText text;
    if (bytes >= 10 * 1024 * 1024) {
        text.Append("%llu MiB", static_cast<unsigned long long>(bytes / (1024 * 1024)));
    } else if (bytes >= 10 * 1024) {
        text.Append("%llu KiB", static_cast<unsigned long long>(bytes / 1024));
    } else {
        text.Append("%llu bytes", static_cast<unsigned long long>(bytes));
    }
    return text;
}

// A paragraph beside a label: broken at blanks, the following lines under the first.
void print_labelled(int output, const char* label, std::string_view text) {
    size_t indent = strlen(label) > 0 && *label != ' ' ? LABEL_COLUMNS : strlen(label);
    report_printf(output, "%-*s", static_cast<int>(indent), label);
    const size_t width = COLUMNS - 1 - indent;
    while (text.size() > width) {
        size_t cut = text.rfind(' ', width);
        if (cut == std::string_view::npos || cut == 0) cut = text.find(' ', width);
        if (cut == std::string_view::npos) break;
        report_printf(output, "%.*s\n%*s", static_cast<int>(cut), text.data(),
                      static_cast<int>(indent), "");
        text.remove_prefix(cut + 1);
    }
    report_printf(output, "%.*s\n", static_cast<int>(text.size()), text.data());
}

// Every failure of the run, a paragraph each.
void print_failures(int output, const RunRecord& run) {
    constexpr const char* label = "              ";
    for (uint32_t i = 0; i < run.server_count; ++i) {
        if (!run_server_failed(run.servers[i])) continue;
        print_labelled(output, label, FailureWords(run.servers[i]).get());
    }
    for (uint32_t i = 0; i < run.app_count; ++i) {
        if (!run_app_failed(run.apps[i])) continue;
        ShortText text;
        text.Append("%s: %s", ShownText(run.apps[i].name).get(), FailureWords(run.apps[i]).get());
        print_labelled(output, label, text.get());
    }
    if (run.status != UPDATE_OK) print_labelled(output, label, update_status_str(run.status));
}

const char* outcome_words(RunOutcome outcome) {
    switch (outcome) {
        case RunOutcome::Latest:
            return "nothing newer";
        case RunOutcome::Nothing:
            return "no app could be asked about (busy, or without a version)";
        case RunOutcome::Interrupted:
            return "interrupted, the daemon was ended";
        default:
            return run_outcome_name(outcome);
    }
}

const char* file_name(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

// --- status

// What the run under way is at; nothing when its record does not tell.
ShortText activity(const UpdateStatusFacts& facts) {
    const RunRecord& run = facts.current;
    ShortText text;
    if (run.number == 0) {
        text.Append("an update");
        return text;
    }
    text.Append("%s update, ", run_kind_name(run.kind));
    const RunApp* app = run.app_count == 0 ? nullptr : &run.apps[run.app_count - 1];
    if (app != nullptr && app->result == UPDATE_DOWNLOADING) {
        text.Append("downloading %s for %s",
                    ShownText<256>(file_name(facts.progress.cur_file)).get(),
                    ShownText(app->name).get());
    } else if (run.server_count > 0) {
        const RunServer& server = run.servers[run.server_count - 1];
        text.Append("asking %s:%u", ShownText(server.host).get(), server.port);
    } else {
        text.Append("beginning");
    }
    return text;
}

bool is_downloading(const UpdateStatusFacts& facts) {
    const RunRecord& run = facts.current;
    return facts.progress.begin_ms != 0 && run.app_count > 0 &&
           run.apps[run.app_count - 1].result == UPDATE_DOWNLOADING;
}

void print_now(int output, const UpdateStatusFacts& facts) {
    if (!facts.is_running) return print_labelled(output, "Now:", "nothing to do");
    print_labelled(output, "Now:", activity(facts).get());
    if (!is_downloading(facts)) return;
    const UpdateProgress& progress = facts.progress;
    const auto size = static_cast<unsigned long long>(progress.file_size);
    const auto done = static_cast<unsigned long long>(progress.down_size);
    ShortText text;
    text.Append("file %u of %u, ", progress.down_num + 1, progress.file_num);
    if (facts.size_is_known) {
        text.Append("%llu of %llu bytes (%llu%%), ", done, size, done * 100 / size);
    } else {
        text.Append("%llu bytes, ", done);
    }
    if (facts.silence_s >= 3) {
        text.Append("nothing for %s", duration(facts.silence_s).get());
    } else {
        text.Append("%s/s", bytes_words(facts.bytes_per_s).get());
    }
    print_labelled(output, "              ", text.get());
}

void print_last(int output, const UpdateStatusFacts& facts) {
    if (!facts.has_last) return print_labelled(output, "Last run:", "none yet");
    const RunRecord& run = facts.last;
    ShortText text;
    text.Append("%s, %s: %s (number %u)", run_kind_name(run.kind),
                when(run.begin_s, facts.now_s).get(), outcome_words(facts.last_outcome),
                run.number);
    print_labelled(output, "Last run:", text.get());
    print_failures(output, run);
}

void print_success(int output, const UpdateStatusFacts& facts) {
    if (facts.success_number == 0) return print_labelled(output, "Last success:", "none yet");
    ShortText text;
    text.Append("%s, %s (number %u)", run_kind_name(facts.success_kind),
                when(facts.success_s, facts.now_s).get(), facts.success_number);
    print_labelled(output, "Last success:", text.get());
}

void print_daily(int output, const UpdateStatusFacts& facts) {
    if (facts.is_manual) {
        return print_labelled(output, "Next daily:", "none, \"http update mode manual\" is set");
    }
    ShortText text;
    if (facts.daily_s <= facts.now_s) {
        text.Append("due now, begins within a minute");
    } else {
        text.Append("%s, in %s", when(facts.daily_s, facts.now_s).get(),
                    duration(facts.daily_s - facts.now_s).get());
    }
    text.Append(facts.time_is_default ? " (time drawn at random)" : " (time configured)");
    print_labelled(output, "Next daily:", text.get());
    if (facts.daily_apps > 0) return;
    print_labelled(output, "              ", "no app is registered for it, so it would do nothing");
}

void print_retry(int output, const UpdateStatusFacts& facts) {
    const ResumeOutlook& resume = facts.resume;
    if (resume.apps == 0) {
        return print_labelled(output, "Next retry:", "none, nothing is left over");
    }
    ShortText text;
    if (resume.is_armed) {
        text.Append("%s, in %s", when(facts.now_s + resume.seconds_left, facts.now_s).get(),
                    duration(resume.seconds_left).get());
    } else {
        text.Append("after the run under way");
    }
    text.Append(" (%u app%s, %d tr%s left)", resume.apps, resume.apps == 1 ? "" : "s",
                resume.retries_left, resume.retries_left == 1 ? "y" : "ies");
    print_labelled(output, "Next retry:", text.get());
}

}  // namespace

void update_status_print(int output, const UpdateStatusFacts& facts) {
    tzset();  // the device's zone may have been changed meanwhile
    ShortText text;
    text.Append("http_client %s, since %s (%s)", facts.version,
                date_time(facts.now_s - facts.uptime_s).get(), duration(facts.uptime_s).get());
    print_labelled(output, "Daemon:", text.get());
    print_now(output, facts);
    print_last(output, facts);
    print_success(output, facts);
    print_daily(output, facts);
    print_retry(output, facts);
    if (facts.history_error == 0) return;
    text = {};
    text.Append("can't be read: %s", history_error_words(facts.history_error));
    print_labelled(output, "History:", text.get());
}

// --- history

namespace {

struct Listing {
    int output;
    uint32_t number;  // the one that is asked for; 0: all
    uint32_t printed;
};

// "failed: 10.1.1.1:80: connection refused"
ShortText result_words(const RunRecord& run, RunOutcome outcome) {
    ShortText text;
    const RunFailureWords failure(run);
    text.Append("%s", outcome == RunOutcome::Interrupted ? "interrupted" : outcome_words(outcome));
    if (*failure.get() != '\0' && outcome != RunOutcome::Cancelled) {
        text.Append(": %s", failure.get());
    } else if (outcome == RunOutcome::Updated) {
        for (uint32_t i = 0; i < run.app_count; ++i) {
            text.Append("%s%s", i == 0 ? ": " : ", ", ShownText(run.apps[i].name).get());
        }
    }
    return text;
}

bool print_line(RunRecord& run, void* argument) {
    auto* listing = static_cast<Listing*>(argument);
    if (listing->printed++ == 0) {
        report_printf(listing->output, "%-5s %-10s %-16s %s\n", "run", "kind", "begin", "result");
        report_printf(listing->output, "----- ---------- ---------------- %.45s\n",
                      "---------------------------------------------");
    }
    const ShortText result = result_words(run, history_outcome(run));
    const bool cut = strlen(result.get()) > 45;
    report_printf(listing->output, "%-5u %-10s %-16.16s %.*s%s\n", run.number,
                  run_kind_name(run.kind), date_time(run.begin_s).get(), cut ? 42 : 45,
                  result.get(), cut ? "..." : "");
    return true;
}

const char* server_words(const RunServer& server) {
    switch (server.status) {
        case UPDATE_OK:
            return "had updates";
        case UPDATE_LATEST:
            return "nothing newer";
        case UPDATE_ALL_BUSY:
            return "not asked, no app is ready (busy, or without a version)";
        case UPDATE_NOT_STARTED:
            return "no outcome";
        default:
            return nullptr;
    }
}

void print_server(int output, const RunServer& server) {
    const char* words = server_words(server);
    ShortText text;
    text.Append("%s:%u: %s", ShownText(server.host).get(), server.port,
                words != nullptr ? words : update_status_str(server.status));
    print_labelled(output, "Server:", text.get());
    if (words != nullptr) return;
    print_labelled(output, "              ", FailureWords(server).get());
}

void print_answer(int output, const RunApp& app) {
    if (app.result != UPDATE_OK && !app.answered) return;
    ShortText text;
    if (!app.answered) {
        text.Append("the app has not answered");
    } else if (app.answer_code == 0) {
        text.Append("the app has installed it, %s", date_time(app.answer_s).get());
        if (app.answer_version[0] != '\0') {
            text.Append(", and is %s now", ShownText(app.answer_version).get());
        }
    } else {
        text.Append("the app answered with failure %d, %s", app.answer_code,
                    date_time(app.answer_s).get());
    }
    print_labelled(output, "              ", text.get());
}

void print_app(int output, const RunApp& app) {
    ShortText text;
    text.Append("%s, %s to %s: %s", ShownText(app.name).get(),
                app.before[0] == '\0' ? "?" : ShownText(app.before).get(),
                app.offered[0] == '\0' ? "?" : ShownText(app.offered).get(),
                app.result == UPDATE_OK            ? "downloaded and handed over"
                : app.result == UPDATE_DOWNLOADING ? "no outcome"
                                                   : FailureWords(app).get());
    print_labelled(output, "App:", text.get());
    text = {};
    text.Append("%u of %u files, %llu bytes fetched, %llu were there", app.files_done, app.files,
                static_cast<unsigned long long>(app.fetched_bytes),
                static_cast<unsigned long long>(app.resumed_bytes));
    print_labelled(output, "              ", text.get());
    print_answer(output, app);
}

bool print_details(RunRecord& run, void* argument) {
    auto* listing = static_cast<Listing*>(argument);
    if (run.number != listing->number) return true;
    const int output = listing->output;
    listing->printed = 1;
    ShortText text;
    text.Append("%u, %s", run.number, run_kind_name(run.kind));
    print_labelled(output, "Run:", text.get());
    print_labelled(output, "Begin:", date_time(run.begin_s).get());
    if (run.end_s != 0) {
        text = {};
        text.Append("%s, after %s", date_time(run.end_s).get(),
                    duration(run.end_s - run.begin_s).get());
        print_labelled(output, "End:", text.get());
    }
    print_labelled(output, "Result:", outcome_words(history_outcome(run)));
    for (uint32_t i = 0; i < run.server_count; ++i) {
        print_server(output, run.servers[i]);
        for (uint32_t j = 0; j < run.app_count; ++j) {
            if (run.apps[j].server == i) print_app(output, run.apps[j]);
        }
    }
    if (run.status != UPDATE_OK) {
        print_labelled(output, "              ", update_status_str(run.status));
    }
    return false;
}

void print_read_error(int output, int error) {
    if (error == 0) return;
    report_printf(output, "%% The history can't be read: %s\n", history_error_words(error));
}

}  // namespace

void history_print(int output) {
    tzset();
    Listing listing{output, 0, 0};
    const int error = history_read(nullptr, print_line, &listing);
    print_read_error(output, error);
    if (listing.printed == 0 && error == 0) report_printf(output, "no update run yet\n");
}

bool history_run_print(int output, uint32_t number) {
    tzset();
    Listing listing{output, number, 0};
    const int error = history_read(nullptr, print_details, &listing);
    print_read_error(output, error);
    if (listing.printed == 0) report_printf(output, "%% No run %u in the history\n", number);
    return listing.printed != 0;
}

// --- commands

static void status_show(cli_record* record) {
    const MemPtr<UpdateStatusFacts> facts = mem_make<UpdateStatusFacts>();
    if (facts == nullptr) return command_status_end(record, UPDATE_NO_MEMORY);
    update_status_facts(facts.get());
    update_status_print(REPORT_TERMINAL, *facts);
}

static void history_show(cli_record* record) {
    if (record->value1 == 0) {
        history_print(REPORT_TERMINAL);
    } else if (!history_run_print(REPORT_TERMINAL, static_cast<uint32_t>(record->value1))) {
        command_outcome_set(record, CLI_OUTCOME_REFUSED);
    }
}

void show_status_cmd(cli_record* record) { command_show<status_show>(record); }
void show_history_cmd(cli_record* record) { command_show<history_show>(record); }
