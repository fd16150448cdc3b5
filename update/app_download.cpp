// App file download and notification.
//
// What is left on disk is decided in one place, apps_down_finish: a complete set
// is handed to the app; after a failure an operator's run deletes what it fetched,
// while a daily or resume run keeps it and records it in the resume list.
#include "update/app_download.h"

#include <cstring>

#include "base/text.h"
#include "frame/log.h"
#include "frame/paths.h"
#include "http/xml.h"
#include "registry/app_registry.h"
#include "registry/update_request.h"
#include "resume/resume_file.h"
#include "resume/resume_list.h"
#include "update/download.h"
#include "update/filename_list.h"
#include "update/history.h"
#include "update/progress.h"

namespace {

// One app's turn in a pass.
struct AppTurn {
    DownloadPass& pass;
    xmlNodePtr app;  // its element of the reply
    const AppEntry& entry;
    RunApp& record;  // for the history
};

// The files of one app's turn: their local paths.
struct AppFiles : OwnedFilenames {
    int32_t done = 0;  // completed so far; the file at this index is the one that failed
};

const char* last_component(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

// The reply can't be followed.
UpdateStatus bad_reply(const AppTurn& turn, const char* why) {
    cause_set_unusable(&turn.record.cause, CausePhase::Reply, why);
    return UPDATE_BAD_REPLY;
}

// The app's own save path, else the one that the reply gives.
void save_path_get(const AppEntry& entry, xmlNodePtr app, char (&save_path)[APP_SAVE_PATH_SIZE]) {
    if (entry.save_path[0] != '\0') {
        (void)text_copy(save_path, entry.save_path);
        return;
    }
    xml_child_content_get(app, "savepath", save_path, sizeof(save_path));
    http_client_debug_print(HTTPC_LOG_INFO, "filename_update-->before savepath [%s] ", save_path);
    str_trim(save_path);
}

// Puts the save path in front of a listed name. A name must come out as the last
// part of its path: with a slash in it ("../x"), or behind a save path that does
// not end in one, it would be written, or deleted, outside the save path.
UpdateStatus filename_prefix(const AppTurn& turn, const char* save_path, char* name) {
    if (name[0] == '\0') {
        http_client_debug_print(HTTPC_LOG_ERROR, "filename is empty");
        return bad_reply(turn, "a file without a name");
    }
    if (strlen(save_path) + strlen(name) > FILENAME_SIZE - 1) {
        http_client_debug_print(HTTPC_LOG_ERROR, "filename is too long");
        return bad_reply(turn, "a file name is too long");
    }
    char path[FILENAME_SIZE] = {};
    size_t length = 0;
    (void)text_appendf(path, sizeof(path), &length, "%s%s", save_path, name);
    if (strcmp(last_component(path), name) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->[%s] filexml empty", turn.entry.name,
                                last_component(path));
        return bad_reply(turn, "a file outside the save path");
    }
    memcpy(name, path, sizeof(path));
    return UPDATE_OK;
}

// Turns the listed names into local paths, in a directory that exists.
UpdateStatus filename_update(const AppTurn& turn, FilenameArray array, int32_t count) {
    if (array == nullptr || count == 0) return UPDATE_OK;
    char save_path[APP_SAVE_PATH_SIZE] = {};
    save_path_get(turn.entry, turn.app, save_path);
    if (http_client_make_path(save_path) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->savapath mkdir fail", save_path);
        return bad_reply(turn, save_path[0] == '\0' ? "no save path for the app"
                                                    : "the app's save path can't be made");
    }
    http_client_debug_print(HTTPC_LOG_INFO, "filename_update-->after savepath [%s] ", save_path);
    for (int32_t i = 0; i < count; ++i) {
        if (array[i] == nullptr) continue;
        const UpdateStatus status = filename_prefix(turn, save_path, array[i]);
        if (status != UPDATE_OK) return status;
    }
    return UPDATE_OK;
}

// The paths of this turn: the stored ones in a resume run, else those of the
// reply. On failure the result says what to record for the app.
UpdateStatus app_files_get(const AppTurn& turn, AppFiles* files) {
    const AppEntry& entry = turn.entry;
    if (turn.pass.kind == UPDATE_RUN_RESUME) {
        files->array = resume_get(entry.name, &files->count);
        return files->array == nullptr ? UPDATE_NO_MEMORY : UPDATE_OK;
    }
    if (filename_count(turn.app, &files->count, &files->array) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "parse filecnt failed");
        return bad_reply(turn, "the app's number of files");
    }
    const UpdateStatus status = filename_update(turn, files->array, files->count);
    if (status != UPDATE_OK) http_client_debug_print(HTTPC_LOG_ERROR, "parse file failed");
    return status;
}

