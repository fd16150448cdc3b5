// Download of one file. A failed source is not the end: the next one is tried, until a
// result comes that no other source could better (no room, no memory, a cancel). The
// library's callback is the only moment to show progress and to ask for Ctrl+C.
#include "update/download.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/clock.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "config/settings.h"
#include "frame/ipv4_text.h"
#include "frame/log.h"
#include "frame/loop.h"
#include "frame/platform/client_new.h"
#include "http/xml.h"
#include "registry/app_registry.h"
#include "update/progress.h"

static constexpr int DOWNPATH_MAX = 10;
static constexpr size_t URL_SIZE = 256;
static constexpr unsigned long HTTP_PORT = 80;
static constexpr char HTTP_SCHEME[] = "http://";
static constexpr size_t HTTP_SCHEME_LENGTH = sizeof(HTTP_SCHEME) - 1;
// The terminal is flushed when more than this has come since the last time.
static constexpr int32_t FLUSH_BYTES = 10240;
static constexpr int64_t PROGRESS_LINE_MS = 250;

namespace {

// One file on its way through its sources.
struct FileAttempt {
    DownloadPass* pass;
    UpdateStatus result;
};

constexpr int VISIT_NEXT = 0;
constexpr int VISIT_STOP = -1;

}  // namespace

DownloadPass::DownloadPass(UpdateRunKind run_kind, Attempt* the_attempt)
    : kind(run_kind), attempt(the_attempt) {
    if (kind != UPDATE_RUN_COMMAND) {
        context.progress = down_progress_record;
        return;
    }
    context.user = this;
    context.progress = down_progress_show;
    cli_printf("Downloading updated files, please wait...\n");
}

static void sizes_note(const DownloadCtx* context, int32_t count) {
    update_progress_set_sizes(context->total, context->received,
                              static_cast<uint64_t>(std::max(count, 0)));
}

int down_progress_record(DownloadCtx* context, int32_t count) {
    loop_turned();
    sizes_note(context, count);
    return 0;
}

// Numbers for the progress line, of which the terminal's side makes what it likes.
static void progress_line_feed(DownloadPass* pass) {
    const int64_t now_ms = monotonic_ms();
    if (cli_progress == nullptr || now_ms - pass->told_ms < PROGRESS_LINE_MS) return;
    pass->told_ms = now_ms;
    const UpdateProgress progress = update_progress_copy();
    // A size that is one ahead of what came, and was not so before, is none yet.
    const bool known =
        progress.file_size > progress.down_size + 1 || progress.file_size == pass->told_total;
    pass->told_total = progress.file_size;
    AppEntry app;
    if (reg_app_get(static_cast<int>(progress.current_app), &app) != 0) return;
    const cli_progress_numbers numbers{progress.down_size, known ? progress.file_size : 0,
                                       progress.down_num + 1, progress.file_num, app.name};
    cli_progress(&numbers);
}

static int progress_show(DownloadPass* pass, const DownloadCtx* context, int32_t count) {
    if (pass->first_call) {
        cli_printf("Press Ctrl+C to quit\n");
        cli_flush();
        pass->first_call = false;
    }
    if (context->received == context->total) {
        http_client_debug_print(HTTPC_LOG_INFO, "Download [%s] finished, bytes %d prepared",
                                pass->path, static_cast<int>(context->total));
        cli_flush();
        return 0;
    }
    if (pass->attempt != nullptr && pass->attempt->cancel.Requested()) {
        cli_printf("Download fail, Operation canceled\r\n");
        return -1;
    }
    if (count == 0) {
        cli_printf(".");
        cli_flush();
        return 0;
    }
    pass->unflushed += count;
    if (pass->unflushed > FLUSH_BYTES) {
        cli_flush();
        pass->unflushed = 0;
    }
    return 0;
}

