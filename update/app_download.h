// Fetches, app by app, the files that a server's reply lists, hands them to the
// app with its update request, and records failed downloads for a resume run.
// Threads: the thread of the update run that holds the running state.
#pragma once

#include <libxml/tree.h>

#include "http/attempt.h"
#include "http/status.h"
#include "registry/app_set.h"
#include "update/run_kind.h"

// One server's pass over the apps of the set. UPDATE_BAD_REPLY when the document
// is no reply, else UPDATE_OK: the outcome of each app is in the results of the
// update progress. The pass ends early when the operator cancels it or memory is
// short.
[[nodiscard]] UpdateStatus apps_down(xmlDocPtr document, const AppSet& set, UpdateRunKind kind,
                                     Attempt* attempt = nullptr);
