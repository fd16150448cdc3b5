// The http check-version command: asks every configured server, one after the
// other, and prints which apps would be updated with which files. Nothing is
// downloaded, and an update run may be going on at the same time.
// Threads: the handler on the main loop, the report on the command's thread.
#pragma once

#include "frame/platform/client_new.h"
#include "http/xml.h"
#include "registry/app_set.h"

// Handler of the command: starts a thread that carries it out and ends it.
void http_check_version_cmd(cli_record* record);

// Prints the report of one server's reply on the command's terminal, for the
// apps of updated.
void output_check(xmlDocPtr document, const AppSet& updated);
