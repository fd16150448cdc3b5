// Command and technical-support registration. The trees and reports belong to
// the modules named in the includes.
#include "frame/roof/commands.h"

#include "base/working_dir.h"
#include "config/config_commands.h"
#include "frame/debug.h"
#include "frame/log.h"
#include "frame/platform/client_new.h"
#include "frame/platform/tech_support_msg.h"
#include "frame/report.h"
#include "resume/resume_timer.h"
#include "update/update_commands.h"
#include "update/update_reports.h"

// What has been reached so far. Main thread.
static bool s_terminal = false;
static bool s_support = false;

static bool terminal_connect(tq_thread_master* master) {
    s_terminal = cli_client_init("http-client-cli-admin", master) >= 0;
    return s_terminal;
}

// The settings must not wait for a terminal. The library keeps count of what was replayed.
static void saved_config_replay() {
    if (cli_config_replay == nullptr) return;
    (void)cli_add_command(CLI_MODE_CONFIG, &cfg_http_update_tree, "cfg http update append");
    (void)cli_config_replay();  // called again with the next try
}

static bool support_connect(tq_thread_master* master) {
    s_support =
        tech_reg_service_callback("oam#http_client", master, http_client_tech_callback) != -1;
    return s_support;
}

// The second file is the apps' side: collected when present, never written here.
static void dump_files_offer() {
    for (const char* name : {DUMP_FILE, ".http_reg_client_dump"}) {
        char path[PATH_SIZE];
        working_path(process_tmp_dir, name, path);
        (void)tech_module_reg_dump_file(path);
    }
}

int http_update_admin_cli(tq_thread_master* master) {
    if (!terminal_connect(master)) {
        http_client_debug_dump("[%s %d]<-->cli client init fail", __func__, __LINE__);
        return -1;
    }
    http_client_cli_register();
    if (http_client_tech_init(master) < 0) {
        http_client_debug_dump("[%s %d]<-->tech init fail", __func__, __LINE__);
        return -1;
    }
    return 0;
}

bool http_client_services_retry(tq_thread_master* master) {
    if (!s_terminal && terminal_connect(master)) {
        http_client_cli_register();
        http_client_debug_print(HTTPC_LOG_INFO, "cli client init success");
    }
    if (!s_terminal) saved_config_replay();
    if (!s_support && support_connect(master)) {
        dump_files_offer();
        http_client_debug_print(HTTPC_LOG_INFO, "tech init success");
    }
    return s_terminal && s_support;
}

void http_client_cli_register() {
    // A tree that is refused leaves the others; there is nothing else to do about it.
    (void)cli_add_command(CLI_MODE_CONFIG, &cfg_http_update_tree, "cfg http update append");
    (void)cli_add_command(CLI_MODE_EXEC, &exec_http_tree, "exec http append");
    (void)cli_add_command(CLI_MODE_SHOW, &show_http_update_tree, "exec show http append");
    (void)cli_add_command(CLI_MODE_DEBUG, &debug_http_client_tree, "exec debug http-client append");
    (void)sys_add_debug("http-client debug", 0, 0, 0, http_client_debug_all, 0);
    (void)cli_client_ready();
}

int http_client_tech_init(tq_thread_master* master) {
    if (master == nullptr) {
        http_client_debug_dump("tech support init fail, master null");
        return -1;
    }
    if (!support_connect(master)) {
        http_client_debug_dump("tech support init fail, reg callback failed");
        return -1;
    }
    dump_files_offer();
    return 0;
}

int http_client_tech_callback(int type, void* /*argument*/) {
    constexpr int output = REPORT_TECH_SUPPORT;
    switch (type) {
        case TECH_REPORT_TEST:
            report_printf(output, "\n-----------show http-update test-----------\n");
            update_test_print(output);
            break;
        case TECH_REPORT_PROGRESS:
            report_printf(output, "\n-----------http update display-progress-----------\n");
            update_progress_print(output);
            report_printf(output, "\n-----------show http-update version resume-----------\n");
            resume_show(output);
            break;
        default:
            return 0;
    }
    tech_module_msg_deal_completion();
    return 0;
}
