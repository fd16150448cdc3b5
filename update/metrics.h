// Figures for a monitoring system: a small file in the Prometheus text format, made anew
// after each run, for the directory that a node exporter reads. The counters come from the
// history, so they go on counting after a restart.
// Threads: as each call says.
#pragma once

#include "update/run_record.h"

// Names the file; there is none where it is unset or empty.
constexpr char METRICS_VARIABLE[] = "HTTP_CLIENT_METRICS_FILE";

// Start-up, before other threads.
void metrics_init();

// The run's thread. A file that can't be written costs a warning in the system log, once
// until it can be written again.
void metrics_run_ended(const RunRecord& run);
