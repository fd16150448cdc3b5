// The update driver: one run asks every update server in turn which of a set of
// apps need updating and has their files fetched and handed over.
// Threads: any; at most one run exists at a time in the process.
#pragma once

#include "http/status.h"
#include "registry/app_set.h"
#include "update/run_kind.h"

// Called once a server, when its pass has ended.
using UpdateReportFn = void (*)(const AppSet& requested, UpdateRunKind kind, const char* host,
                                UpdateStatus status);

// Runs an update of the requested apps over the selected servers (SERVERS_FIRST,
// SERVERS_SECOND, SERVERS_BOTH). UPDATE_NO_APPS: the set is empty;
// UPDATE_RUNNING: another run is in progress; UPDATE_NO_MEMORY: no server was
// asked; else UPDATE_OK, the outcome of each server going to report.
[[nodiscard]] UpdateStatus http_update_run(const AppSet& requested, UpdateRunKind kind,
                                           UpdateReportFn report, unsigned selector);

// Writes the results of the server pass that has just ended, an app a line: to
// the operator's terminal for UPDATE_RUN_COMMAND, else to the debug log.
void update_result_output(UpdateRunKind kind);
