// One download over libcurl. Redirects are followed here and not by libcurl, because
// each host on the way is looked up by the device's DNS client, from the source
// address. What a response means for the file is decided once, before its first
// body byte is written.

#include "host/http_util/engine.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <string.h>
#include <strings.h>

#include <memory>
#include <string_view>

#include "base/text.h"
#include "host/http_util/partial_file.h"
#include "host/http_util/progress.h"
#include "host/http_util/resolve.h"
#include "host/http_util/trace.h"

namespace {

constexpr int HOP_MAX = 6;  // the first request, four redirects, one start afresh
constexpr size_t URL_SIZE = 2048;
constexpr long BUFFER_BYTES = 256 * 1024;  // of libcurl; its default of 16 KiB costs speed
constexpr const char* USER_AGENT = "http_client";

struct CurlFree {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    void operator()(char* text) const { curl_free(text); }
};
using Easy = std::unique_ptr<CURL, CurlFree>;
using Url = std::unique_ptr<CURLU, CurlFree>;
using List = std::unique_ptr<curl_slist, CurlFree>;
using CurlText = std::unique_ptr<char, CurlFree>;

// What a response turned out to be.
enum class Verdict {
    None,      // no final response yet
    Body,      // its body is the file's
    Redirect,  // another URL
    Afresh,    // the part asked for can't be had: ask for the whole
    Failed,    // result says why
};

struct Download {
    explicit Download(const DownloadJob& the_job)
        : job(the_job), progress(the_job.context), file(the_job.path) {}

    const DownloadJob& job;
    Progress progress;
    PartialFile file;
    Easy easy;
    Url url;

