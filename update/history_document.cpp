// The writer and the reader of the history. The reader takes the document as a stream of
// events into one record at a time: a file that somebody has spoilt costs no more memory
// than a good one. Its recursion is RapidJSON's own stack, and ends at a fixed depth.
#include "update/history_document.h"

#include <rapidjson/reader.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <iterator>

#include "base/text.h"

// --- writing

void JsonWriter::Time(int64_t seconds) {
    if (seconds == 0) {
        Null();
    } else {
        Text(UtcText(seconds).get());
    }
}

void totals_write(const HistoryTotals& totals, JsonWriter* writer) {
    writer->BeginObject();
    writer->Member("last_number", totals.last_number);
    for (const UpdateRunKind kind : UPDATE_RUN_ALL_KINDS) {
        writer->Key(run_kind_name(kind));
        writer->BeginObject();
        writer->Member("succeeded", static_cast<int64_t>(totals.succeeded[kind]));
        writer->Member("failed", static_cast<int64_t>(totals.failed[kind]));
        writer->EndObject();
    }
    writer->Member("fetched_bytes", static_cast<int64_t>(totals.fetched_bytes));
    writer->Member("resumed_bytes", static_cast<int64_t>(totals.resumed_bytes));
    if (totals.last_success_number != 0) {
        writer->Key("last_success");
        writer->BeginObject();
        writer->Member("number", totals.last_success_number);
        writer->Member("kind", run_kind_name(totals.last_success_kind));
        writer->MemberTime("end", totals.last_success_s);
        writer->EndObject();
    }
    writer->EndObject();
}

void cause_write(const Cause& cause, JsonWriter* writer) {
    writer->BeginObject();
    writer->Member("phase", cause_phase_name(cause.phase));
    writer->Member("reason", cause_reason_name(cause.reason));
    writer->Member("number", cause.number);
    writer->Member("host", cause.host);
    writer->Member("port", cause.port);
    writer->MemberFlag("redirected", cause.redirected);
    writer->Member("file", cause.file);
    writer->Member("text", cause.text);
    writer->EndObject();
}

static void failure_write(const Cause& cause, const char* message, JsonWriter* writer) {
    if (*message == '\0') return;
    writer->Member("message", message);
    if (cause.reason == CauseReason::None) return;
    writer->Key("cause");
    cause_write(cause, writer);
}

static void server_write(const RunServer& server, JsonWriter* writer) {
    writer->BeginObject();
    writer->Member("host", server.host);
    writer->Member("port", server.port);
    writer->Member("status", server.status);
    failure_write(server.cause, FailureWords(server).get(), writer);
    writer->EndObject();
}

static void app_write(const RunApp& app, JsonWriter* writer) {
    writer->BeginObject();
    writer->Member("name", app.name);
    writer->Member("server", app.server);
    writer->Member("before", app.before);
    writer->Member("offered", app.offered);
    writer->Member("files", app.files);
    writer->Member("files_done", app.files_done);
    writer->Member("fetched_bytes", static_cast<int64_t>(app.fetched_bytes));
    writer->Member("resumed_bytes", static_cast<int64_t>(app.resumed_bytes));
    writer->Member("result", app.result);
    failure_write(app.cause, FailureWords(app).get(), writer);
    if (app.answered) {
        writer->Key("answer");
        writer->BeginObject();
        writer->Member("code", app.answer_code);
        writer->Member("version", app.answer_version);
        writer->MemberTime("time", app.answer_s);
        writer->EndObject();
    }
    writer->EndObject();
}

void run_write(const RunRecord& run, RunOutcome outcome, JsonWriter* writer) {
    writer->BeginObject();
    writer->Member("number", run.number);
    writer->Member("kind", run_kind_name(run.kind));
    writer->Member("outcome", run_outcome_name(outcome));
    writer->MemberTime("begin", run.begin_s);
    writer->MemberTime("end", run.end_s);
    writer->Member("status", run.status);
    writer->Key("servers");
    writer->BeginArray();
    for (uint32_t i = 0; i < run.server_count; ++i) server_write(run.servers[i], writer);
    writer->EndArray();
    writer->Key("apps");
    writer->BeginArray();
    for (uint32_t i = 0; i < run.app_count; ++i) app_write(run.apps[i], writer);
    writer->EndArray();
    writer->EndObject();
}

// --- reading

