// What servers send and what lies on disk.
#include <sys/socket.h>

#include "base/unique_fd.h"
#include "config/config_commands.h"
#include "config/server_list.h"
#include "config/settings.h"
#include "frame/platform/http_util.h"
#include "frame/roof/commands.h"
#include "host/client_new/command.h"
#include "host/client_new/modes.h"
#include "host/client_new/running_config.h"
#include "http/check_version.h"
#include "http/exchange.h"
#include "http/version_reply.h"
#include "registry/app_registry.h"
#include "resume/resume_file.h"
#include "resume/resume_list.h"
#include "tests/fuzz/fuzz.h"
#include "update/app_download.h"
#include "update/progress.h"

// Header, length and body as they come from a server's socket.
extern "C" void try_response(std::string_view input) {
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0);
    const UniqueFd fd(ends[0]);
    UniqueFd server(ends[1]);
    (void)send(server.get(), input.data(), input.size(), MSG_NOSIGNAL);  // fits its buffer
    server.reset();
    OwnedCommBuf body;
    Require(pkg_recv(fd.get(), &body) != 0 || comm_buf_len(&body) <= input.size());
}

// The download library of replies: every second URL works. No file is put outside the save
// path that its app has given.
extern "C" {
int http_download_file_progress(DownloadCtx*, const char* url, const char* path, unsigned) {
    AppEntry app;
    Require(reg_app_get(int(update_progress_copy().current_app), &app) == 0);
    const std::string_view save_path(app.save_path);
    Require(save_path.empty() || (std::string_view(path).starts_with(save_path) &&
                                  std::string_view(path).rfind('/') == save_path.size() - 1));
    return std::string_view(url).size() % 2 == 0 ? HTTP_DOWNLOAD_OK : -1;
}
int http_download_file_progress_tlv(DownloadCtx*, const char*, const char*, unsigned,
                                    const http_util_tlv*) {
    return -1;
}
void http_open_debug() {}
void http_close_debug() {}
}

// One app takes the server's save path, the other has its own.
static bool AppsRegister() {
    resume_init();
    return reg_app_add(1, "a", "1.0", 0) == REG_OK && reg_app_add(1, "alpha", "1.0", 0) == REG_OK &&
           reg_app_set_savepath("alpha", Directory() + "/own/") == 0;
}

// A reply's document: matched with the registered apps, printed, downloaded from.
extern "C" void try_reply(std::string_view input) {
    static const bool s_ready = AppsRegister();
    OwnedCommBuf body;
    (void)comm_buf_append(&body, input.data(), static_cast<int32_t>(input.size()));
    const XmlDoc document = comm_to_buf(&body);
    if (!s_ready || document == nullptr) return Require(s_ready);
    const AppSet listed = version_xmldoc_parse_app(document.get());
    output_check(document.get(), listed);
    for (const UpdateRunKind kind : {UPDATE_RUN_DAILY, UPDATE_RUN_COMMAND, UPDATE_RUN_RESUME}) {
        update_progress_reset(kind);
        (void)apps_down(document.get(), listed, kind);
    }
    resume_clear();
}

static std::string ResumeRead(const std::string& path) {
    resume_clear();
    (void)read_apps(path.c_str(), resume_read_app);
    std::string names;
    char name[RESUME_NAME_SIZE];
    for (uint32_t i = 0; resume_app_name(i, name); ++i) names = name + ("\n" + names);
    return names;
}

// Whatever was read from a resume file and written back is read the same ever after.
extern "C" void try_resume(std::string_view input) {
    const std::string path = Directory() + "/file";
    WriteFile(path, input);
    (void)ResumeRead(path);
    std::string lists[3];  // reading turns the order round
    for (std::string& list : lists) {
        Require(write_apps(path.c_str(), resume_write_apps) == 0);
        list = ResumeRead(path);
    }
    Require(lists[0] == lists[2]);
}

static std::string Replay(std::string_view text) {
    hu_serv_config_init();
    update_mode = UPDATE_MODE_AUTO;
    update_time_default();
    src_ip_set(SRC_IP_NONE);
    while (!text.empty()) {
        const std::string_view line = Take(&text, "\n");
        if (client_new::line_is_blank(line)) continue;
        const auto& grammar = client_new::modes_grammar(client_new::Mode::kConfig);
        const client_new::Match match = client_new::match_line(grammar, line, 0);
        if (match.handler != nullptr) (void)client_new::command_run_silent(match);
    }
    return client_new::running_config_text({&cfg_http_update_tree});
}

// What was taken from a saved configuration is written again as it will be read.
extern "C" void try_config(std::string_view input) {
    static const int s_ready =
        (hu_serv_config_init(), http_update_admin_cli(tq_thread_master_create()));
    const std::string taken = Replay(input);
    Require(s_ready == 0 && Replay(taken) == taken);
}
