// Every write makes the whole file anew: from the run in memory, the runs of the file and
// the answers that have come, one run at a time. Its size is known before a run is
// written, so what no longer fits is left out whole, from the oldest.
//
// The record of the run under way, 40 KiB, is there from its begin to its end; afterwards
// it stays only when it could not be written (a full disk is what people ask about), and
// the next flush tries again.
#include "update/history.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

#include "base/file.h"
#include "base/sync.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "frame/log.h"
#include "frame/paths.h"

static constexpr mode_t FILE_MODE = 0644;
static constexpr unsigned FILE_DEMANDS = FILE_NO_LINK | FILE_OURS | FILE_OURS_TO_CHANGE;
static constexpr size_t DOCUMENT_END = 8;  // room for what closes the document

namespace {

// What an app was told in a run, and what it has said to that.
struct Answer {
    uint32_t run;  // 0: the entry is free
    bool answered;
    char app[APP_NAME_SIZE];
    char version[APP_VERSION_SIZE];
    int32_t code;
    int64_t at_s;
};

struct Answers {
    Answer entries[APP_REG_MAX];
};

}  // namespace

static Mutex s_file_lock;
static bool s_loaded GUARDED_BY(s_file_lock) = false;  // the totals are the file's

static Mutex s_lock;  // taken under s_file_lock or alone; a leaf
static MemPtr<RunRecord> s_run GUARDED_BY(s_lock);
static bool s_live GUARDED_BY(s_lock) = false;  // s_run is under way
static Answers s_answers GUARDED_BY(s_lock);
static HistoryTotals s_totals GUARDED_BY(s_lock);

static Answers answers_copy() {
    const MutexLock guard(s_lock);
    return s_answers;
}

// False: there is none in memory.
static bool run_copy(RunRecord* run) {
    const MutexLock guard(s_lock);
    if (s_run == nullptr) return false;
    *run = *s_run;
    return true;
}

static void answers_apply(const Answers& answers, RunRecord* run) {
    for (const Answer& answer : answers.entries) {
        if (!answer.answered || answer.run != run->number) continue;
        // The last turn of the app is the one it was told about.
        for (uint32_t i = run->app_count; i-- > 0;) {
            RunApp& app = run->apps[i];
            if (strcmp(app.name, answer.app) != 0) continue;
            app.answered = true;
            app.answer_code = answer.code;
            app.answer_s = answer.at_s;
            (void)text_copy(app.answer_version, answer.version);
            break;
        }
    }
}

// --- the file

static void file_path(char (&path)[PATH_SIZE]) { http_client_data_path(HISTORY_FILE, &path); }

static void set_aside(const char* path, int error) {
    char aside[PATH_SIZE + 16];
    size_t length = 0;
    (void)text_appendf(aside, sizeof(aside), &length, "%s.damaged", path);
    http_client_debug_dump("[%s]<-->not believed [%s], kept as %s", path, strerror(error), aside);
    (void)rename(path, aside);  // else it is replaced
}

static bool is_no_history(int error) {
    return error == EINVAL || error == EPERM || error == ELOOP || error == EFBIG;
}

// A file that is missing or can't be ours is an empty one.
static int file_load_locked(const char* path, FileBytes* file) REQUIRES(s_file_lock) {
    const int error = file_read(path, FILE_DEMANDS, HISTORY_FILE_MAX, file);
    if (error == ENOENT) return 0;
    if (!is_no_history(error)) return error;
    set_aside(path, error);
    return 0;
}

namespace {
struct Walk {
    const Answers& answers;
    uint32_t in_memory;  // number of the run that was visited already; 0: none
    RunVisitFn visit;
    void* argument;
};
}  // namespace

static bool walk_file_run(RunRecord& run, void* argument) {
    const Walk& walk = *static_cast<const Walk*>(argument);
    if (run.number == walk.in_memory) return true;
    answers_apply(walk.answers, &run);
    return walk.visit(run, walk.argument);
}