namespace {

// Where in the document an object or array stands.
enum class Place {
    Document,
    Totals,
    Kind,
    LastSuccess,
    Runs,
    Run,
    Servers,
    Server,
    Apps,
    App,
    Cause,
    Answer,
    Unknown,  // of a later version, perhaps
};

struct Inner {
    std::string_view key;
    Place outer;
    Place inner;
};

constexpr Inner INNERS[] = {
    {"totals", Place::Document, Place::Totals},
    {"runs", Place::Document, Place::Runs},
    {"last_success", Place::Totals, Place::LastSuccess},
    {"servers", Place::Run, Place::Servers},
    {"apps", Place::Run, Place::Apps},
    {"cause", Place::Server, Place::Cause},
    {"cause", Place::App, Place::Cause},
    {"answer", Place::App, Place::Answer},
};

// A value; of a number text is empty, of a text number is 0.
struct Value {
    int64_t number = 0;
    std::string_view text;
};

template <typename Number>
void take(const Value& value, Number* field) {
    *field = static_cast<Number>(value.number);
}

// Whatever stands in the file, what comes out is a status.
void take(const Value& value, UpdateStatus* field) {
    const bool known = value.number >= 0 && value.number <= UPDATE_NOTIFY_FAIL;
    *field = known ? static_cast<UpdateStatus>(value.number) : UPDATE_DOWNLOAD_FAIL;
}

template <size_t N>
void take(const Value& value, char (*field)[N]) {
    record_text_set(*field, value.text);
}

UpdateRunKind kind_of(std::string_view name) {
    const auto* found =
        std::find_if(std::begin(UPDATE_RUN_ALL_KINDS), std::end(UPDATE_RUN_ALL_KINDS),
                     [&](UpdateRunKind kind) { return name == run_kind_name(kind); });
    return found == std::end(UPDATE_RUN_ALL_KINDS) ? UPDATE_RUN_DAILY : *found;
}

// RapidJSON's events. Each returns false to end the reading.
class Reader {
  public:
    Reader(HistoryTotals* totals, RunRecord* record, RunVisitFn visit, void* argument)
        : totals_(totals), run_(record), visit_(visit), argument_(argument) {}

    [[nodiscard]] bool enough() const { return enough_; }
    [[nodiscard]] bool ours() const { return format_ == HISTORY_FORMAT; }

