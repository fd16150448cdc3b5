// The report is printed server by server, as replies come in: an operator watches it.
// It works on copies of the registered apps, so that apps may come and go meanwhile.
#include "http/check_version.h"

#include <sys/prctl.h>

#include <algorithm>

#include "base/shown_text.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "config/server_list.h"
#include "frame/command_outcome.h"
#include "frame/log.h"
#include "http/command_thread.h"
#include "http/version_reply.h"
#include "registry/app_registry.h"

// Room for the heading and every app's name.
static constexpr size_t APPS_LINE_SIZE = 704;

namespace {
// What the rows of one app share.
struct CheckRow {
    char name[APP_NAME_SIZE];
    char version[32];
};
}  // namespace

static void output_check_apps(const AppSet& updated) {
    char line[APPS_LINE_SIZE];
    size_t length = 0;
    (void)text_appendf(line, sizeof(line), &length, "Business modules need to be updated:");
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry app;
        if (!app_set_contains(updated, slot) || reg_app_get(slot, &app) != 0) continue;
        (void)text_appendf(line, sizeof(line), &length, " %s,", ShownText(app.name).get());
    }
    line[length - 1] = '.';
    cli_printf("%s\n", line);
}

static int output_check_file(xmlNodePtr file, int position, void* argument) {
    (void)position;
    const auto* row = static_cast<const CheckRow*>(argument);
    if (row == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "output_check_file-->loop is empty");
        return -1;
    }
    if (row->name[0] == '\0') {
        http_client_debug_print(HTTPC_LOG_ERROR, "output_check_file-->loop arg is empty");
        return -1;
    }
    char file_name[256];
    xml_node_name_get(file, file_name, sizeof(file_name));
    char version[sizeof(row->version)];
    text_copy(version, text_view(row->version));
    if (version[0] == '\0') xml_child_content_get(file, "version", version, sizeof(version));
    cli_printf("%-15.15s %-20.20s %-25.25s\n", ShownText(row->name).get(), ShownText(version).get(),
               ShownText(file_name).get());
    return 0;
}

static void output_check_rows(xmlNodePtr root, const AppEntry& app) {
    xmlNodePtr element = xml_child_find_by_name(root, "app", app.name);
    if (element == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "output_check-->get app_xml [%s] fail ", app.name);
        return;
    }
    http_client_debug_print(HTTPC_LOG_INFO, "output_check-->get app_xml [%s] ", app.name);
    CheckRow row{};
    text_copy(row.name, text_view(app.name));
    xml_child_content_get(element, "version", row.version, sizeof(row.version));
    http_client_debug_print(HTTPC_LOG_INFO, "output_check-->app [%s] version [%s] ", row.name,
                            row.version);
    xml_child_foreach(element, "file", &row, output_check_file);
}

void output_check(xmlDocPtr document, const AppSet& updated) {
    if (document == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "output_check-->xml_doc is empty");
        return;
    }
    if (app_set_is_empty(updated)) {
        command_status_print(UPDATE_LATEST);
        return;
    }
    output_check_apps(updated);
    xmlNodePtr root = xml_root_get(document);
    if (root == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "output_check-->xml_root is empty");
        return;
    }
    cli_printf("    app-name           version          filename\n");
    cli_printf("--------------- -------------------- ------------------------\n");
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry app;
        if (!app_set_contains(updated, slot) || reg_app_get(slot, &app) != 0) continue;
        output_check_rows(root, app);
    }
}

// Returns the outcome of the server's turn.
static int check_server(UpdateServer* server, bool second, Attempt* attempt) {
    AppSet registered{};
    reg_app_all(&registered);
    AppSet updated{};
    if (second) cli_printf("Check version from server: %s\r\n", server->host);
    UpdateStatus status = UPDATE_OK;
    const XmlDoc document =
        http_update_version_query(registered, &status, &updated, server, attempt);
    if (document != nullptr) {
        output_check(document.get(), updated);
    } else {
        command_status_print(status);
    }
    return command_outcome_of(status);
}

// Returns the command's outcome: a server that was not asked, or none to ask, fails it.
static int check_servers(bool second) {
    OwnedServerList servers;
    if (hu_serv_list_copy(&servers, second ? SERVERS_SECOND : SERVERS_FIRST) != 0) {
        cli_printf("%% Fail to alloc memory.");
        return CLI_OUTCOME_FAILED;
    }
    AppSet registered{};
    reg_app_all(&registered);
    if (app_set_is_empty(registered)) {
        http_client_debug_print(HTTPC_LOG_ERROR, "updated_mask empty");
        command_status_print(UPDATE_NO_APPS);
        return command_outcome_of(UPDATE_NO_APPS);
    }
    int outcome = hu_serv_list_empty(&servers) ? CLI_OUTCOME_FAILED : CLI_OUTCOME_DONE;
    Attempt attempt{.cancel = Cancel(ctrl_c_typed)};
    for (UpdateServer* server = hu_serv_list_first(&servers); server != nullptr;
         server = hu_serv_list_next(&servers, server)) {
        if (attempt.cancel.requested()) return CLI_OUTCOME_FAILED;
        outcome = std::max(outcome, check_server(server, second, &attempt));
    }
    return outcome;
}

static void* http_check_version_thread(void* argument) {
    auto* record = static_cast<cli_record*>(argument);
    (void)pthread_detach(pthread_self());
    (void)prctl(PR_SET_NAME, "http-check");
    command_outcome_set(record, check_servers(record->context != 0));
    mem_trim();
    cli_proc_thread_end(record, pthread_self());
    return nullptr;
}

void http_check_version_cmd(cli_record* record) {
    pthread_t thread{};
    if (command_thread_create(record, &thread, http_check_version_thread, record)) {
        cli_proc_thread_start(record, thread);
    }
}