    uint64_t seen = 0;        // bytes received at the last wake-up
    uint64_t range_from = 0;  // first byte asked for; 0: the whole file
    bool partial = false;     // a range is asked for
    Verdict verdict = Verdict::None;
    int result = 0;
};

std::string_view header_value(const Download& download, const char* name) {
    curl_header* header = nullptr;
    // The last of several counts; more than one of these is the server's fault.
    for (size_t i = 0;; ++i) {
        curl_header* next = nullptr;
        if (curl_easy_header(download.easy.get(), name, i, CURLH_HEADER, -1, &next) != CURLHE_OK) {
            break;
        }
        header = next;
        if (i + 1 >= next->amount) break;
    }
    return header == nullptr ? std::string_view() : std::string_view(header->value);
}

CurlText url_part(const Url& url, CURLUPart part, unsigned flags = 0) {
    char* text = nullptr;
    (void)curl_url_get(url.get(), part, &text, flags);
    return CurlText(text);
}

bool url_set(const Url& url, const char* text) {
    if (curl_url_set(url.get(), CURLUPART_URL, text, CURLU_URLENCODE | CURLU_ALLOW_SPACE) !=
        CURLUE_OK) {
        return false;
    }
    const CurlText scheme = url_part(url, CURLUPART_SCHEME);
    return scheme && (strcmp(scheme.get(), "http") == 0 || strcmp(scheme.get(), "https") == 0);
}

// Goes to the URL of a redirect, which may be relative. From https it never leads
// back to http.
bool url_follow(const Url& url, const char* location) {
    const CurlText before = url_part(url, CURLUPART_SCHEME);
    if (!before || !url_set(url, location)) return false;
    const CurlText after = url_part(url, CURLUPART_SCHEME);
    return after && (strcmp(before.get(), "https") != 0 || strcmp(after.get(), "https") == 0);
}

// Path and query. Not the host: mirrors of one file share their validators, while
// two files of one host may share size and date, and then differ here.
bool url_resource(const Url& url, char (&resource)[RESOURCE_SIZE]) {
    const CurlText path = url_part(url, CURLUPART_PATH);
    const CurlText query = url_part(url, CURLUPART_QUERY);
    size_t length = 0;
    return path && text_appendf(resource, sizeof resource, &length, "%s?%s", path.get(),
                                query ? query.get() : "");
}

// A validator that proves identity byte for byte: a strong entity tag, else a
// modification date at least a second older than the response (a file may change
// twice within one second).
bool validator_take(const Download& download, char (&validator)[VALIDATOR_SIZE]) {
    const std::string_view tag = header_value(download, "ETag");
    if (tag.size() > 2 && tag.starts_with('"') && tag.ends_with('"')) {
        return text_copy(validator, tag);
    }
    // Copied at once: the next look at a header may take the memory back.
    const bool whole = text_copy(validator, header_value(download, "Last-Modified"));
    const std::string_view date = header_value(download, "Date");
    const time_t modified_s = curl_getdate(validator, nullptr);
    const time_t date_s = date.empty() ? -1 : curl_getdate(date.data(), nullptr);
    return whole && modified_s != -1 && date_s > modified_s;
}

// The part of the validator's kind in this response, if it has one, is the same.
bool validator_agrees(const Download& download) {
    const char* validator = download.file.facts().validator;
    const char* name = validator[0] == '"' ? "ETag" : "Last-Modified";
    const std::string_view value = header_value(download, name);
    return value.empty() || value == validator;
}

// "bytes FIRST-LAST/TOTAL" with exactly the part that was asked for.
bool content_range_agrees(const Download& download) {
    const uint64_t total = download.file.facts().total;
    char expected[96] = "";
    size_t length = 0;
    (void)text_appendf(expected, sizeof expected, &length, "bytes %llu-%llu/%llu",
                       static_cast<unsigned long long>(download.range_from),
                       static_cast<unsigned long long>(total - 1),
                       static_cast<unsigned long long>(total));
    const std::string_view value = header_value(download, "Content-Range");
    return value.size() == length && strncasecmp(value.data(), expected, length) == 0;
}

Verdict fail(Download* download, int result) {
    download->result = result;
    return Verdict::Failed;
}

// A response with the whole file: the old one makes room for it.
Verdict whole_begin(Download* download) {
    download->partial = false;
    curl_off_t length = -1;
    (void)curl_easy_getinfo(download->easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    const std::string_view coding = header_value(*download, "Transfer-Encoding");
    const bool chunked =
        coding.size() >= 7 && strcasecmp(coding.data() + coding.size() - 7, "chunked") == 0;
    // Without both, a cut file would look like a whole one.
    if (length < 0 && !chunked) return fail(download, DOWNLOAD_NO_LENGTH);

    PartialFacts facts;
    const bool known = length >= 0 && !chunked;
    const bool continuable = known && length > 0 && validator_take(*download, facts.validator) &&
                             url_resource(download->url, facts.resource);
    facts.total = known ? static_cast<uint64_t>(length) : 0;
    const int result = download->file.Create(facts.total, continuable ? &facts : nullptr);
    if (result != 0) return fail(download, result);
    if (known) {
        download->progress.Begin(0, facts.total);
    } else {
        download->progress.BeginUnknown();
    }
    return Verdict::Body;
}

// A response with the missing part.
Verdict part_begin(Download* download) {
    if (!content_range_agrees(*download) || !validator_agrees(*download)) return Verdict::Afresh;
    const int result = download->file.Continue(download->range_from);
    if (result != 0) return fail(download, result);
    download->progress.Begin(download->range_from, download->file.facts().total);
    return Verdict::Body;
}

Verdict response_judge(Download* download) {
    long status = 0;
    (void)curl_easy_getinfo(download->easy.get(), CURLINFO_RESPONSE_CODE, &status);
    trace(download->job.debug, "status %ld", status);
    switch (status) {
        case 200:
            return whole_begin(download);
        case 206:
            return download->partial ? part_begin(download) : fail(download, DOWNLOAD_BAD_STATUS);
        case 416:
            return download->partial ? Verdict::Afresh : fail(download, DOWNLOAD_BAD_STATUS);
        case 301:
        case 302:
        case 303:
        case 307:
        case 308:
            return Verdict::Redirect;
        default:
            return fail(download, DOWNLOAD_BAD_STATUS);
    }
}

size_t on_body(char* bytes, size_t, size_t size, void* user) {
    auto* download = static_cast<Download*>(user);
    if (download->verdict == Verdict::None) download->verdict = response_judge(download);
    if (download->verdict != Verdict::Body) return CURL_WRITEFUNC_ERROR;
    // libcurl cuts a body to its Content-Length; a part may come in chunks without end.
    const bool fits = size <= download->progress.Missing();
    const int result = fits ? download->file.Write(bytes, size) : int{DOWNLOAD_BROKEN};
    if (result != 0) {
        download->verdict = fail(download, result);
        return CURL_WRITEFUNC_ERROR;
    }
    download->progress.Add(size);
    return download->progress.Tick() ? size : CURL_WRITEFUNC_ERROR;
}

// Called after each wake-up of libcurl, also when nothing came.
int on_progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* download = static_cast<Download*>(user);
    // While a server stalls, what came before is better in the file than in memory.
    const bool stalls = download->seen == download->progress.received();
    download->seen = download->progress.received();
    const int result = stalls ? download->file.Flush() : 0;
    if (result != 0) download->verdict = fail(download, result);
    return result == 0 && download->progress.Tick() ? 0 : 1;
}

// Options of all hops. A failing one is a libcurl unlike the one we were built for.
bool options_set(Download* download) {
    CURL* easy = download->easy.get();
    const DownloadLimits& limits = download->job.limits;
    bool ok = true;
    const auto set = [&](CURLoption option, auto value) {
        ok = curl_easy_setopt(easy, option, value) == CURLE_OK && ok;
    };
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    set(CURLOPT_IPRESOLVE, long{CURL_IPRESOLVE_V4});
    set(CURLOPT_PROXY, "");  // whatever the environment says
    set(CURLOPT_USERAGENT, USER_AGENT);
    set(CURLOPT_CONNECTTIMEOUT, limits.connect_s);
    set(CURLOPT_LOW_SPEED_LIMIT, limits.stall_bytes_per_s);
    set(CURLOPT_LOW_SPEED_TIME, limits.stall_s);
    set(CURLOPT_BUFFERSIZE, BUFFER_BYTES);
    set(CURLOPT_WRITEFUNCTION, on_body);
    set(CURLOPT_WRITEDATA, static_cast<void*>(download));
    set(CURLOPT_XFERINFOFUNCTION, on_progress);
    set(CURLOPT_XFERINFODATA, static_cast<void*>(download));
    set(CURLOPT_NOPROGRESS, 0L);
    if (download->job.source != 0) {
        char address[INET_ADDRSTRLEN] = "";
        const in_addr source{download->job.source};
        char interface[INET_ADDRSTRLEN + 8] = "";
        size_t length = 0;
        (void)text_appendf(interface, sizeof interface, &length, "host!%s",
                           inet_ntop(AF_INET, &source, address, sizeof address));
        set(CURLOPT_INTERFACE, static_cast<const char*>(interface));
    }
    if (download->job.debug != nullptr && download->job.debug->load(std::memory_order_relaxed)) {
        set(CURLOPT_VERBOSE, 1L);
        set(CURLOPT_DEBUGFUNCTION, trace_curl);
        set(CURLOPT_DEBUGDATA, const_cast<void*>(static_cast<const void*>(download->job.debug)));
    }
    return ok;
}

// Result of a transfer that did not end as it should.
int transfer_failure(const Download& download, CURLcode code) {
    if (download.progress.cancelled()) return HTTP_DOWNLOAD_CANCELLED;
    if (download.verdict == Verdict::Failed) return download.result;
    switch (code) {
        case CURLE_COULDNT_RESOLVE_HOST:
            return DOWNLOAD_NO_ADDRESS;
        case CURLE_COULDNT_CONNECT:
        case CURLE_INTERFACE_FAILED:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
            return DOWNLOAD_NO_CONNECTION;
        default:
            // CURLE_OUT_OF_MEMORY, too: a server gets it with an endless header line,
            // and a run that is short of memory ends for all apps.
            return DOWNLOAD_BROKEN;
    }
}

// Hands host and address of the URL to libcurl. list must outlive the transfer.
int host_prepare(Download* download, List* list) {
    const CurlText host = url_part(download->url, CURLUPART_HOST);
    const CurlText port = url_part(download->url, CURLUPART_PORT, CURLU_DEFAULT_PORT);
    if (!host || !port) return DOWNLOAD_BAD_URL;
    uint32_t address = 0;
    const int result =
        host_resolve(host.get(), download->job.source, &download->progress, &address);
    if (result != 0) return result;
    char text[INET_ADDRSTRLEN] = "";
    const in_addr number{address};
    char entry[512] = "";
    size_t length = 0;
    if (!text_appendf(entry, sizeof entry, &length, "%s:%s:%s", host.get(), port.get(),
                      inet_ntop(AF_INET, &number, text, sizeof text))) {
        return DOWNLOAD_BAD_URL;
    }
    list->reset(curl_slist_append(nullptr, entry));
    if (!*list) return HTTP_DOWNLOAD_NO_MEMORY;
    (void)curl_easy_setopt(download->easy.get(), CURLOPT_RESOLVE, list->get());
    return 0;
}

// Range and If-Range of a continued download, nothing otherwise.
int range_prepare(Download* download, List* headers) {
    CURL* easy = download->easy.get();
    char range[32] = "";
    if (download->partial) {
        size_t length = 0;
        (void)text_appendf(range, sizeof range, &length, "%llu-",
                           static_cast<unsigned long long>(download->range_from));
        char header[VALIDATOR_SIZE + 16] = "";
        length = 0;
        (void)text_appendf(header, sizeof header, &length, "If-Range: %s",
                           download->file.facts().validator);
        headers->reset(curl_slist_append(nullptr, header));
        if (!*headers) return HTTP_DOWNLOAD_NO_MEMORY;
    }
    if (curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers->get()) != CURLE_OK ||
        curl_easy_setopt(easy, CURLOPT_RANGE, download->partial ? range : nullptr) != CURLE_OK) {
        return HTTP_DOWNLOAD_NO_MEMORY;
    }
    return 0;
}

