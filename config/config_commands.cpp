// One handler a command. It carries the command out, its "no" form too, and on
// request writes its part of the running configuration instead: nothing for a
// setting at its default.

#include "config/config_commands.h"

#include <cstdint>
#include <string_view>

#include "base/shown_text.h"
#include "base/text.h"
#include "config/server_list.h"
#include "config/settings.h"
#include "frame/command_outcome.h"
#include "frame/ipv4_text.h"
#include "frame/log.h"

namespace {

constexpr int WRITE_LINE = 1;  // flag of c2p_printf
constexpr size_t HOST_SHOWN_SIZE = 256;

bool config_asked(const cli_record* record) {
    return (record->output_flags & (CLI_OUTPUT_RUNNING | CLI_OUTPUT_STARTUP)) != 0;
}

void mode_handle(cli_record* record) {
    if (!config_asked(record)) {
        update_mode = record->no_flag != 0 ? UPDATE_MODE_AUTO : UPDATE_MODE_MANUAL;
    } else if (update_mode == UPDATE_MODE_MANUAL) {
        c2p_printf(WRITE_LINE, record, "%s manual", record->words);
    }
}

void hint_no_address(const char* text) {
    char hint[320];
    size_t length = 0;
    if (cli_hint == nullptr) return;
    (void)text_appendf(hint, sizeof(hint), &length,
                       "%s can't be an address: four numbers of 0 to 255.\n",
                       ShownText<HOST_SHOWN_SIZE>(text).get());
    cli_hint(hint);
}

// An address with a slip in it would be looked up as a name, in vain and without a word.
bool is_failed_address(std::string_view host) {
    uint32_t address = 0;
    return host.find_first_not_of("0123456789.") == host.npos &&
           ipv4_text_to_addr(host.data(), &address) == 0;
}

void source_ip_handle(cli_record* record) {
    if (config_asked(record)) {
        const SourceAddress source = src_ip_get();
        if (source.is_set()) {
            c2p_printf(WRITE_LINE, record, "%s %s", record->words, source.update_src_ip);
        }
        return;
    }
    if (record->no_flag != 0) {
        src_ip_set(SRC_IP_NONE);
        return;
    }
    uint32_t address = 0;
    if (ipv4_text_to_addr(record->string1, &address) == 0) {
        cli_printf_cdb(record, "%% Invalid source ip address. \n");
        hint_no_address(record->string1);
        return;
    }
    src_ip_set(record->string1);
}

void server_lines_write(const hu_serv_list& list, void* argument) {
    auto* record = static_cast<cli_record*>(argument);
    http_client_debug_print(HTTPC_LOG_INFO, "Configured server: %d", static_cast<int>(list.count));
    for (const UpdateServer* server = hu_serv_list_first(&list); server != nullptr;
         server = hu_serv_list_next(&list, server)) {
        const int port = static_cast<int>(server->port);
        if (std::string_view(server->uri) == HU_SERV_DEFAULT_URI) {
            c2p_printf(WRITE_LINE, record, "%s %s port %d", record->words, server->host, port);
        } else {
            c2p_printf(WRITE_LINE, record, "%s %s port %d uri %s", record->words, server->host,
                       port, server->uri);
        }
    }
}

void server_handle(cli_record* record) {
    if (config_asked(record)) {
        // The second list is not part of the running configuration.
        hu_serv_config_read_first(server_lines_write, record);
        return;
    }
    const auto change = record->no_flag != 0 ? hu_serv_config_del : hu_serv_config_add;
    const int result = change(record->string1, static_cast<uint32_t>(record->value1),
                              record->string2, record->context != 0);
    if (result == HU_SERV_OK) {
        if (record->no_flag == 0 && is_failed_address(record->string1)) {
            hint_no_address(record->string1);
        }
        return;
    }
    cli_printf("%% %s\r\n\r\n", hu_serv_errstr(result));
    command_outcome_set(record,
                        result == HU_SERV_NO_MEMORY ? CLI_OUTCOME_NO_MEMORY : CLI_OUTCOME_REFUSED);
}

void time_handle(cli_record* record) {
    if (!config_asked(record)) {
        if (record->no_flag != 0) {
            update_time_default();
        } else {
            update_time_set({record->value1, record->value2});
        }
        return;
    }
    const DailyTime time = update_time_get();
    const DailyTime usual = default_update_time_get();
    if (time.update_hour != usual.update_hour || time.update_minute != usual.update_minute) {
        c2p_printf(WRITE_LINE, record, "%s %02d:%02d", record->words, time.update_hour,
                   time.update_minute);
    }
}

// The tree, from its leaves: a node names the nodes after it by address.

constexpr cli_node time_end = eol_action(time_handle);
constexpr cli_node time_value =
    time_action("detect time(hh:mm)", CLI_SLOT_VALUE1, CLI_SLOT_VALUE2, &time_end, Tno_alt);
constexpr cli_node time_config = c2p_action(time_handle, &time_value, Tno_alt);
constexpr cli_node time_daily =
    common_keyword_action("daily", "auto detect daily", &time_config, Tno_alt);
constexpr cli_node time_no = noprefix_action(&time_end, &time_daily);
constexpr cli_node time_word = common_keyword_action("time", "http update time", &time_no, Tno_alt);

constexpr cli_node server_end = eol_action(server_handle);
constexpr cli_node server_port =
    common_number_action("default 80", 1, 65535, CLI_SLOT_VALUE1, &server_end, Tno_alt);
constexpr cli_node server_port_word =
    common_keyword_action("port", "server port", &server_port, &server_end);
constexpr cli_node server_host = string_action(CLI_NODE_STRING, "server ipv4(A.B.C.D) or hostname",
                                               CLI_SLOT_STRING1, &server_port_word, Tno_alt);
constexpr cli_node server_no_end = eol_action(server_handle, &server_host);
constexpr cli_node server_no = noprefix_action(&server_no_end, &server_host);
constexpr cli_node server_config = c2p_action(server_handle, &server_no, Tno_alt);
constexpr cli_node server_word =
    common_keyword_action("server", "http update server", &server_config, &time_word);

constexpr cli_node source_end = eol_action(source_ip_handle);
constexpr cli_node source_text =
    string_action(CLI_NODE_STRING, "server ipv4(A.B.C.D)", CLI_SLOT_STRING1, &source_end, Tno_alt);
constexpr cli_node source_no = noprefix_action(&source_end, &source_text);
constexpr cli_node source_config = c2p_action(source_ip_handle, &source_no, Tno_alt);
constexpr cli_node source_word =
    common_keyword_action("source_ip", "http update source", &source_config, &server_word);

constexpr cli_node mode_end = eol_action(mode_handle);
constexpr cli_node mode_manual =
    common_keyword_action("manual", "manual update files", &mode_end, Tno_alt);
constexpr cli_node mode_no = noprefix_action(&mode_end, &mode_manual);
constexpr cli_node mode_config = c2p_action(mode_handle, &mode_no, Tno_alt);
constexpr cli_node mode_word =
    common_keyword_action("mode", "http update mode", &mode_config, &source_word);

constexpr cli_node update_word =
    common_keyword_action("update", "config http update", &mode_word, Tno_alt);
constexpr cli_node http_word =
    common_keyword_action("http", "configure http", &update_word, Tno_alt);

}  // namespace

constinit const cli_node cfg_http_update_tree = append_point_action(&http_word);
