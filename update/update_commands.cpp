// Update and show commands. The foreground run belongs to its command: its thread
// prints on the command's terminal and ends the command. The background run
// belongs to nobody and reports to the debug log.
#include "update/update_commands.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstdint>

#include "buffer/memory.h"
#include "config/server_list.h"
#include "frame/command_outcome.h"
#include "frame/log.h"
#include "frame/report.h"
#include "http/check_version.h"
#include "http/command_thread.h"
#include "registry/app_registry.h"
#include "resume/resume_timer.h"
#include "update/progress.h"
#include "update/status_json.h"
#include "update/status_reports.h"
#include "update/update_hints.h"
#include "update/update_reports.h"
#include "update/update_run.h"

static void status_log(UpdateStatus code) {
    http_client_debug_print(HTTPC_LOG_ERROR, "%s%s\n", update_status_prefix(code),
                            update_status_str(code));
}

// The apps that the command asks for. UPDATE_OK, or why there are none.
static UpdateStatus requested_apps(const cli_record* record, AppSet* set) {
    *set = {};
    if (record->value1 != 0) {  // the keyword "all"
        reg_app_all(set);
        return app_set_is_empty(*set) ? UPDATE_NO_APPS : UPDATE_OK;
    }
    hint_unregistered(record->string1);
    const bool refused = reg_app_parse_names(record->string1, set) < 0;
    return refused || app_set_is_empty(*set) ? UPDATE_NOT_REGISTERED : UPDATE_OK;
}

// --- foreground

namespace {
// What a foreground run comes to. Each server may know apps that the others don't, and a
// later one may have what an earlier one could not deliver: the last result of an app
// counts.
struct CommandTally {
    bool server_asked;
    bool server_failed;
    bool app_updated;
    UpdateStatus results[APP_REG_MAX];
};
}  // namespace

// Each command has a thread of its own, and so an outcome of its own.
static thread_local CommandTally t_outcome;

static void outcome_add(UpdateStatus status) {
    t_outcome.server_asked = true;
    // Busy with what this very run has given them: nothing is left to ask the next server.
    if (status == UPDATE_ALL_BUSY && t_outcome.app_updated) return;
    if (command_outcome_of(status) != CLI_OUTCOME_DONE) t_outcome.server_failed = true;
    if (status != UPDATE_OK) return;
    const UpdateProgress progress = update_progress_copy();
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        if (!app_set_contains(progress.app_mask, slot)) continue;
        t_outcome.results[slot] = progress.results[slot];
        if (progress.results[slot] == UPDATE_OK) t_outcome.app_updated = true;
    }
}

static int outcome_of_run() {
    const bool apps_done = std::ranges::all_of(
        t_outcome.results, [](UpdateStatus result) { return result == UPDATE_OK; });
    return apps_done && t_outcome.server_asked && !t_outcome.server_failed ? CLI_OUTCOME_DONE
                                                                           : CLI_OUTCOME_FAILED;
}

static void update_report_cli(const AppSet& /*requested*/, UpdateRunKind /*kind*/, const char* host,
                              UpdateStatus status) {
    cli_printf("Update module with server %s:\r\n", host);
    if (status != UPDATE_OK) {
        command_status_print(status);
    } else {
        update_result_output(UPDATE_RUN_COMMAND);
    }
    outcome_add(status);
}

static void update_foreground(cli_record* record) {
    const unsigned selector = record->context != 0 ? SERVERS_SECOND : SERVERS_FIRST;
    AppSet set;
    UpdateStatus status = requested_apps(record, &set);
    if (status == UPDATE_OK) {
        status = http_update_run(set, UPDATE_RUN_COMMAND, update_report_cli, selector);
    }
    if (status != UPDATE_OK) return command_status_end(record, status);
    command_outcome_set(record, outcome_of_run());
}

static void* http_update_thread(void* argument) {
    (void)pthread_detach(pthread_self());
    auto* record = static_cast<cli_record*>(argument);
    if (record == nullptr) return nullptr;
    (void)prctl(PR_SET_NAME, "http-update");
    cli_proc_thread_start(record, pthread_self());
    update_foreground(record);
    cli_proc_thread_end(record, pthread_self());
    return nullptr;
}

void http_update_cmd(cli_record* record) {
    pthread_t thread{};
    if (command_thread_create(record, &thread, http_update_thread, record)) {
        cli_proc_thread_start(record, thread);
    }
}

// --- background

static void update_report_background(const AppSet& /*requested*/, UpdateRunKind /*kind*/,
                                     const char* /*host*/, UpdateStatus status) {
    if (status != UPDATE_OK) {
        status_log(status);
    } else {
        update_result_output(UPDATE_RUN_BACKGROUND);
    }
}

