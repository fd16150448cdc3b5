// A request to the technical-support service: a report comes whole.
#include "config/server_list.h"
#include "frame/roof/commands.h"
#include "host/tech_support_msg/protocol.h"
#include "tests/fuzz/converse.h"

static tq_thread_master* s_loop;

static void Prepare() {
    s_loop = tq_thread_master_create();
    hu_serv_config_init();
    Require(http_client_tech_init(s_loop) == 0);
}

static void Try(std::string_view input) {
    const std::string answer = Converse(s_loop, tech_support_socket_path().c_str(), input);
    std::string_view rest = answer;
    const std::string_view line = Take(&rest, "\n");
    if (line.starts_with("complete ")) Require(line == "complete " + std::to_string(rest.size()));
}
