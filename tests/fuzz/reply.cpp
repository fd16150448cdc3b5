// A reply's document: matched with the registered apps, printed, downloaded from.
#include "buffer/comm_buf.h"
#include "http/check_version.h"
#include "http/version_reply.h"
#include "registry/app_registry.h"
#include "resume/resume_file.h"
#include "resume/resume_list.h"
#include "tests/fakes/fakes.h"
#include "tests/fuzz/fuzz.h"
#include "update/app_download.h"
#include "update/progress.h"

static std::string s_save_path;

// One app takes the server's save path, the other has its own, which nothing leaves.
static void Prepare() {
    resume_init();
    s_save_path = s_directory + std::string("/own/");
    for (const char* name : {"a", "alpha"}) Require(reg_app_add(1, name, "1.0", 0) == REG_OK);
    Require(reg_app_set_savepath("alpha", s_save_path) == 0);
}

static int Download(DownloadCtx*, const fakes::Download& download) {
    AppEntry app;
    const uint32_t slot = update_progress_copy().current_app;
    Require(reg_app_get(static_cast<int>(slot), &app) == 0);
    const size_t length = strlen(app.save_path);
    Require(length == 0 || (download.path.starts_with(app.save_path) &&
                            download.path.find('/', length) == std::string::npos));
    return download.url.size() % 2 == 0 ? HTTP_DOWNLOAD_OK : -1;
}

static void Try(std::string_view input) {
    fakes::Reset();
    fakes::ScriptDownloads(Download);
    OwnedCommBuf body;
    (void)comm_buf_append(&body, input.data(), static_cast<int32_t>(input.size()));
    const XmlDoc document = comm_to_buf(&body);
    if (document == nullptr) return;
    const AppSet listed = version_xmldoc_parse_app(document.get());
    output_check(document.get(), listed);
    for (const UpdateRunKind kind : {UPDATE_RUN_DAILY, UPDATE_RUN_COMMAND, UPDATE_RUN_RESUME}) {
        update_progress_reset(kind);
        (void)apps_down(document.get(), listed, kind);
    }
    resume_clear();
}
