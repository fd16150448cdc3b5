// What the version check and the foreground update say in the same words: operators'
// scripts match them.
#include "http/command_thread.h"

#include <cstring>

#include "frame/platform/client_new.h"

bool command_thread_create(pthread_t* thread, void* (*body)(void*), void* argument) {
    const int error = pthread_create(thread, nullptr, body, argument);
    if (error == 0) return true;
    cli_printf("%%notice:Failed to create a thread, errno [%d %s].\n", error, strerror(error));
    return false;
}

void command_status_print(UpdateStatus status) {
    cli_printf("%s%s\n", update_status_prefix(status), update_status_str(status));
}
