// Command-line service for an ordinary Linux machine.
//
// The daemon's main loop serves operators' programs (http_client_cli) on a local
// socket: service.cpp moves frames, modes.cpp says what can be typed, match.cpp
// understands it, command.cpp runs it and knows whose output is whose, session.cpp
// keeps what a terminal has not read yet, running_config.cpp saves and replays the
// configuration. A terminal can neither hold the main loop nor make the daemon
// grow without bound, whatever it does.
#include "frame/platform/client_new.h"

#include "host/client_new/modes.h"
#include "host/client_new/service.h"

// The path says whose service it is; the client's name is for platforms that serve
// several daemons.
int cli_client_init(const char*, tq_thread_master* master) {
    if (master == nullptr) return -1;
    return client_new::service_listen(master, client_new::cli_socket_path()) ? 0 : -1;
}

// Trees are known by their nodes here, not by name.
int cli_add_command(int mode, const cli_node* root, const char*) {
    return client_new::modes_add_tree(mode, root) ? 0 : -1;
}

int cli_client_ready(void) {
    client_new::modes_build();
    client_new::modes_replay();
    return client_new::service_start() ? 0 : -1;
}

int sys_add_debug(const char*, int, int, int, void (*callback)(int action), int) {
    if (callback == nullptr) return -1;
    client_new::modes_add_debug_switch(callback);
    return 0;
}
