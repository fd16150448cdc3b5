// What a run came to is always told from its record, never noted beside it: an app's
// answer, hours later, can turn a success into a failure.
#include "update/run_record.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <iterator>

#include "base/shown_text.h"
#include "base/text.h"

static constexpr const char* OUTCOME_NAMES[] = {"running",   "updated",       "up-to-date",
                                                "nothing",   "partly failed", "failed",
                                                "cancelled", "interrupted"};
static_assert(std::size(OUTCOME_NAMES) == static_cast<size_t>(RunOutcome::Interrupted) + 1);

const char* run_outcome_name(RunOutcome outcome) {
    return OUTCOME_NAMES[static_cast<size_t>(outcome)];
}

const char* run_kind_name(UpdateRunKind kind) {
    switch (kind) {
        case UPDATE_RUN_DAILY:
            return "daily";
        case UPDATE_RUN_COMMAND:
            return "foreground";
        case UPDATE_RUN_RESUME:
            return "retry";
        case UPDATE_RUN_BACKGROUND:
            return "background";
    }
    return "unknown";
}

void RunRecord::Clear() {
    number = server_count = app_count = 0;
    kind = UPDATE_RUN_DAILY;
    status = UPDATE_OK;
    begin_s = end_s = 0;
}

bool run_server_failed(const RunServer& server) {
    switch (server.status) {
        case UPDATE_OK:
        case UPDATE_LATEST:
        case UPDATE_ALL_BUSY:
        case UPDATE_NOT_STARTED:
            return false;
        default:
            return true;
    }
}

bool run_app_failed(const RunApp& app) {
    if (app.result == UPDATE_DOWNLOADING) return false;
    return app.result != UPDATE_OK || (app.answered && app.answer_code != 0);
}

namespace {
struct Counts {
    uint32_t failed = 0;
    uint32_t cancelled = 0;
    uint32_t updated = 0;
    uint32_t latest = 0;
};
}  // namespace

static Counts counts_take(const RunRecord& run) {
    Counts counts;
    counts.failed = run.status == UPDATE_OK ? 0 : 1;
    for (uint32_t i = 0; i < run.server_count; ++i) {
        const RunServer& server = run.servers[i];
        counts.latest += server.status == UPDATE_LATEST ? 1U : 0U;
        counts.failed += run_server_failed(server) ? 1U : 0U;
        counts.cancelled += server.status == UPDATE_CANCELLED ? 1U : 0U;
    }
    for (uint32_t i = 0; i < run.app_count; ++i) {
        const RunApp& app = run.apps[i];
        counts.failed += run_app_failed(app) ? 1U : 0U;
        counts.updated += run_app_failed(app) ? 0U : 1U;
        counts.cancelled += app.result == UPDATE_CANCELLED ? 1U : 0U;
    }
    return counts;
}

RunOutcome run_outcome(const RunRecord& run) {
    if (run.end_s == 0) return RunOutcome::Running;
    const Counts counts = counts_take(run);
    if (counts.cancelled > 0) return RunOutcome::Cancelled;
    if (counts.failed > 0) {
        return counts.updated + counts.latest > 0 ? RunOutcome::Partly : RunOutcome::Failed;
    }
    if (counts.updated > 0) return RunOutcome::Updated;
    return counts.latest > 0 ? RunOutcome::Latest : RunOutcome::Nothing;
}

// --- words

FailureWords::FailureWords(const RunServer& server) {
    if (!run_server_failed(server)) return;
    size_t length = 0;
    const CauseWords cause(server.cause);
    if (*cause.get() != '\0') {
        (void)text_copy(text_, cause.get());
    } else {
        (void)text_appendf(text_, sizeof(text_), &length, "%s:%u: %s", ShownText(server.host).get(),
                           server.port, update_status_str(server.status));
    }
}

FailureWords::FailureWords(const RunApp& app) {
    if (!run_app_failed(app)) return;
    size_t length = 0;
    const CauseWords cause(app.cause);
    if (app.result == UPDATE_OK) {
        (void)text_appendf(text_, sizeof(text_), &length, "the app answered with failure %d",
                           app.answer_code);
    } else {
        (void)text_copy(text_, *cause.get() != '\0' ? cause.get() : update_status_str(app.result));
    }
}

RunFailureWords::RunFailureWords(const RunRecord& run) {
    size_t length = 0;
    const RunServer* const servers_end = run.servers + run.server_count;
    const RunServer* server = std::find_if(run.servers, servers_end, run_server_failed);
    const RunApp* const apps_end = run.apps + run.app_count;
    const RunApp* app = std::find_if(run.apps, apps_end, run_app_failed);
    if (server != servers_end) {
        (void)text_copy(text_, FailureWords(*server).get());
    } else if (app != apps_end) {
        (void)text_appendf(text_, sizeof(text_), &length, "%s: %s", ShownText(app->name).get(),
                           FailureWords(*app).get());
    } else if (run.status != UPDATE_OK) {
        (void)text_copy(text_, update_status_str(run.status));
    }
}

// --- times and texts

UtcText::UtcText(int64_t seconds) {
    const time_t time = seconds;
    tm utc{};
    if (seconds == 0 || gmtime_r(&time, &utc) == nullptr) return;
    (void)strftime(text_, sizeof(text_), "%Y-%m-%dT%H:%M:%SZ", &utc);
}

int64_t utc_parse(std::string_view text) {
    char copy[32];
    tm utc{};
    if (!text_copy(copy, text)) return 0;
    const char* end = strptime(copy, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return end == nullptr || *end != '\0' ? 0 : timegm(&utc);
}

// Length of the well-formed UTF-8 character at the front of the text; 0: there is none.
static size_t character_length(std::string_view text) {
    const size_t length = utf8_length(text);
    rapidjson::MemoryStream input(text.data(), length);
    unsigned codepoint = 0;
    return rapidjson::UTF8<>::Decode(input, &codepoint) && input.Tell() == length ? length : 0;
}

void record_text_set(char* field, size_t size, std::string_view text) {
    text = text.substr(0, text.find('\0'));
    size_t filled = 0;
    while (!text.empty()) {
        const size_t length = std::max<size_t>(character_length(text), 1);
        const bool clean =
            character_length(text) > 0 && !is_control_character(text.substr(0, length));
        const std::string_view shown = clean ? text.substr(0, length) : "?";
        if (filled + shown.size() >= size) break;
        memcpy(field + filled, shown.data(), shown.size());
        filled += shown.size();
        text.remove_prefix(length);
    }
    memset(field + filled, 0, size - filled);
}