UpdateStatus app_file_fetch(const AppTurn& turn, const char* path) {
    const char* app_name = turn.entry.name;
    const char* name = last_component(path);
    const xmlNodePtr file = xml_child_find_by_name(turn.app, "file", name);
    if (file == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->[%s] filexml empty", app_name, name);
        return bad_reply(turn, "a file of before is not listed any more");
    }
    http_client_debug_print(HTTPC_LOG_INFO, "apps_down_files-->[%s] find file_xml [%s]", app_name,
                            name);
    update_progress_begin_file(path);
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->begin to down", path);
    const UpdateStatus status = down_file_try_downpaths(&turn.pass, file, path);
    turn.record.fetched_bytes += turn.pass.fetched_bytes;
    turn.record.resumed_bytes += turn.pass.resumed_bytes;
    if (status != UPDATE_OK) turn.record.cause = turn.pass.cause;
    return status;
}

// The first files of the pass become the app's: nothing of the download library may be
// left on them. Its call is an optional one.
void files_release(const AppFiles& files) {
    if (http_download_file_release == nullptr) return;
    for (int32_t i = 0; i < files.done; ++i) http_download_file_release(files.array[i]);
}

// The resume file can't always be written. What is handed over all the same must not
// be deleted when it is read again.
void note_if_unsaved(const AppFiles& files) {
    if (!resume_is_saved()) resume_note_delivered(files.array, files.done);
}

// Sends the app its update request. False: it was not told.
bool app_tell(const AppTurn& turn, const AppFiles& files) {
    const char* name = turn.entry.name;
    history_await_answer(name);  // which may come before the call below returns
    if (reg_update_req(turn.app, name, files.array, files.done) >= 0) return true;
    history_await_none(name);
    return false;
}

// Every file is there: the app is told. The resume entry goes first, so that a
// crash in between can't make a resume run fetch what the app already has.
UpdateStatus finish_complete(const AppTurn& turn, const AppFiles& files) {
    const char* name = turn.entry.name;
    if (turn.pass.kind != UPDATE_RUN_RESUME) resume_free_app(name, files.array, files.done);
    resume_write();
    files_release(files);
    note_if_unsaved(files);
    if (app_tell(turn, files)) return UPDATE_OK;
    cause_set_unusable(&turn.record.cause, CausePhase::HandOver, "the app could not be told");
    filename_unlink(files.array, files.done);
    return UPDATE_NOTIFY_FAIL;
}

// A daily or resume run failed: what can be resumed is kept and recorded.
void finish_for_resume(const AppTurn& turn, const AppFiles& files, UpdateStatus result) {
    const AppEntry& entry = turn.entry;
    const bool daily = turn.pass.kind == UPDATE_RUN_DAILY;
    bool incremental = (entry.flags & APP_FLAG_INCREMENTAL) != 0 && files.done > 0;
    if (incremental) {
        http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->increme update", entry.name);
        files_release(files);
        incremental = app_tell(turn, files);
    }
    bool recorded = false;
    if (daily || resume_retry_count.load(std::memory_order_relaxed) > 0) {
        recorded = resume_add(entry.name, files.array, files.count, files.done, incremental) == 0;
        if (recorded && daily) {
            resume_retry_count.store(RESUME_RETRY_MAX, std::memory_order_relaxed);
        }
    }
    FilenameArray failed_file = files.array + files.done;
    if (!recorded) {
        filename_unlink(failed_file, 1);
        if (!incremental) filename_unlink(files.array, files.done);
    } else if (result == UPDATE_NO_STORAGE) {
        http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->del for no flash", entry.name);
        filename_unlink(failed_file, 1);
    }
    resume_write();
    if (incremental) note_if_unsaved(files);
}

