// What is remembered of one update run: the servers it asked, the apps it worked on, how
// each of them went, and what an app said later.
// Threads: any; works on its arguments only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "http/cause.h"
#include "http/status.h"
#include "registry/app_registry.h"
#include "update/run_kind.h"

constexpr size_t RUN_SERVERS_MAX = HU_SERV_MAX + 1;  // both lists
constexpr size_t RUN_APPS_MAX = RUN_SERVERS_MAX * APP_REG_MAX;

struct RunServer {
    char host[SERVER_HOST_SIZE];
    uint16_t port;
    UpdateStatus status;  // UPDATE_NOT_STARTED while it is being asked
    Cause cause;          // of a failure
};

// One app's turn with one server.
struct RunApp {
    uint32_t server;  // index of the one that named the app
    char name[APP_NAME_SIZE];
    char before[APP_VERSION_SIZE];
    char offered[APP_VERSION_SIZE];  // "" when the reply says none
    uint32_t files;
    uint32_t files_done;
    uint64_t fetched_bytes;
    uint64_t resumed_bytes;  // were on the device and were not fetched again
    UpdateStatus result;     // UPDATE_DOWNLOADING while it is being worked on
    Cause cause;             // of a failure
    bool answered;           // the app has reported since:
    int32_t answer_code;     // 0: installed
    char answer_version[APP_VERSION_SIZE];
    int64_t answer_s;
};

// 40 KiB: it belongs on the heap. Of the arrays the first so many count.
struct RunRecord {
    uint32_t number;  // from 1, one more each run of this device
    UpdateRunKind kind;
    int64_t begin_s;      // seconds since 1970
    int64_t end_s;        // 0: it has not ended, or nobody was there to note it
    UpdateStatus status;  // unless UPDATE_OK, the run itself could not do its work
    uint32_t server_count;
    uint32_t app_count;
    RunServer servers[RUN_SERVERS_MAX];
    RunApp apps[RUN_APPS_MAX];

    // Leaves the arrays' entries, which no longer count.
    void Clear();
};
static_assert(std::is_trivially_copyable_v<RunRecord>);

enum class RunOutcome : uint8_t {
    Running,      // or interrupted: who reads a record of before knows
    Updated,      // every app that had something newer got it
    Latest,       // nothing newer
    Nothing,      // no app could be asked about: all busy or without a version
    Partly,       // some of it failed
    Failed,       // all of it did
    Cancelled,    // by the operator
    Interrupted,  // the daemon ended meanwhile
};

// Of the record alone: one without an end counts as Running.
[[nodiscard]] RunOutcome run_outcome(const RunRecord& run);
[[nodiscard]] inline bool run_outcome_is_success(RunOutcome outcome) {
    return outcome == RunOutcome::Updated || outcome == RunOutcome::Latest;
}
// Stable words: "updated", "up-to-date", "partly failed"; "daily", "foreground", "retry",
// "background".
[[nodiscard]] const char* run_outcome_name(RunOutcome outcome);
[[nodiscard]] const char* run_kind_name(UpdateRunKind kind);

// Why a server's pass, or an app's turn, failed; "" when it did not. The cause where one
// is known, else the message of the status.
class FailureWords {
  public:
    explicit FailureWords(const RunServer& server);
    explicit FailureWords(const RunApp& app);
    [[nodiscard]] const char* get() const { return text_; }

  private:
    char text_[384] = "";
};

[[nodiscard]] bool run_server_failed(const RunServer& server);
[[nodiscard]] bool run_app_failed(const RunApp& app);

// The first failure of a run in one line, app names in front: "firewall: engine.bin from
// 10.1.1.1:80: HTTP 404"; "" when there was none.
class RunFailureWords {
  public:
    explicit RunFailureWords(const RunRecord& run);
    [[nodiscard]] const char* get() const { return text_; }

  private:
    char text_[448] = "";
};

// UTC as RFC 3339, "2026-11-23T07:00:00Z"; "" for 0.
class UtcText {
  public:
    explicit UtcText(int64_t seconds);
    [[nodiscard]] const char* get() const { return text_; }

  private:
    char text_[32] = "";
};
// Seconds since 1970; 0 when the text is none.
[[nodiscard]] int64_t utc_parse(std::string_view text);

// Fills a field of a record with a text from outside: cut between characters, "?" for
// what is no UTF-8 or drives a terminal, so that it can stand in a file and in a report.
void record_text_set(char* field, size_t size, std::string_view text);
template <size_t N>
void record_text_set(char (&field)[N], std::string_view text) {
    record_text_set(field, N, text);
}
