// The update driver. Every configured server is asked in turn, also after an
// earlier one has updated every app: each may know apps that the others don't. An
// operator who cancels means the run, not the server that is just being asked.
#include "update/update_run.h"

#include "base/shown_text.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "config/server_list.h"
#include "frame/log.h"
#include "frame/loop.h"
#include "frame/platform/client_new.h"
#include "http/version_reply.h"
#include "http/xml.h"
#include "registry/app_registry.h"
#include "resume/resume_file.h"
#include "update/app_download.h"
#include "update/history.h"
#include "update/progress.h"

// One server's turn.
static UpdateStatus server_pass(const AppSet& requested, UpdateRunKind kind, UpdateServer* server,
                                Attempt* attempt) {
    UpdateStatus status = UPDATE_OK;
    AppSet updated{};
    const XmlDoc document(http_update_version_query(requested, &status, &updated, server, attempt));
    if (!document) return status;
    if (app_set_is_empty(updated)) return UPDATE_LATEST;
    update_progress_set_mask(updated);
    return apps_down(document.get(), updated, kind, attempt);
}

// The same, recorded.
static UpdateStatus server_turn(const AppSet& requested, UpdateRunKind kind, UpdateServer* server,
                                Attempt* attempt) {
    history_server_begin(*server);
    const UpdateStatus status = server_pass(requested, kind, server, attempt);
    history_server_end(status, attempt->cause);
    return status;
}

static UpdateStatus servers_ask(const AppSet& requested, UpdateRunKind kind, UpdateReportFn report,
                                unsigned selector) {
    OwnedServerList servers;
    if (hu_serv_list_copy(&servers, selector) != 0) return UPDATE_NO_MEMORY;
    Attempt attempt;
    if (kind == UPDATE_RUN_COMMAND) attempt.cancel = Cancel(ctrl_c_typed);
    for (UpdateServer* server = hu_serv_list_first(&servers);
         server != nullptr && !attempt.cancel.requested();
         server = hu_serv_list_next(&servers, server)) {
        http_client_debug_print(HTTPC_LOG_INFO, "update url: %s:%d%s", server->host,
                                static_cast<int>(server->port), server->uri);
        update_progress_reset(kind);
        report(requested, kind, server->host, server_turn(requested, kind, server, &attempt));
    }
    return UPDATE_OK;
}

UpdateStatus http_update_run(const AppSet& requested, UpdateRunKind kind, UpdateReportFn report,
                             unsigned selector) {
    if (app_set_is_empty(requested)) return UPDATE_NO_APPS;
    if (!update_state_claim()) return UPDATE_RUNNING;
    const LoopRunWatch watch;
    history_begin(kind);
    const UpdateStatus status =
        resume_settle() ? servers_ask(requested, kind, report, selector) : UPDATE_NO_MEMORY;
    history_end(status);
    mem_trim();
    update_state_release();
    return status;
}

void update_result_output(UpdateRunKind kind) {
    const bool on_terminal = kind == UPDATE_RUN_COMMAND;
    const UpdateProgress progress = update_progress_copy();
    char done[704] = {};  // names of the apps that were updated
    size_t length = 0;
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (reg_app_get(slot, &entry) != 0 || !app_set_contains(progress.app_mask, slot)) continue;
        const UpdateStatus result = progress.results[slot];
        if (result == UPDATE_OK) {
            (void)text_appendf(done, sizeof(done), &length, "%s, ", ShownText(entry.name).get());
        } else if (on_terminal) {
            cli_printf("%s: %s\n", ShownText(entry.name).get(), update_status_str(result));
        } else {
            http_client_debug_print(HTTPC_LOG_INFO, "%s: %s", entry.name,
                                    update_status_str(result));
        }
    }
    if (length > 0) {
        length -= 2;  // the last ", "
        (void)text_appendf(done, sizeof(done), &length, ": download and notify successfully.");
    }
    if (on_terminal && length > 0) {
        cli_printf("%s\n", done);
    } else {
        http_client_debug_print(HTTPC_LOG_INFO, "%s", done);
    }
}
