// Command-line service for an ordinary Linux machine.
//
// The daemon's main loop serves operators' programs (http_client_cli) on a local
// socket: service.cpp moves frames, modes.cpp says what can be typed, match.cpp
// understands it, command.cpp runs it and knows whose output is whose, session.cpp
// keeps what a terminal has not read yet, running_config.cpp asks for the present
// configuration, startup_config.cpp saves and replays it. A terminal can neither hold
// the main loop nor make the daemon grow without bound, whatever it does.
#include "frame/platform/client_new.h"

#include <unistd.h>

#include "host/client_new/command.h"
#include "host/client_new/modes.h"
#include "host/client_new/service.h"
#include "host/client_new/startup_config.h"

namespace {

// What fails once at start-up mostly works a moment later.
constexpr int REPLAYS_AT_ONCE = 3;
constexpr useconds_t REPLAY_PAUSE_US = 100000;
// Then once a minute, until it is given up.
constexpr long REPLAY_AGAIN_S = 60;
constexpr int REPLAYS_MAX = 10;

tq_thread_master* s_master = nullptr;
tq_thread* s_replay_task = nullptr;
int s_replays_failed = 0;

bool replay() {
    for (int left = REPLAYS_AT_ONCE; !client_new::modes_replay().empty(); usleep(REPLAY_PAUSE_US)) {
        if (--left > 0) continue;
        if (++s_replays_failed < REPLAYS_MAX) return false;
        client_new::startup_config_give_up();
        return true;
    }
    return true;
}

int replay_again(tq_thread*);

bool replay_arm() {
    if (s_replay_task == nullptr) {
        s_replay_task = tq_thread_add_timer_withname(s_master, replay_again, nullptr,
                                                     REPLAY_AGAIN_S, "cli-config");
    }
    return s_replay_task != nullptr;
}

int replay_again(tq_thread*) {
    s_replay_task = nullptr;
    if (!replay()) client_new::service_must("cli-config", replay_arm);
    return 0;
}

}  // namespace

// The path says whose service it is; the client's name is for platforms that serve
// several daemons.
int cli_client_init(const char*, tq_thread_master* master) {
    if (master == nullptr) return -1;
    s_master = master;
    return client_new::service_listen(master, client_new::cli_socket_path()) ? 0 : -1;
}

// Trees are known by their nodes here, not by name.
int cli_add_command(int mode, const cli_node* root, const char*) {
    return client_new::modes_add_tree(mode, root) ? 0 : -1;
}

int cli_client_ready(void) {
    client_new::modes_build();
    const bool unread = !replay();
    if (!client_new::service_start()) return -1;
    if (unread) client_new::service_must("cli-config", replay_arm);
    return 0;
}

int cli_config_replay(void) {
    if (s_master == nullptr) client_new::command_init(-1);
    return replay() ? CLI_CONFIG_READ : CLI_CONFIG_UNREAD;
}

int sys_add_debug(const char*, int, int, int, void (*callback)(int action), int) {
    if (callback == nullptr) return -1;
    client_new::modes_add_debug_switch(callback);
    return 0;
}
