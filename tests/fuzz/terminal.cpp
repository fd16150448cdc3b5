// What the operator's program says to the command-line service, with all commands of the
// daemon behind it.
#include "config/server_list.h"
#include "frame/roof/commands.h"
#include "host/client_new/cli_protocol.h"
#include "tests/fuzz/converse.h"

static tq_thread_master* s_loop;

static void Prepare() {
    s_loop = tq_thread_master_create();
    Require(http_update_admin_cli(s_loop) == 0);
}

static void Try(std::string_view input) {
    hu_serv_config_init();
    const std::string answer = Converse(s_loop, client_new::cli_socket_path().c_str(), input);
    client_new::FrameReader reader(client_new::REPLY_PAYLOAD_MAX);
    reader.Add(answer);
    client_new::Frame frame{};
    using Result = client_new::FrameReader::Result;
    for (Result result{}; (result = reader.Next(&frame)) != Result::kIncomplete;) {
        Require(result == Result::kFrame && frame.type >= client_new::FRAME_OUTPUT);
    }
}
