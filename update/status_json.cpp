// The document goes out while it is made, member by member. Parts that change meanwhile may
// differ by that, as two reports one after the other do. What could not be read is told in
// "errors", the last member: the rest is worth having all the same.
#include "update/status_json.h"

#include <algorithm>
#include <cerrno>

#include "base/text.h"
#include "buffer/memory.h"
#include "config/server_list.h"
#include "config/settings.h"
#include "frame/identity.h"
#include "frame/report.h"
#include "http/command_thread.h"
#include "registry/app_registry.h"
#include "resume/resume_list.h"
#include "update/history_document.h"
#include "update/status_facts.h"

static constexpr int64_t STATUS_FORMAT = 1;

// Text from outside, as it stands in the history, too.
template <size_t N>
static void member_shown(JsonWriter* writer, std::string_view key, const char (&text)[N]) {
    char shown[N];
    record_text_set(shown, text_view(text));
    writer->Member(key, shown);
}

static void member_count(JsonWriter* writer, std::string_view key, uint64_t count) {
    writer->Member(key, static_cast<int64_t>(count));
}

static void daemon_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    writer->Key("daemon");
    writer->BeginObject();
    writer->Member("version", facts.version);
    writer->MemberTime("time", facts.now_s);
    writer->MemberTime("start", facts.now_s - facts.uptime_s);
    writer->Member("uptime_s", facts.uptime_s);
    writer->EndObject();
}

// --- status

static void last_run_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    writer->Key("last_run");
    if (!facts.has_last) return writer->Null();
    const RunRecord& run = facts.last;
    writer->BeginObject();
    writer->Member("number", run.number);
    writer->Member("kind", run_kind_name(run.kind));
    writer->Member("outcome", run_outcome_name(facts.last_outcome));
    writer->MemberTime("begin", run.begin_s);
    writer->MemberTime("end", run.end_s);
    writer->Member("message", RunFailureWords(run).get());
    writer->EndObject();
}

static void last_success_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    writer->Key("last_success");
    if (facts.success_number == 0) return writer->Null();
    writer->BeginObject();
    writer->Member("number", facts.success_number);
    writer->Member("kind", run_kind_name(facts.success_kind));
    writer->MemberTime("end", facts.success_s);
    writer->EndObject();
}

static void next_daily_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    writer->Key("next_daily");
    if (facts.is_manual) return writer->Null();
    writer->BeginObject();
    writer->MemberTime("time", facts.daily_s);
    writer->Member("in_s", std::max<int64_t>(facts.daily_s - facts.now_s, 0));
    writer->MemberFlag("configured", !facts.time_is_default);
    writer->Member("apps", facts.daily_apps);
    writer->EndObject();
}

static void next_retry_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    const ResumeOutlook& resume = facts.resume;
    writer->Key("next_retry");
    if (resume.apps == 0) return writer->Null();
    writer->BeginObject();
    writer->MemberTime("time", resume.is_armed ? facts.now_s + resume.seconds_left : 0);
    writer->Member("apps", resume.apps);
    writer->Member("retries_left", resume.retries_left);
    writer->EndObject();
}

static void status_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    writer->Key("status");
    writer->BeginObject();
    writer->MemberFlag("running", facts.is_running);
    last_run_write(facts, writer);
    last_success_write(facts, writer);
    next_daily_write(facts, writer);
    next_retry_write(facts, writer);
    writer->EndObject();
}

// --- progress

static bool pass_app_get(const UpdateProgress& progress, int slot, AppEntry* entry) {
    return reg_app_get(slot, entry) == 0 && app_set_contains(progress.app_mask, slot);
}

static void results_write(const UpdateProgress& progress, JsonWriter* writer) {
    writer->Key("results");
    writer->BeginArray();
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (!pass_app_get(progress, slot, &entry)) continue;
        writer->BeginObject();
        member_shown(writer, "app", entry.name);
        writer->Member("result", progress.results[slot]);
        writer->Member("message", update_status_str(progress.results[slot]));
        writer->EndObject();
    }
    writer->EndArray();
}

// Of the pass under way, else of the last one since the daemon runs.
static void progress_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    const UpdateProgress& progress = facts.progress;
    writer->Key("progress");
    writer->BeginObject();
    AppEntry entry;
    if (pass_app_get(progress, static_cast<int>(progress.current_app), &entry)) {
        writer->Key("current");
        writer->BeginObject();
        member_shown(writer, "app", entry.name);
        writer->Member("files", progress.file_num);
        writer->Member("files_done", progress.down_num);
        member_shown(writer, "file", progress.cur_file);
        if (facts.size_is_known) member_count(writer, "size_bytes", progress.file_size);
        member_count(writer, "done_bytes", progress.down_size);
        member_count(writer, "bytes_per_s", facts.bytes_per_s);
        writer->Member("silence_s", facts.silence_s);
        writer->EndObject();
    }
    results_write(progress, writer);
    writer->EndObject();
}

// --- apps, settings, servers, the device

static void apps_write(JsonWriter* writer) {
    writer->Key("apps");
    writer->BeginArray();
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (reg_app_get(slot, &entry) != 0) continue;
        writer->BeginObject();
        writer->Member("id", slot);
        member_shown(writer, "name", entry.name);
        member_shown(writer, "version", entry.version);
        member_shown(writer, "save_path", entry.save_path);
        writer->MemberFlag("busy", (entry.flags & APP_FLAG_BUSY) != 0);
        writer->MemberFlag("manual", (entry.flags & APP_FLAG_MANUAL) != 0);
        writer->EndObject();
    }
    writer->EndArray();
}

