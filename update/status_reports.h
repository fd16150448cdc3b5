// The operator's reports on how the updates stand and on past runs, for people: in words,
// with reasons, within 80 columns where names from outside are not longer.
// Threads: any that may wait for the disk. output: see frame/report.h.
#pragma once

#include <cstdint>

#include "frame/platform/client_new.h"
#include "update/status_facts.h"

void update_status_print(int output, const UpdateStatusFacts& facts);

// One line a run, the newest first.
void history_print(int output);
// One run in full. False when there is none of that number, which it says.
bool history_run_print(int output, uint32_t number);

// "show http-update status" and "show http-update history [NUMBER]": threads of their own
// print, because the disk may be slow.
void show_status_cmd(cli_record* record);
void show_history_cmd(cli_record* record);