// One request and its response. 0 when it ended in a verdict without a failure.
int hop_run(Download* download) {
    download->verdict = Verdict::None;
    List hosts;
    List headers;
    int result = host_prepare(download, &hosts);
    if (result == 0) result = range_prepare(download, &headers);
    if (result != 0) return result;
    const CurlText url = url_part(download->url, CURLUPART_URL);
    CURL* easy = download->easy.get();
    if (!url || curl_easy_setopt(easy, CURLOPT_URL, url.get()) != CURLE_OK) {
        return HTTP_DOWNLOAD_NO_MEMORY;
    }
    const CURLcode code = curl_easy_perform(easy);
    // A response without a body has not been looked at yet.
    if (code == CURLE_OK && download->verdict == Verdict::None) {
        download->verdict = response_judge(download);
    }
    (void)curl_easy_setopt(easy, CURLOPT_RESOLVE, nullptr);
    (void)curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
    if (download->progress.cancelled()) return HTTP_DOWNLOAD_CANCELLED;
    if (download->verdict == Verdict::Redirect || download->verdict == Verdict::Afresh) return 0;
    if (code == CURLE_OK && download->verdict == Verdict::Body) return 0;
    trace(download->job.debug, "%s", curl_easy_strerror(code));
    return transfer_failure(*download, code);
}

