// Debug switches. The download bit lets no line through; it opens and closes the
// download library's own debugging.
#include "frame/debug.h"

#include "frame/log.h"
#include "frame/platform/http_util.h"

// record->context of a debug command, and actions of the global switch.
static constexpr uint32_t DEBUG_ACTION_ON = 1;
static constexpr uint32_t DEBUG_ACTION_OFF = 2;
static constexpr uint32_t DEBUG_ACTION_STATUS = 3;

static void debug_on(uint32_t bits) {
    DebugMask.fetch_or(bits, std::memory_order_relaxed);
    if ((bits & DEBUG_DOWNLOAD) != 0) http_open_debug();
}

static void debug_off(uint32_t bits) {
    DebugMask.fetch_and(~bits, std::memory_order_relaxed);
    if ((bits & DEBUG_DOWNLOAD) != 0) http_close_debug();
}

void http_client_debug_reset() { DebugMask.store(0, std::memory_order_relaxed); }

void http_client_debug_option(char letter) {
    switch (letter) {
        case 'a':
            return debug_on(DEBUG_ALL);
        case 'c':
            return debug_on(DEBUG_CONNECT);
        case 'd':
            return debug_on(DEBUG_DOWNLOAD);
        case 'e':
            return debug_on(DEBUG_ERROR);
        case 'i':
            return debug_on(DEBUG_INFO);
        case 'r':
            return debug_on(DEBUG_REGISTER);
        default:
            return;
    }
}

static void debug_apply(uint32_t action, uint32_t bits) {
    if (action == DEBUG_ACTION_ON) debug_on(bits);
    if (action == DEBUG_ACTION_OFF) debug_off(bits);
}

void http_client_debug_cmd(cli_record* record) { debug_apply(record->context, record->debug_bits); }

void http_client_debug_all(int action) {
    if (action == static_cast<int>(DEBUG_ACTION_STATUS)) return http_client_debug_status();
    debug_apply(static_cast<uint32_t>(action), DEBUG_ALL);
}

void http_client_debug_status() {
    struct Row {
        uint32_t bit;
        const char* line;
    };
    static constexpr Row rows[] = {
        {DEBUG_INFO, "  http-client info debugging is on"},
        {DEBUG_CONNECT, "  http-client connect debugging is on"},
        {DEBUG_REGISTER, "  http-client register debugging is on"},
        {DEBUG_ERROR, "  http-client error debugging is on"},
        {DEBUG_DOWNLOAD, "  http-client download debugging is on"},
    };
    const uint32_t mask = DebugMask.load(std::memory_order_relaxed);
    if (mask == 0) return;
    cli_printf("%s\r\n", "http-client debugging status:");
    for (const Row& row : rows) {
        if ((mask & row.bit) != 0) cli_printf("%s\r\n", row.line);
    }
}

// Without a keyword every bit is meant.
static constexpr cli_node s_end = eol_action(http_client_debug_cmd);
static constexpr cli_node s_all = set_cdb_var_action(CLI_SLOT_DEBUG, DEBUG_ALL, &s_end, Tno_alt);
static constexpr cli_node s_download = common_keyword_action(
    "download", "http-client debug download", &s_end, &s_all, CLI_SLOT_DEBUG, DEBUG_DOWNLOAD);
static constexpr cli_node s_register = common_keyword_action(
    "register", "http-client debug register", &s_end, &s_download, CLI_SLOT_DEBUG, DEBUG_REGISTER);
static constexpr cli_node s_connect = common_keyword_action(
    "connect", "http-client debug connect", &s_end, &s_register, CLI_SLOT_DEBUG, DEBUG_CONNECT);
static constexpr cli_node s_error = common_keyword_action(
    "error", "http-client debug error", &s_end, &s_connect, CLI_SLOT_DEBUG, DEBUG_ERROR);
static constexpr cli_node s_info = common_keyword_action("info", "http-client debug info", &s_end,
                                                         &s_error, CLI_SLOT_DEBUG, DEBUG_INFO);
static constexpr cli_node s_http_client =
    common_keyword_action("http-client", "debug http-client", &s_info, Tno_alt);
constexpr cli_node debug_http_client_tree = append_point_action(&s_http_client);