    bool Null() { return Take({}); }
    bool Bool(bool flag) { return Take({flag ? 1 : 0, {}}); }
    bool Int(int number) { return Take({number, {}}); }
    bool Uint(unsigned number) { return Take({number, {}}); }
    bool Int64(int64_t number) { return Take({number, {}}); }
    bool Uint64(uint64_t) { return false; }  // beyond all that is written
    bool Double(double) { return false; }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return false; }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        return Take({0, {text, length}});
    }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        key_ = {text, length};  // the document's bytes: parsed in place
        return true;
    }
    bool StartObject() { return Enter(); }
    bool StartArray() { return Enter(); }
    bool EndArray(rapidjson::SizeType) { return Leave(); }
    bool EndObject(rapidjson::SizeType) { return Leave(); }

  private:
    static constexpr size_t DEPTH = 8;

    [[nodiscard]] Place place() const { return places_[depth_ - 1]; }
    [[nodiscard]] RunServer& server() { return run_->servers[run_->server_count - 1]; }
    [[nodiscard]] RunApp& app() { return run_->apps[run_->app_count - 1]; }

    [[nodiscard]] Place PlaceInside() {
        switch (place()) {
            case Place::Runs:
                return Place::Run;
            case Place::Servers:
                return Place::Server;
            case Place::Apps:
                return Place::App;
            default:
                break;
        }
        const auto* found = std::find_if(std::begin(INNERS), std::end(INNERS), [&](const Inner& i) {
            return i.outer == place() && i.key == key_;
        });
        if (found != std::end(INNERS)) return found->inner;
        return place() == Place::Totals ? Place::Kind : Place::Unknown;
    }

    bool Enter() {
        if (depth_ == DEPTH) return false;
        const Place next = depth_ == 0 ? Place::Document : PlaceInside();
        const Place outer = depth_ == 0 ? Place::Document : place();
        places_[depth_++] = next;
        if (next == Place::Run) run_->Clear();
        if (next == Place::Server) {
            if (run_->server_count == RUN_SERVERS_MAX) return false;
            run_->servers[run_->server_count++] = {};
        }
        if (next == Place::App) {
            if (run_->app_count == RUN_APPS_MAX) return false;
            run_->apps[run_->app_count++] = {};
        }
        if (next == Place::Kind) kind_ = kind_of(key_);
        if (next == Place::Cause) cause_ = outer == Place::App ? &app().cause : &server().cause;
        if (next == Place::Answer) app().answered = true;
        return true;
    }

    bool Leave() {
        const Place left = places_[--depth_];
        if (left != Place::Run || visit_ == nullptr) return true;
        if (!ours()) return false;
        enough_ = !visit_(*run_, argument_);
        return !enough_;
    }

    bool Take(const Value& value) {
        if (depth_ == 0) return false;
        switch (place()) {
            case Place::Document:
                if (key_ == "format") format_ = value.number;
                return true;
            case Place::Totals:
                return TakeTotals(value);
            case Place::Kind:
                if (key_ == "succeeded") take(value, &totals_->succeeded[kind_]);
                if (key_ == "failed") take(value, &totals_->failed[kind_]);
                return true;
            case Place::LastSuccess:
                if (key_ == "number") take(value, &totals_->last_success_number);
                if (key_ == "kind") totals_->last_success_kind = kind_of(value.text);
                if (key_ == "end") totals_->last_success_s = utc_parse(value.text);
                return true;
            case Place::Run:
                return TakeRun(value);
            case Place::Server:
                return TakeServer(value);
            case Place::App:
                return TakeApp(value);
            case Place::Cause:
                return TakeCause(value);
            case Place::Answer:
                if (key_ == "code") take(value, &app().answer_code);
                if (key_ == "version") take(value, &app().answer_version);
                if (key_ == "time") app().answer_s = utc_parse(value.text);
                return true;
            case Place::Runs:
            case Place::Servers:
            case Place::Apps:
                return false;  // they hold objects
            case Place::Unknown:
                return true;
        }
        return true;
    }

    bool TakeTotals(const Value& value) {
        if (key_ == "last_number") take(value, &totals_->last_number);
        if (key_ == "fetched_bytes") take(value, &totals_->fetched_bytes);
        if (key_ == "resumed_bytes") take(value, &totals_->resumed_bytes);
        return true;
    }

    bool TakeRun(const Value& value) {
        if (key_ == "number") take(value, &run_->number);
        if (key_ == "kind") run_->kind = kind_of(value.text);
        if (key_ == "begin") run_->begin_s = utc_parse(value.text);
        if (key_ == "end") run_->end_s = utc_parse(value.text);
        if (key_ == "status") take(value, &run_->status);
        return true;
    }

    bool TakeServer(const Value& value) {
        if (key_ == "host") take(value, &server().host);
        if (key_ == "port") take(value, &server().port);
        if (key_ == "status") take(value, &server().status);
        return true;
    }

    bool TakeApp(const Value& value) {
        if (key_ == "name") take(value, &app().name);
        if (key_ == "server") app().server = static_cast<uint32_t>(value.number) % RUN_SERVERS_MAX;
        if (key_ == "before") take(value, &app().before);
        if (key_ == "offered") take(value, &app().offered);
        if (key_ == "files") take(value, &app().files);
        if (key_ == "files_done") take(value, &app().files_done);
        if (key_ == "fetched_bytes") take(value, &app().fetched_bytes);
        if (key_ == "resumed_bytes") take(value, &app().resumed_bytes);
        if (key_ == "result") take(value, &app().result);
        return true;
    }

    bool TakeCause(const Value& value) {
        if (key_ == "phase") cause_->phase = cause_phase_of(value.text);
        if (key_ == "reason") cause_->reason = cause_reason_of(value.text);
        if (key_ == "number") take(value, &cause_->number);
        if (key_ == "host") take(value, &cause_->host);
        if (key_ == "port") take(value, &cause_->port);
        if (key_ == "redirected") cause_->redirected = value.number != 0;
        if (key_ == "file") take(value, &cause_->file);
        if (key_ == "text") take(value, &cause_->text);
        return true;
    }

    HistoryTotals* totals_;
    RunRecord* run_;
    RunVisitFn visit_;
    void* argument_;
    Place places_[DEPTH] = {};
    size_t depth_ = 0;
    std::string_view key_;
    UpdateRunKind kind_ = UPDATE_RUN_DAILY;
    Cause* cause_ = nullptr;
    int64_t format_ = 0;
    bool enough_ = false;
};

}  // namespace

int history_document_read(char* document, HistoryTotals* totals, RunRecord* record,
                          RunVisitFn visit, void* argument) {
    alignas(max_align_t) char memory[2048];
    rapidjson::MemoryPoolAllocator<> pool(memory, sizeof(memory));
    constexpr size_t stack_bytes = 256;  // states of a document as deep as the reader lets it
    rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, decltype(pool)> parser(
        &pool, stack_bytes);
    rapidjson::InsituStringStream stream(document);
    HistoryTotals found{};
    Reader reader(&found, record, visit, argument);
    constexpr unsigned flags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag |
                               rapidjson::kParseValidateEncodingFlag;
    const bool parsed = !parser.Parse<flags>(stream, reader).IsError();
    if (!reader.ours()) return EINVAL;
    if (totals != nullptr) *totals = found;
    return parsed || reader.enough() ? 0 : EINVAL;
}