int down_progress_show(DownloadCtx* context, int32_t count) {
    loop_turned();
    if (context == nullptr) return -1;
    auto* pass = static_cast<DownloadPass*>(context->user);
    sizes_note(context, count);
    if (progress_show(pass, context, count) != 0) return -1;
    progress_line_feed(pass);
    return 0;
}

// Calls the library, from the configured source address if there is one. False
// when that address can't be used; nothing was downloaded then.
static bool download_call(DownloadPass* pass, const char* url, int* code) {
    loop_turned();
    const DownloadFlag flag = run_download_flag(pass->kind);
    const SourceAddress source = src_ip_get();
    if (!source.is_set()) {
        *code = http_download_file_progress(&pass->context, url, pass->path, flag);
        return true;
    }
    const MemPtr<http_util_tlv> tlv = mem_make<http_util_tlv>();
    if (tlv == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR,
                                "down_files_single_downpath-->malloc http_util_tlv fail.");
        cause_set(&pass->cause, CausePhase::Download, CauseReason::NoMemory);
        return false;
    }
    uint32_t address = 0;
    if (ipv4_text_to_addr(source.update_src_ip, &address) != 1) {
        http_client_debug_print(HTTPC_LOG_ERROR,
                                "down_files_single_downpath-->get source ip addr err.");
        cause_set_errno(&pass->cause, CausePhase::Download, EADDRNOTAVAIL, 0);
        return false;
    }
    *tlv = {1, sizeof(tlv->address), address};
    *code = http_download_file_progress_tlv(&pass->context, url, pass->path, flag, tlv.get());
    return true;
}

// Host and port that the URL names, for people.
static void place_note(const char* url, Cause* cause) {
    std::string_view authority = url + HTTP_SCHEME_LENGTH;
    authority = authority.substr(0, authority.find_first_of("/?#"));
    authority.remove_prefix(authority.rfind('@') + 1);  // 0 for none
    const size_t colon = authority.rfind(':');
    const bool has_port = colon != std::string_view::npos;
    const char* digits = has_port ? authority.data() + colon + 1 : "";
    const auto port = static_cast<uint16_t>(has_port ? strtoul(digits, nullptr, 10) : HTTP_PORT);
    cause_begin(cause, authority.substr(0, colon), port);
}

// The library's reason in our words.
static void reason_note(const http_download_outcome& outcome, Cause* cause) {
    constexpr CausePhase phase = CausePhase::Download;
    const int32_t number = outcome.number;
    cause->redirected = outcome.redirected != 0;
    switch (outcome.reason) {
        case HTTP_DOWNLOAD_REASON_ADDRESS:
            return cause_set(cause, phase, CauseReason::NameService, number);
        case HTTP_DOWNLOAD_REASON_CONNECT:
            if (number != 0) return cause_set_errno(cause, phase, number, 0);
            return cause_set_unusable(cause, phase, "no secure connection");
        case HTTP_DOWNLOAD_REASON_STATUS:
            return cause_set(cause, phase, CauseReason::HttpStatus, number);
        case HTTP_DOWNLOAD_REASON_TOO_SLOW:
            return cause_set(cause, phase, CauseReason::TooSlow);
        case HTTP_DOWNLOAD_REASON_BROKEN:
            return cause_set(cause, phase, CauseReason::Closed);
        case HTTP_DOWNLOAD_REASON_ANSWER:
            return cause_set_unusable(cause, phase, "its HTTP header can't be used");
        case HTTP_DOWNLOAD_REASON_FILE:
            return cause_set(cause, phase, CauseReason::File, number);
        default:
            return cause_set(cause, phase, CauseReason::Other, number);
    }
}