static void settings_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    const DailyTime daily = update_time_get();
    char text[16];
    size_t length = 0;
    (void)text_appendf(text, sizeof(text), &length, "%02d:%02d", daily.update_hour,
                       daily.update_minute);
    const SourceAddress source = src_ip_get();
    writer->Key("settings");
    writer->BeginObject();
    writer->Member("mode", facts.is_manual ? "manual" : "auto");
    writer->Member("daily_time", text);
    writer->MemberFlag("daily_time_configured", !facts.time_is_default);
    writer->Key("source_address");
    if (source.is_set()) {
        writer->Text(source.update_src_ip);
    } else {
        writer->Null();
    }
    writer->EndObject();
}

// 0 or ENOMEM.
static int servers_of_list_write(unsigned selector, int64_t number, JsonWriter* writer) {
    OwnedServerList servers;
    if (hu_serv_list_copy(&servers, selector) != 0) return ENOMEM;
    for (const UpdateServer* server = hu_serv_list_first(&servers); server != nullptr;
         server = hu_serv_list_next(&servers, server)) {
        writer->BeginObject();
        writer->Member("list", number);
        member_shown(writer, "host", server->host);
        writer->Member("port", server->port);
        member_shown(writer, "uri", server->uri);
        writer->EndObject();
    }
    return 0;
}

static int servers_write(JsonWriter* writer) {
    writer->Key("servers");
    writer->BeginArray();
    const int second = servers_of_list_write(SERVERS_SECOND, 2, writer);
    const int first = servers_of_list_write(SERVERS_FIRST, 1, writer);
    writer->EndArray();
    return second != 0 ? second : first;
}

static void device_write(JsonWriter* writer) {
    const DeviceIdentity identity = device_identity_copy();
    writer->Key("device");
    writer->BeginObject();
    member_shown(writer, "serial_number", identity.serial_number);
    member_shown(writer, "product_name", identity.product_name);
    member_shown(writer, "software_version", identity.software_version);
    member_shown(writer, "hardware_version", identity.hardware_version);
    member_shown(writer, "mac_address", identity.mac_address);
    writer->EndObject();
}

// --- resume list

namespace {
struct ResumeRow {
    char app[RESUME_NAME_SIZE];
    char path[FILENAME_SIZE];
    ResumeState state;
};
}  // namespace

// The file at that position of the whole list; false beyond its end. One at a time: nobody
// may hold the list while text goes out, and a copy of all of it could take 600 KiB.
static bool resume_row_get(uint32_t position, ResumeRow* row) {
    const MutexLock guard(resume_lock);
    for (const ResumeApp* app = resume_next_app(&ResumeList); app != nullptr;
         app = resume_next_app(app)) {
        for (const ResumeFile* file = resume_next_file(app, &app->files); file != nullptr;
             file = resume_next_file(app, file)) {
            if (position-- > 0) continue;
            (void)text_copy(row->app, app->name);
            (void)text_copy(row->path, file->path);
            row->state = file->state;
            return true;
        }
    }
    return false;
}

static const char* resume_state_name(ResumeState state) {
    switch (state) {
        case RESUME_DOWN_SUCCESS:
            return "fetched";
        case RESUME_DOWN_FAIL:
            return "begun";
        case RESUME_NO_DOWN:
            return "missing";
    }
    return "missing";
}

static void resume_write(JsonWriter* writer) {
    writer->Key("resume");
    writer->BeginArray();
    ResumeRow row;
    for (uint32_t position = 0; resume_row_get(position, &row); ++position) {
        writer->BeginObject();
        member_shown(writer, "app", row.app);
        member_shown(writer, "file", row.path);
        writer->Member("state", resume_state_name(row.state));
        writer->EndObject();
    }
    writer->EndArray();
}

// --- history

static bool history_run_write(RunRecord& run, void* argument) {
    run_write(run, history_outcome(run), static_cast<JsonWriter*>(argument));
    return true;
}

static int history_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    writer->Key("history");
    writer->BeginObject();
    writer->Key("totals");
    totals_write(facts.totals, writer);
    writer->Key("runs");
    writer->BeginArray();
    const int error = history_read(nullptr, history_run_write, writer);
    writer->EndArray();
    writer->EndObject();
    return error != 0 ? error : facts.history_error;
}

// --- the document

static void error_write(const char* part, int error, JsonWriter* writer) {
    if (error == 0) return;
    writer->BeginObject();
    writer->Member("part", part);
    writer->Member("number", error);
    writer->Member("message", history_error_words(error));
    writer->EndObject();
}

static void document_write(const UpdateStatusFacts& facts, JsonWriter* writer) {
    writer->BeginObject();
    writer->Member("format", STATUS_FORMAT);
    daemon_write(facts, writer);
    status_write(facts, writer);
    progress_write(facts, writer);
    apps_write(writer);
    settings_write(facts, writer);
    const int servers_error = servers_write(writer);
    device_write(writer);
    resume_write(writer);
    const int history_error = history_write(facts, writer);
    writer->Key("errors");
    writer->BeginArray();
    error_write("servers", servers_error, writer);
    error_write("history", history_error, writer);
    writer->EndArray();
    writer->EndObject();
}

static void json_show(cli_record* record) {
    const MemPtr<UpdateStatusFacts> facts = mem_make<UpdateStatusFacts>();
    if (facts == nullptr) return command_status_end(record, UPDATE_NO_MEMORY);
    update_status_facts(facts.get());
    char part[512];
    JsonText text(part, sizeof(part), [](std::string_view bytes) {
        report_printf(REPORT_TERMINAL, "%.*s", static_cast<int>(bytes.size()), bytes.data());
    });
    JsonWriter writer(&text);
    document_write(*facts, &writer);
    report_printf(REPORT_TERMINAL, "\n");
}

void show_json_cmd(cli_record* record) { command_show<json_show>(record); }