// result is that of the last file. Returns the app's.
UpdateStatus apps_down_finish(const AppTurn& turn, const AppFiles& files, UpdateStatus result) {
    if (result == UPDATE_OK) return finish_complete(turn, files);
    if (run_is_by_operator(turn.pass.kind)) {
        resume_del_files(turn.entry.name, files.array, files.done + 1);
    } else {
        finish_for_resume(turn, files, result);
    }
    return result;
}

UpdateStatus apps_down_files(const AppTurn& turn) {
    AppFiles files;
    UpdateStatus result = app_files_get(turn, &files);
    if (result != UPDATE_OK) return result;
    turn.record.files = static_cast<uint32_t>(files.count);
    const ResumeHold hold(files.array, files.count);
    update_progress_begin_files(static_cast<uint32_t>(files.count));
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->filecnt %d", turn.entry.name, files.count);
    while (files.done < files.count) {
        result = app_file_fetch(turn, files.array[files.done]);
        if (result != UPDATE_OK) break;
        ++files.done;
        update_progress_file_done();
        turn.record.files_done = static_cast<uint32_t>(files.done);
        history_app_update(turn.record);
        if ((turn.entry.flags & APP_FLAG_ONE_FILE) != 0) break;
    }
    return apps_down_finish(turn, files, result);
}

UpdateStatus app_element_down(const AppTurn& turn, int slot) {
    const AppEntry& entry = turn.entry;
    if (turn.app == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "get app_xml %s fail", entry.name);
        return bad_reply(turn, "the app is not listed");
    }
    http_client_debug_print(HTTPC_LOG_INFO, "apps_down-->[%s] find app_xml", entry.name);
    update_progress_set_result(slot, UPDATE_DOWNLOADING);
    return apps_down_files(turn);
}

// The record of a turn that begins.
RunApp record_begin(const DownloadPass& pass, xmlNodePtr app, const AppEntry& entry) {
    RunApp record{};
    (void)text_copy(record.name, entry.name);
    (void)text_copy(record.before, entry.version);
    if (app != nullptr) {
        xml_child_content_get(app, "version", record.offered, sizeof(record.offered));
    }
    record.result = UPDATE_DOWNLOADING;
    if (pass.attempt != nullptr) record.cause = pass.attempt->cause;  // its place
    return record;
}

UpdateStatus app_down(DownloadPass& pass, xmlNodePtr root, const AppEntry& entry, int slot) {
    update_progress_begin_app(slot);
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->begin to down", entry.name);
    const xmlNodePtr app = xml_child_find_by_name(root, "app", entry.name);
    RunApp record = record_begin(pass, app, entry);
    history_app_begin(record);
    record.result = app_element_down({pass, app, entry, record}, slot);
    history_app_update(record);
    return record.result;
}

// Memory is short, or the operator has cancelled: the other apps are left alone.
bool ends_pass(UpdateRunKind kind, UpdateStatus result) {
    return result == UPDATE_NO_MEMORY || (kind == UPDATE_RUN_COMMAND && result == UPDATE_CANCELLED);
}

}  // namespace

UpdateStatus apps_down(xmlDocPtr document, const AppSet& set, UpdateRunKind kind,
                       Attempt* attempt) {
    const xmlNodePtr root = xml_root_get(document);
    if (root == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "apps_down-->check doc fail");
        return UPDATE_BAD_REPLY;
    }
    DownloadPass pass(kind, attempt);
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (reg_app_get(slot, &entry) != 0) {
            update_progress_set_result(slot, UPDATE_BAD_REPLY);
            continue;
        }
        if (!app_set_contains(set, slot)) continue;
        const UpdateStatus result = app_down(pass, root, entry, slot);
        update_progress_set_result(slot, result);
        if (ends_pass(kind, result)) break;
    }
    return UPDATE_OK;
}
