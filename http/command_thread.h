// What the operator's long commands have in common: a thread of their own, the line that
// says how it went, and the outcome that scripts see.
// Threads: the main loop, or a command's thread; output goes to its terminal.
#pragma once

#include <pthread.h>

#include "frame/platform/client_new.h"
#include "http/status.h"

// Starts a thread for the command. False when there is none: the operator is told, and the
// command has failed.
[[nodiscard]] bool command_thread_create(cli_record* record, pthread_t* thread,
                                         void* (*body)(void*), void* argument);

// The body of a thread that shows a report, and its command: for those that read the disk,
// which may be slow.
using CommandShowFn = void (*)(cli_record* record);
void command_show_run(cli_record* record, CommandShowFn show);
template <CommandShowFn show>
void command_show(cli_record* record) {
    const auto body = [](void* argument) -> void* {
        command_show_run(static_cast<cli_record*>(argument), show);
        return nullptr;
    };
    pthread_t thread{};
    if (command_thread_create(record, &thread, body, record)) {
        cli_proc_thread_start(record, thread);
    }
}

// Prints the report line of a code.
void command_status_print(UpdateStatus status);

// The same for the code with which the command ends: sets its outcome, too.
void command_status_end(cli_record* record, UpdateStatus status);

// CLI_OUTCOME_ of a whole run or of one server's pass.
[[nodiscard]] int command_outcome_of(UpdateStatus status);