// The body is in the file: checks it, syncs it, says so.
int body_finish(Download* download) {
    if (!download->progress.WholeSize()) return DOWNLOAD_BROKEN;
    int result = download->file.Flush();
    if (result == 0) result = download->file.Complete();
    if (result != 0) return result;
    return download->progress.Finish() ? 0 : HTTP_DOWNLOAD_CANCELLED;
}

// Requests until a response has brought the body.
int hops_run(Download* download) {
    for (int hop = 0; hop < HOP_MAX; ++hop) {
        const int result = hop_run(download);
        if (result != 0) return result;
        if (download->verdict == Verdict::Body) return body_finish(download);
        if (download->verdict == Verdict::Afresh) {
            download->partial = false;
            download->range_from = 0;
            continue;
        }
        char location[URL_SIZE] = "";
        if (!text_copy(location, header_value(*download, "Location")) || location[0] == '\0') {
            return DOWNLOAD_BAD_STATUS;
        }
        if (!url_follow(download->url, location)) return DOWNLOAD_BAD_URL;
    }
    return DOWNLOAD_BAD_STATUS;
}

int download_run(Download* download) {
    static const CURLcode s_ready = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (s_ready != CURLE_OK) return DOWNLOAD_NO_ENGINE;
    download->easy.reset(curl_easy_init());
    download->url.reset(curl_url());
    if (!download->easy || !download->url) return HTTP_DOWNLOAD_NO_MEMORY;
    if (!options_set(download)) return DOWNLOAD_NO_ENGINE;
    if (!url_set(download->url, download->job.url)) return DOWNLOAD_BAD_URL;

    char resource[RESOURCE_SIZE] = "";
    bool complete = false;
    if (download->job.resume && url_resource(download->url, resource) &&
        download->file.Find(resource)) {
        download->partial = true;
        // Of a file that has all its bytes the last is asked for once more: only a
        // response to a range proves that the server still has the same file.
        complete = download->file.size() == download->file.facts().total;
        download->range_from = download->file.size() - (complete ? 1 : 0);
        trace(download->job.debug, "continues at byte %llu of %llu",
              static_cast<unsigned long long>(download->range_from),
              static_cast<unsigned long long>(download->file.facts().total));
    }
    const int result = hops_run(download);
    // Anything but a continued last byte has made the file anew.
    if (result == 0 && complete && download->partial) return HTTP_DOWNLOAD_COMPLETE_ALREADY;
    return result;
}

}  // namespace

int http_util_engine_download(const DownloadJob* job) {
    char shown[512] = "";
    trace(job->debug, "%s to %s, %s", trace_url(job->url, shown), job->path,
          job->resume ? "continuing a part" : "afresh");
    Download download(*job);
    const int result = download_run(&download);
    const bool whole = result == 0 || result == HTTP_DOWNLOAD_COMPLETE_ALREADY;
    if (!whole) {
        (void)download.file.Flush();  // it has failed already
        // A part that nobody is about to continue needs no sync.
        if (job->resume) download.file.Keep();
    }
    trace(job->debug, "%s ends with %d, %llu bytes", job->path, result,
          static_cast<unsigned long long>(download.progress.received()));
    return result;
}
