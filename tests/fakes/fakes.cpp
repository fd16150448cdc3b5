// The libraries that only record and answer: terminal, logs, technical support,
// downloads, health.
#include "tests/fakes/fakes.h"

#include <arpa/inet.h>

#include <cstdarg>

#include "frame/platform/syslog_new.h"
#include "frame/platform/tq_proc_ham.h"

namespace fakes {

void Reset() {
    FailTimers(false);
    MutexLock guard(g_lock);
    g_state = State{};
}

static std::string Dotted(in_addr address) {
    char text[INET_ADDRSTRLEN] = "";
    return inet_ntop(AF_INET, &address, text, sizeof(text));
}

static int RunDownload(DownloadCtx* context, const Download& download) {
    DownloadScript script;
    {
        MutexLock guard(g_lock);
        g_state.downloads.push_back(download);
        script = g_state.script;
    }
    return script ? script(context, download) : -1;
}

static int HamCall(const std::string& call, int first, int second) {
    MutexLock guard(g_lock);
    g_state.ham_calls += call + "(" + std::to_string(first) + "," + std::to_string(second) + ")\n";
    return g_state.ham_result;
}

}  // namespace fakes

using namespace fakes;

// Appends printf-style arguments to a field, with an end of its own.
#define FAKE_RECORD(field, end)                      \
    va_list args;                                    \
    va_start(args, format);                          \
    char* text = nullptr;                            \
    if (vasprintf(&text, format, args) < 0) abort(); \
    va_end(args);                                    \
    MutexLock guard(g_lock);                         \
    g_state.field.append(text).append(end);          \
    free(text)

extern "C" {

// --- command line

int cli_client_init(const char*, tq_thread_master*) { return 0; }
int cli_add_command(int, const cli_node*, const char*) { return 0; }
int cli_client_ready() { return 0; }
int sys_add_debug(const char*, int, int, int, void (*)(int action), int) { return 0; }
void cli_printf(const char* format, ...) { FAKE_RECORD(terminal, ""); }
void cli_printf_cdb(cli_record*, const char*, ...) {}
void c2p_printf(int, cli_record*, const char*, ...) {}
int cli_getc_no_block() { return -1; }
void cli_flush() {}
void cli_proc_thread_start(cli_record*, pthread_t) {}
void cli_proc_thread_end(cli_record*, pthread_t) {}

// --- log, technical support

int printk_syslog_ext(int, const char*, const char*, int, const char* format, ...) {
    FAKE_RECORD(syslog, g_state.syslog.ends_with('\n') ? "" : "\n");
    return 0;
}

int tech_reg_service_callback(const char*, tq_thread_master*, tech_service_callback) { return 0; }
int tech_module_reg_dump_file(const char*) { return 0; }
void tech_module_msg_output(const char* format, ...) { FAKE_RECORD(tech_output, ""); }
void tech_module_msg_deal_completion() {}

// --- network

int http_download_file_progress(DownloadCtx* context, const char* url, const char* path,
                                unsigned flag) {
    return RunDownload(context, {url, path, flag, ""});
}

int http_download_file_progress_tlv(DownloadCtx* context, const char* url, const char* path,
                                    unsigned flag, const http_util_tlv* source) {
    const bool known = source->type == 1 && source->length == 4;
    return RunDownload(context, {url, path, flag, known ? Dotted({source->address}) : "bad tlv"});
}

void http_open_debug() {
    MutexLock guard(g_lock);
    ++g_state.download_debug;
}

void http_close_debug() {
    MutexLock guard(g_lock);
    --g_state.download_debug;
}

// --- health

int reg_process_exit_action(int kind, int action) { return HamCall(__func__, kind, action); }

int ham_client_reg_thread_notify(pid_t, pid_t, int timeout_s, int action) {
    return HamCall(__func__, timeout_s, action);
}

int ham_client_reset_thread_notify(pid_t, pid_t, int timeout_s, int action) {
    return HamCall(__func__, timeout_s, action);
}
}