static void* http_update_background_thread(void* argument) {
    (void)pthread_detach(pthread_self());
    const MemPtr<AppSet> set(static_cast<AppSet*>(argument));
    if (set == nullptr) return nullptr;
    (void)prctl(PR_SET_NAME, "http-update-background");  // the system keeps 15 characters
    const UpdateStatus status =
        http_update_run(*set, UPDATE_RUN_BACKGROUND, update_report_background, SERVERS_FIRST);
    if (status != UPDATE_OK) status_log(status);
    return nullptr;
}

void http_update_background_cmd(cli_record* record) {
    AppSet set;
    const UpdateStatus status = requested_apps(record, &set);
    if (status != UPDATE_OK) return command_status_end(record, status);
    // Another run may begin before the thread's own: it then ends with this status
    // in the log.
    if (update_state_is_running()) return command_status_end(record, UPDATE_RUNNING);
    MemPtr<AppSet> copy = mem_make<AppSet>();
    if (copy == nullptr) return command_status_end(record, UPDATE_NO_MEMORY);
    *copy = set;
    pthread_t thread{};
    if (!command_thread_create(record, &thread, http_update_background_thread, copy.get())) return;
    (void)copy.release();  // the thread's now
    cli_printf("Successfully into the background.\n");
}

// --- trees

static void progress_cmd(cli_record* /*record*/) { update_progress_print(REPORT_TERMINAL); }
static void test_cmd(cli_record* /*record*/) { update_test_print(REPORT_TERMINAL); }
static void version_cmd(cli_record* /*record*/) { app_version_print(); }
static void resume_cmd(cli_record* /*record*/) { resume_show(REPORT_TERMINAL); }

// The app list's help is an array that the registry keeps current; the parse
// nodes hold its address.
static const cli_node s_background_end = eol_action(http_update_background_cmd);
static const cli_node s_background_names =
    string_action(CLI_NODE_LINE, reg_app_help_text(), CLI_SLOT_STRING1, &s_background_end, Tno_alt);
static const cli_node s_background_all = common_keyword_action(
    "all", "update all files", &s_background_end, &s_background_names, CLI_SLOT_VALUE1, 1);
static const cli_node s_background_update = common_keyword_action(
    "background-update", "update background proc", &s_background_all, Tno_alt);

static const cli_node s_update_end = eol_action(http_update_cmd);
static const cli_node s_update_names =
    string_action(CLI_NODE_LINE, reg_app_help_text(), CLI_SLOT_STRING1, &s_update_end, Tno_alt);
static const cli_node s_update_all = common_keyword_action("all", "update all files", &s_update_end,
                                                           &s_update_names, CLI_SLOT_VALUE1, 1);
static const cli_node s_progress_end = eol_action(progress_cmd);
static const cli_node s_progress = common_keyword_action(
    "display-progress", "display update progress", &s_progress_end, &s_update_all);
static const cli_node s_update =
    common_keyword_action("update", "http update", &s_progress, &s_background_update);

static const cli_node s_check_end = eol_action(http_check_version_cmd);
static const cli_node s_check =
    common_keyword_action("check-version", "http check version", &s_check_end, &s_update);
static const cli_node s_http = common_keyword_action("http", "http cmd", &s_check, Tno_alt);
const cli_node exec_http_tree = append_point_action(&s_http);

static const cli_node s_resume_end = eol_action(resume_cmd);
static const cli_node s_resume =
    common_keyword_action("resume", "http auto update resume info", &s_resume_end, Tno_alt);
static const cli_node s_version_end = eol_action(version_cmd);
static const cli_node s_version =
    common_keyword_action("version", "http auto update info version", &s_version_end, &s_resume);
static const cli_node s_json_end = eol_action(show_json_cmd);
static const cli_node s_json = common_keyword_action(
    "json", "all of it as one JSON document, for programs", &s_json_end, Tno_alt);
static const cli_node s_history_run_end = eol_action(show_history_cmd);
static const cli_node s_history_run = common_number_action(
    "number of a run", 1, INT32_MAX, CLI_SLOT_VALUE1, &s_history_run_end, Tno_alt);
static const cli_node s_history_end = eol_action(show_history_cmd, &s_history_run);
static const cli_node s_history =
    common_keyword_action("history", "the last update runs", &s_history_end, &s_json);
static const cli_node s_status_end = eol_action(show_status_cmd);
static const cli_node s_status = common_keyword_action(
    "status", "what goes on, how it went and what comes next", &s_status_end, &s_history);
static const cli_node s_info =
    common_keyword_action("info", "http auto update info", &s_version, &s_status);
static const cli_node s_test_end = eol_action(test_cmd);
static const cli_node s_test =
    common_keyword_action("test", "http auto update test info", &s_test_end, &s_info);
static const cli_node s_http_update =
    common_keyword_action("http-update", "http auto update state", &s_test, Tno_alt);
const cli_node show_http_update_tree = append_point_action(&s_http_update);