// Visits the run in memory and those of the file, whose totals are given out. 0 or EINVAL:
// the file is damaged.
static int walk_runs(FileBytes* file, RunRecord* record, const Answers& answers,
                     HistoryTotals* totals, std::pair<RunVisitFn, void*> visitor) {
    Walk walk{answers, 0, visitor.first, visitor.second};
    if (walk.visit != nullptr && run_copy(record)) {
        walk.in_memory = record->number;
        answers_apply(answers, record);
        if (!walk.visit(*record, walk.argument)) return 0;
    }
    if (file->size == 0) return 0;
    return history_document_read(file->bytes.get(), totals, record,
                                 walk.visit == nullptr ? nullptr : walk_file_run, &walk);
}

// The totals of the file become those in memory, once.
static int load_locked(const char* path) REQUIRES(s_file_lock) {
    if (s_loaded) return 0;
    const MemPtr<RunRecord> record = mem_make<RunRecord>();
    FileBytes file;
    const int error = record == nullptr ? ENOMEM : file_load_locked(path, &file);
    if (error != 0) return error;
    HistoryTotals totals{};
    // Of a damaged one as much as there is; the next write keeps it aside.
    if (file.size > 0) {
        (void)history_document_read(file.bytes.get(), &totals, record.get(), nullptr, nullptr);
    }
    s_loaded = true;
    const MutexLock guard(s_lock);
    s_totals = totals;
    return 0;
}

// --- writing

namespace {
struct Copying {
    JsonText* text;
    JsonWriter* writer;
    uint32_t count;
};
}  // namespace

static size_t run_json_size(const RunRecord& run) {
    JsonText text(nullptr, 0);
    JsonWriter writer(&text);
    run_write(run, history_outcome(run), &writer);
    return text.length();
}

static bool copy_run(RunRecord& run, void* argument) {
    auto* copying = static_cast<Copying*>(argument);
    const size_t room = HISTORY_FILE_MAX - copying->text->length() - DOCUMENT_END;
    // The newest is there in any case, if need be without the last of its apps.
    while (copying->count == 0 && run_json_size(run) > room) --run.app_count;
    if (run_json_size(run) > room) return false;
    run_write(run, history_outcome(run), copying->writer);
    return ++copying->count < HISTORY_RUNS_MAX;
}

static HistoryTotals totals_copy() {
    const MutexLock guard(s_lock);
    return s_totals;
}

// Answers that the file has are done with.
static void answers_forget(const Answers& written) {
    const MutexLock guard(s_lock);
    for (size_t i = 0; i < std::size(written.entries); ++i) {
        const Answer& done = written.entries[i];
        Answer& entry = s_answers.entries[i];
        const bool same = entry.run == done.run && strcmp(entry.app, done.app) == 0;
        if (same && done.answered) entry = {};
    }
}

static int document_make(FileBytes* old, RunRecord* record, const Answers& answers,
                         JsonText* text) {
    JsonWriter writer(text);
    writer.BeginObject();
    writer.Key("format");
    writer.Number(HISTORY_FORMAT);
    writer.Key("totals");
    totals_write(totals_copy(), &writer);
    writer.Key("runs");
    writer.BeginArray();
    Copying copying{text, &writer, 0};
    const int error = walk_runs(old, record, answers, nullptr, {copy_run, &copying});
    writer.EndArray();
    writer.EndObject();
    return error;
}

static int save_locked(const char* path) REQUIRES(s_file_lock) {
    int error = load_locked(path);
    if (error != 0) return error;
    const MemPtr<RunRecord> record = mem_make<RunRecord>();
    const MemPtr<char[]> bytes(static_cast<char*>(mem_zalloc(HISTORY_FILE_MAX)));
    if (record == nullptr || bytes == nullptr) return ENOMEM;
    FileBytes old;
    error = file_load_locked(path, &old);
    if (error != 0) return error;
    JsonText text(bytes.get(), HISTORY_FILE_MAX);
    const Answers answers = answers_copy();
    // Runs that stand before the damage are in the new file, too.
    if (document_make(&old, record.get(), answers, &text) != 0) set_aside(path, EINVAL);
    if (!text.whole()) return EFBIG;
    error = file_replace(path, text.View(), FILE_MODE);
    if (error == 0) answers_forget(answers);
    return error;
}

