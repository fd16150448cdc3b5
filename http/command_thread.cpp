// What the version check and the foreground update say in the same words: operators'
// scripts match them.
#include "http/command_thread.h"

#include <sys/prctl.h>

#include <cstring>

#include "buffer/memory.h"
#include "frame/command_outcome.h"

bool command_thread_create(cli_record* record, pthread_t* thread, void* (*body)(void*),
                           void* argument) {
    const int error = pthread_create(thread, nullptr, body, argument);
    if (error == 0) return true;
    cli_printf("%%notice:Failed to create a thread, errno [%d %s].\n", error, strerror(error));
    command_outcome_set(record, CLI_OUTCOME_FAILED);
    return false;
}

void command_show_run(cli_record* record, CommandShowFn show) {
    (void)pthread_detach(pthread_self());
    (void)prctl(PR_SET_NAME, "http-show");
    cli_proc_thread_start(record, pthread_self());
    show(record);
    mem_trim();
    cli_proc_thread_end(record, pthread_self());
}

void command_status_print(UpdateStatus status) {
    cli_printf("%s%s\n", update_status_prefix(status), update_status_str(status));
}

void command_status_end(cli_record* record, UpdateStatus status) {
    command_status_print(status);
    command_outcome_set(record, command_outcome_of(status));
}

int command_outcome_of(UpdateStatus status) {
    switch (status) {
        case UPDATE_OK:
        case UPDATE_LATEST:
            return CLI_OUTCOME_DONE;
        case UPDATE_NO_APPS:
        case UPDATE_NOT_REGISTERED:
            return CLI_OUTCOME_NOBODY;
        case UPDATE_RUNNING:
            return CLI_OUTCOME_BUSY;
        case UPDATE_CONNECT_FAIL:
        case UPDATE_SEND_FAIL:
        case UPDATE_RECEIVE_FAIL:
        case UPDATE_NO_MEMORY:
        case UPDATE_BAD_REPLY:
        case UPDATE_ALL_BUSY:
        case UPDATE_NOT_STARTED:
        case UPDATE_DOWNLOADING:
        case UPDATE_CANCELLED:
        case UPDATE_NO_STORAGE:
        case UPDATE_DOWNLOAD_FAIL:
        case UPDATE_NOTIFY_FAIL:
            break;
    }
    return CLI_OUTCOME_FAILED;
}
