// The history of update runs: the last twenty, with their reasons, in a file that
// survives the daemon. What is told about past runs, to operators, to programs and in the
// system log, comes from here.
//
// The file is read when somebody asks and written when a run begins and ends, and when
// apps have answered since; nothing of it is kept in memory but the totals. It is believed
// only when nobody else can have written it, and one that is damaged is kept aside, as
// history.json.damaged.
//
// Threads: as each call says. Two locks: one of the file, held while it is read or
// written; and under it a leaf, for what is in memory.
#pragma once

#include <cstdint>
#include <string_view>

#include "config/server_list.h"
#include "update/history_document.h"
#include "update/run_record.h"

constexpr char HISTORY_FILE[] = "/oam/http_client/history.json";  // below the data prefix
constexpr uint32_t HISTORY_RUNS_MAX = 20;
constexpr size_t HISTORY_FILE_MAX = 64 * 1024;  // bytes; older runs go when it is full

// --- the run: on its thread, while it holds the running state. Without memory for it
// a run is not recorded.

// These two write the file, which may take as long as the disk does.
void history_begin(UpdateRunKind kind);
void history_end(UpdateStatus status);

void history_server_begin(const UpdateServer& server);
void history_server_end(UpdateStatus status, const Cause& cause);

// An app's turn with that server. Its fields are taken as they are, but for the server's
// index; update replaces the last one begun.
void history_app_begin(const RunApp& app);
void history_app_update(const RunApp& app);

// The app is being told about its files now: what it answers belongs to this run. Not
// when that failed.
void history_await_answer(std::string_view app);
void history_await_none(std::string_view app);

// --- the app's answer, on the main loop: noted in memory. One that nobody waits for is
// ignored.
void history_answer(std::string_view app, std::string_view version, int32_t code);

// Writes what has come since the last write, if anything has. Admin thread, from time to
// time.
void history_flush();

// --- listening

// run_ended: on the thread of the run, before it is free for another. app_failed: on the
// main loop, when an app has answered that it could not use what it got; its texts are
// clean.
struct HistoryListener {
    void (*run_ended)(const RunRecord& run);
    void (*app_failed)(const char* app, const char* version, int32_t code);
};

// Start-up, before other threads.
void history_listen(const HistoryListener& listener);

// --- asking. Any thread that may wait for the disk.

// The runs, the newest first, the one under way included. Each is a copy and lives as
// long as the call; visit runs under no lock. totals and visit may be null. 0, or an
// errno value (EINVAL: the file is damaged): what there is besides was visited all the
// same.
int history_read(HistoryTotals* totals, RunVisitFn visit, void* argument);

// How it went, as far as is known now.
[[nodiscard]] RunOutcome history_outcome(const RunRecord& run);