// Brings the file up to date. 0, or an errno value: everything stays in memory.
static int save() {
    char path[PATH_SIZE];
    file_path(path);
    if (http_client_make_data_dir(WORKING_DIR) != 0) return ENOENT;
    const MutexLock writer(s_file_lock);
    const int error = save_locked(path);
    if (error != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->history write fail [%s]", path,
                                strerror(error));
    }
    return error;
}

// A run that has ended is in the file then, and need not be in memory.
static void save_and_forget() {
    uint32_t ended = 0;
    {
        const MutexLock guard(s_lock);
        if (s_run != nullptr && !s_live) ended = s_run->number;
    }
    if (save() != 0) return;
    const MutexLock guard(s_lock);
    if (s_run != nullptr && s_run->number == ended) s_run.reset();
}

// --- the run

static int64_t wall_s() { return time(nullptr); }

static HistoryListener s_listener;  // set once, before other threads start

void history_listen(const HistoryListener& listener) { s_listener = listener; }

void history_begin(UpdateRunKind kind) {
    history_flush();  // the last run, where there was no room for it until now
    MemPtr<RunRecord> run = mem_make<RunRecord>();
    if (run == nullptr) return;
    char path[PATH_SIZE];
    file_path(path);
    {
        const MutexLock writer(s_file_lock);
        (void)load_locked(path);  // tried again with the next run; numbers begin at 1 then
    }
    run->kind = kind;
    run->begin_s = wall_s();
    {
        const MutexLock guard(s_lock);
        run->number = ++s_totals.last_number;
        s_run = std::move(run);
        s_live = true;
    }
    (void)save();  // a run that is cut short is known by this
}

// The run's own record, or null. Its thread alone writes it.
static RunRecord* live_run_locked() REQUIRES(s_lock) { return s_live ? s_run.get() : nullptr; }

static void totals_add_locked(const RunRecord& run) REQUIRES(s_lock) {
    const bool success = run_outcome_is_success(run_outcome(run));
    ++(success ? s_totals.succeeded : s_totals.failed)[run.kind];
    for (uint32_t i = 0; i < run.app_count; ++i) {
        s_totals.fetched_bytes += run.apps[i].fetched_bytes;
        s_totals.resumed_bytes += run.apps[i].resumed_bytes;
    }
    if (!success) return;
    s_totals.last_success_number = run.number;
    s_totals.last_success_kind = run.kind;
    s_totals.last_success_s = run.end_s;
}

// The record, with its end. The run's thread alone writes it, and it stays as long as the
// run is live.
static const RunRecord* run_close(UpdateStatus status) {
    const MutexLock guard(s_lock);
    RunRecord* run = live_run_locked();
    if (run == nullptr) return nullptr;
    run->end_s = wall_s();
    run->status = status;
    totals_add_locked(*run);
    return run;
}

void history_end(UpdateStatus status) {
    const RunRecord* run = run_close(status);
    if (run == nullptr) return;
    if (s_listener.run_ended != nullptr) s_listener.run_ended(*run);
    {
        const MutexLock guard(s_lock);
        s_live = false;
    }
    save_and_forget();
}

void history_server_begin(const UpdateServer& server) {
    const MutexLock guard(s_lock);
    RunRecord* run = live_run_locked();
    if (run == nullptr || run->server_count == RUN_SERVERS_MAX) return;
    RunServer& entry = run->servers[run->server_count++];
    record_text_set(entry.host, server.host);
    entry.port = static_cast<uint16_t>(server.port);
    entry.status = UPDATE_NOT_STARTED;
}

void history_server_end(UpdateStatus status, const Cause& cause) {
    const MutexLock guard(s_lock);
    RunRecord* run = live_run_locked();
    if (run == nullptr || run->server_count == 0) return;
    run->servers[run->server_count - 1].status = status;
    run->servers[run->server_count - 1].cause = cause;
}

static void app_put(RunApp* entry, const RunApp& app, uint32_t server) {
    *entry = app;
    entry->server = server;
    record_text_set(entry->name, app.name);
    record_text_set(entry->before, app.before);
    record_text_set(entry->offered, app.offered);
    record_text_set(entry->cause.host, app.cause.host);
    record_text_set(entry->cause.file, app.cause.file);
    record_text_set(entry->cause.text, app.cause.text);
}

