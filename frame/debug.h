// The debug switches: every way of changing DebugMask.
// Threads: main thread.
#pragma once

#include "frame/platform/client_new.h"

// All off, as at start; the download library is left alone.
void http_client_debug_reset();

// Applies one letter of the start-up option: a, c, d, e, i or r; others are
// ignored.
void http_client_debug_option(char letter);

// "debug http-client ..." and its negated form.
extern const cli_node debug_http_client_tree;
void http_client_debug_cmd(cli_record* record);

// The platform's global switch: 1 all on, 2 all off, 3 print the status.
void http_client_debug_all(int action);

// Prints what is on to the operator's terminal; nothing when all is off.
void http_client_debug_status();
