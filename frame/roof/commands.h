// Registration with the platform's command-line and technical-support services.
// Threads: registration on the main thread, at start or later; the callbacks run on the
// main loop.
#pragma once

#include "frame/platform/tq_thread.h"

// Connects to both services. 0, or -1: operator commands and technical support (first
// step failed) or the latter are still missing.
int http_update_admin_cli(tq_thread_master* master);

// Connects to what is still missing. True when both are there.
bool http_client_services_retry(tq_thread_master* master);

void http_client_cli_register();
[[nodiscard]] int http_client_tech_init(tq_thread_master* master);

// Reports that technical support may ask for.
constexpr int TECH_REPORT_TEST = 0;
constexpr int TECH_REPORT_PROGRESS = 1;

// Writes a report; returns 0.
int http_client_tech_callback(int type, void* argument);