void history_app_begin(const RunApp& app) {
    const MutexLock guard(s_lock);
    RunRecord* run = live_run_locked();
    if (run == nullptr || run->server_count == 0 || run->app_count == RUN_APPS_MAX) return;
    app_put(&run->apps[run->app_count++], app, run->server_count - 1);
}

void history_app_update(const RunApp& app) {
    const MutexLock guard(s_lock);
    RunRecord* run = live_run_locked();
    if (run == nullptr || run->app_count == 0) return;
    RunApp* entry = &run->apps[run->app_count - 1];
    app_put(entry, app, entry->server);
}

// --- answers

namespace {
// A name as it stands in the records.
struct RecordedName {
    explicit RecordedName(std::string_view app) { record_text_set(text, app); }
    char text[APP_NAME_SIZE];
};
}  // namespace

// The entry of that app; null when there is none.
static Answer* answer_find_locked(const RecordedName& app) REQUIRES(s_lock) {
    auto& entries = s_answers.entries;
    auto* found = std::find_if(std::begin(entries), std::end(entries), [&](const Answer& answer) {
        return answer.run != 0 && strcmp(app.text, answer.app) == 0;
    });
    return found == std::end(entries) ? nullptr : found;
}

// A free entry, else the one of the oldest run.
static Answer* answer_free_locked() REQUIRES(s_lock) {
    auto& entries = s_answers.entries;
    return std::min_element(std::begin(entries), std::end(entries),
                            [](const Answer& a, const Answer& b) { return a.run < b.run; });
}

void history_await_answer(std::string_view app) {
    const MutexLock guard(s_lock);
    const RunRecord* run = live_run_locked();
    if (run == nullptr) return;
    const RecordedName name(app);
    Answer* entry = answer_find_locked(name);
    if (entry == nullptr) entry = answer_free_locked();
    *entry = {};
    entry->run = run->number;
    (void)text_copy(entry->app, name.text);
}

void history_await_none(std::string_view app) {
    const MutexLock guard(s_lock);
    Answer* entry = answer_find_locked(RecordedName(app));
    if (entry != nullptr) *entry = {};
}

static void answer_note(std::string_view app, std::string_view version, int32_t code) {
    const MutexLock guard(s_lock);
    Answer* entry = answer_find_locked(RecordedName(app));
    if (entry == nullptr || entry->answered) return;
    record_text_set(entry->version, version);
    entry->code = code;
    entry->at_s = wall_s();
    entry->answered = true;
}

void history_answer(std::string_view app, std::string_view version, int32_t code) {
    if (code == HTTP_UPDATE_RESULT_UPDATING) return;  // it is still at it
    answer_note(app, version, code);
    if (code == HTTP_UPDATE_RESULT_SUCCESS || s_listener.app_failed == nullptr) return;
    char shown[APP_VERSION_SIZE];
    record_text_set(shown, version);
    s_listener.app_failed(RecordedName(app).text, shown, code);
}

void history_flush() {
    bool unsaved = false;
    {
        const MutexLock guard(s_lock);
        unsaved = (s_run != nullptr && !s_live) ||
                  std::any_of(std::begin(s_answers.entries), std::end(s_answers.entries),
                              [](const Answer& answer) { return answer.answered; });
    }
    if (unsaved) save_and_forget();
}

// --- asking

int history_read(HistoryTotals* totals, RunVisitFn visit, void* argument) {
    char path[PATH_SIZE];
    file_path(path);
    const MemPtr<RunRecord> record = mem_make<RunRecord>();
    if (record == nullptr) return ENOMEM;
    FileBytes file;
    int error = 0;
    {
        const MutexLock reader(s_file_lock);
        error = load_locked(path);
        if (error == 0) error = file_load_locked(path, &file);
    }
    if (totals != nullptr) *totals = totals_copy();
    const int damage = walk_runs(&file, record.get(), answers_copy(), nullptr, {visit, argument});
    return error != 0 ? error : damage;
}

RunOutcome history_outcome(const RunRecord& run) {
    const RunOutcome outcome = run_outcome(run);
    if (outcome != RunOutcome::Running) return outcome;
    const MutexLock guard(s_lock);
    const bool live = s_live && s_run != nullptr && s_run->number == run.number;
    return live ? RunOutcome::Running : RunOutcome::Interrupted;
}