// What the library tells of a download that has ended with that code.
static void outcome_note(DownloadPass* pass, const char* url, int code) {
    http_download_outcome outcome{};
    outcome.fetched = pass->context.received;
    outcome.reason = HTTP_DOWNLOAD_REASON_LIBRARY;
    outcome.number = code;
    if (http_download_last_outcome != nullptr) {
        (void)http_download_last_outcome(&pass->context, &outcome);
    }
    pass->fetched_bytes += outcome.fetched;
    pass->resumed_bytes = outcome.resumed;
    Cause& cause = pass->cause;
    place_note(url, &cause);
    const char* slash = strrchr(pass->path, '/');
    (void)text_copy(cause.file, slash == nullptr ? pass->path : slash + 1);
    switch (code) {
        case HTTP_DOWNLOAD_OK:
        case HTTP_DOWNLOAD_COMPLETE_ALREADY:
            return;
        case HTTP_DOWNLOAD_CANCELLED:
            return cause_set(&cause, CausePhase::Download, CauseReason::Cancelled);
        case HTTP_DOWNLOAD_NO_STORAGE:
            return cause_set(&cause, CausePhase::Download, CauseReason::NoStorage);
        case HTTP_DOWNLOAD_NO_MEMORY:
            return cause_set(&cause, CausePhase::Download, CauseReason::NoMemory);
        default:
            return reason_note(outcome, &cause);
    }
}

// Whether the download's code settles the file's result.
static bool download_settled(int code, UpdateStatus* result) {
    switch (code) {
        case HTTP_DOWNLOAD_OK:
        case HTTP_DOWNLOAD_COMPLETE_ALREADY:
            *result = UPDATE_OK;
            return true;
        case HTTP_DOWNLOAD_CANCELLED:
            *result = UPDATE_CANCELLED;
            return true;
        case HTTP_DOWNLOAD_NO_STORAGE:
            *result = UPDATE_NO_STORAGE;
            return true;
        case HTTP_DOWNLOAD_NO_MEMORY:
            *result = UPDATE_NO_MEMORY;
            return true;
        default:
            return false;
    }
}

static int down_files_single_downpath(xmlNodePtr element, int index, void* argument) {
    auto* attempt = static_cast<FileAttempt*>(argument);
    const char* path = attempt->pass->path;
    if (index > DOWNPATH_MAX) {
        http_client_debug_print(HTTPC_LOG_ERROR,
                                "down_files_single_downpath-->[%s] downpath over %d", path, index);
        return VISIT_STOP;
    }
    char text[URL_SIZE];
    xml_node_content_get(element, text, sizeof(text));
    http_client_debug_print(HTTPC_LOG_INFO, "down_files_single_downpath-->before downpath [%s]",
                            text);
    str_trim(text);
    http_client_debug_print(HTTPC_LOG_INFO, "down_files_single_downpath-->after downpath [%s]",
                            text);
    if (text[0] == '\0') {
        http_client_debug_print(HTTPC_LOG_ERROR,
                                "down_files_single_downpath-->downpath is empty for [%s]", path);
        return VISIT_NEXT;
    }
    const bool has_scheme = strncmp(text, HTTP_SCHEME, HTTP_SCHEME_LENGTH) == 0;
    char url[URL_SIZE] = {};
    size_t length = 0;
    (void)text_appendf(url, sizeof(url), &length, "%s%s", has_scheme ? "" : HTTP_SCHEME, text);

    int code = 0;
    if (!download_call(attempt->pass, url, &code)) return VISIT_STOP;
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]-->downpath return %d", url, code);
    outcome_note(attempt->pass, url, code);
    return download_settled(code, &attempt->result) ? VISIT_STOP : VISIT_NEXT;
}

UpdateStatus down_file_try_downpaths(DownloadPass* pass, xmlNodePtr file, const char* path) {
    pass->path = path;
    pass->fetched_bytes = pass->resumed_bytes = 0;
    pass->cause = {};
    cause_set_unusable(&pass->cause, CausePhase::Reply, "a file without a source");
    FileAttempt attempt{pass, UPDATE_DOWNLOAD_FAIL};
    xml_child_foreach(file, "downpath", &attempt, down_files_single_downpath);
    return attempt.result;
}
