// How an operator's command ended, for his scripts: the command-line library passes it on
// to the terminal, which makes it its exit status. What the command prints stays as it is.
// Threads: as cli_printf.
#pragma once

#include "frame/platform/client_new.h"

// outcome: CLI_OUTCOME_ of the open command; the last call counts. Nothing happens where the
// device's library takes no outcomes: every command then counts as done.
inline void command_outcome_set(cli_record* record, int outcome) {
    if (cli_command_outcome != nullptr) cli_command_outcome(record, outcome);
}
