// A saved configuration: what was taken from it is written again as it will be read.
#include "config/config_commands.h"
#include "config/server_list.h"
#include "config/settings.h"
#include "frame/roof/commands.h"
#include "host/client_new/modes.h"
#include "host/client_new/running_config.h"
#include "tests/fuzz/fuzz.h"

static void Prepare() {
    Require(cli_client_init("", tq_thread_master_create()) == 0);
    http_client_cli_register();
}

static std::string Replay(std::string_view text) {
    hu_serv_config_init();
    update_mode = UPDATE_MODE_AUTO;
    update_time_default();
    src_ip_set(SRC_IP_NONE);
    WriteFile(client_new::startup_config_path(), text);
    client_new::modes_replay();
    return client_new::running_config_text({&cfg_http_update_tree});
}

static void Try(std::string_view input) {
    const std::string taken = Replay(input);
    Require(Replay(taken) == taken);
}
