// The course of a download. Redirects are followed here, because each host on the way
// is looked up by the device's DNS client, from the source address; what a response
// means for the file is decided before its first body byte (judge.h).

#include "host/http_util/download.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/clock.h"
#include "base/pace.h"
#include "base/text.h"
#include "host/http_util/agent.h"
#include "host/http_util/judge.h"
#include "host/http_util/outcome.h"
#include "host/http_util/partial_file.h"
#include "host/http_util/progress.h"
#include "host/http_util/resolve.h"
#include "host/http_util/trace.h"

namespace {

constexpr int HOP_MAX = 6;     // the first request, four redirects, one restart
constexpr int FOLLOW_UP = -1;  // no result yet: another request
constexpr int TICK_MS = 200;

// So many bytes at the end of a part are asked for once more, and compared with those
// on disk: a server may vouch for another file than the one it began with.
constexpr uint64_t OVERLAP_BYTES = 16384;

struct Download {
    explicit Download(const DownloadJob& the_job)
        : job(the_job),
          progress(the_job.context),
          pace(monotonic_ms()),
          file(the_job.path, the_job.resume),
          agent(the_job.debug) {}

    const DownloadJob& job;
    Progress progress;
    Pace pace;
    uint64_t taken = 0;  // bytes of bodies, for the pace
    PartialFile file;
    Agent agent;
    bool found = false;    // there is a file that may be continued or kept
    bool is_open = false;  // the program may still have something to say of a target
    TargetMessage target;  // of the next request
    PlaceMessage place;    // of the request under way
    AnyMessage message;    // the last one received
    http_download_outcome outcome{};
};

// Says why the download fails with that result.
int fail(Download* download, int result, int32_t reason, int32_t number = 0) {
    download->outcome.reason = reason;
    download->outcome.number = number;
    return result;
}

// The same after a call on the file, whose errno is still there.
int file_fail(Download* download, int result) {
    return fail(download, result, HTTP_DOWNLOAD_REASON_FILE, errno);
}

// The next message, while the caller is asked whether to go on. 0, or the download's
// result.
int message_wait(Download* download) {
    for (;;) {
        const Received received = download->agent.Receive(&download->message, TICK_MS);
        if (!download->progress.Tick()) return HTTP_DOWNLOAD_CANCELLED;
        if (received == Received::Gone) {
            trace(download->job.debug, "the download program has ended");
            return download->agent.ready() ? int{DOWNLOAD_BROKEN} : int{DOWNLOAD_NO_PROGRAM};
        }
        const bool came = received == Received::Message;
        // Whatever ends the waiting is in time.
        if (came && download->message.type != MessageType::Progress) return 0;
        if (!download->pace.Keeps(monotonic_ms(), download->taken)) {
            trace(download->job.debug, "too slow");
            return fail(download, DOWNLOAD_BROKEN, HTTP_DOWNLOAD_REASON_TOO_SLOW);
        }
        if (came) return 0;
        // What came before a pause is noted in it.
        const int result = download->file.Advance(download->file.size());
        if (result != 0) return result;
    }
}

// Nothing more is wanted of the target.
void target_drop(Download* download) { download->is_open = !download->agent.Send(DropMessage()); }

int follow_up(Download* download, const char* base, const char* reference) {
    (void)text_copy(download->target.base, base);
    (void)text_copy(download->target.reference, reference);
    return FOLLOW_UP;
}

// Asks the same place for the whole file.
int restart_whole(Download* download) {
    download->found = false;
    return follow_up(download, "", download->place.url);
}

// resource is path and query of the target; "" where they are not known yet.
Request request_make(const Download& download, const char* resource) {
    Request request;
    request.resource = resource;
    if (!download.found) return request;
    request.facts = &download.file.facts();
    request.size = download.file.size();
    request.ranged = request.may_match();
    // Of a whole file one byte: only the response to a range tells that it is the same.
    const uint64_t overlap = download.file.whole() ? 1 : std::min(request.size, OVERLAP_BYTES);
    request.first = request.size - overlap;
    return request;
}

bool request_send(Download* download, const Request& request, uint32_t address) {
    GetMessage get;
    get.address = address;
    get.source = download->job.source;
    get.connect_ms = download->job.connect_ms;
    get.trace = trace_is_on(download->job.debug) ? 1 : 0;
    if (request.ranged) {
        get.ranged = 1;
        get.first = request.first;
        get.last = download->file.whole() ? request.first : UINT64_MAX;
        (void)text_copy(get.validator, request.facts->validator);
    }
    return download->agent.Send(get);
}

// Begins a target. When its server is known, and the request does not depend on what
// exactly the target names, the request goes along: *address is not 0 then.
int target_begin(Download* download, uint32_t* address) {
    const TargetMessage& target = download->target;
    *address = 0;
    download->is_open = true;
    if (!download->agent.Begin(target)) return DOWNLOAD_NO_PROGRAM;
    if (target.base[0] == '\0' && (!download->found || download->file.facts().tagged())) {
        *address = download->agent.AddressOf(target.reference, download->job.source);
    }
    if (*address == 0) return message_wait(download);
    const bool sent = request_send(download, request_make(*download, ""), *address);
    return sent ? message_wait(download) : int{DOWNLOAD_BROKEN};
}

// download->place is what the target names then.
int target_set(Download* download, uint32_t* address) {
    int result = target_begin(download, address);
    if (result == DOWNLOAD_BROKEN && download->agent.was_idle()) {
        // The program may have ended just then: it gets the target, too.
        download->agent.End();
        result = target_begin(download, address);
    }
    if (result != 0) return result;
    if (download->message.type != MessageType::Place) return DOWNLOAD_BROKEN;
    const PlaceMessage& place = download->message.place;
    // From https it never leads back to http.
    if (place.valid == 0 || (download->place.secure != 0 && place.secure == 0)) {
        return DOWNLOAD_BAD_URL;
    }
    download->place = place;
    return 0;
}

// The response to the request for the target, or END, is in download->message then.
int response_get(Download* download, const Request& request, uint32_t address) {
    int result = 0;
    if (address == 0) {
        int said = 0;
        result = host_resolve(download->place.host, download->job.source, &download->progress,
                              &address, &said);
        if (result != 0) return fail(download, result, HTTP_DOWNLOAD_REASON_ADDRESS, said);
        if (!request_send(download, request, address)) return DOWNLOAD_BROKEN;
    }
    result = message_wait(download);
    if (result == 0 && download->message.type == MessageType::Head) {
        download->agent.Remember(download->place.url, download->job.source, address);
    }
    return result;
}

// Result of a transfer that has ended by itself; 0: the body is in the file. sized: its
// size was known before.
int end_result(Download* download, bool sized) {
    const EndMessage& end = download->message.end;
    download->is_open = false;
    if (end.reason != EndReason::Whole) trace(download->job.debug, "%s", end.text);
    switch (end.reason) {
        case EndReason::Whole:
            return download->progress.WholeSize() ? 0 : int{DOWNLOAD_BROKEN};
        case EndReason::NoConnection:
            return fail(download, DOWNLOAD_NO_CONNECTION, HTTP_DOWNLOAD_REASON_CONNECT, end.error);
        case EndReason::WriteFailed:
            return fail(download, file_error(end.error), HTTP_DOWNLOAD_REASON_FILE, end.error);
        case EndReason::TooLong:
            return sized ? int{DOWNLOAD_BROKEN} : int{HTTP_DOWNLOAD_NO_STORAGE};
        case EndReason::Differs:
            return restart_whole(download);
        case EndReason::Cut:
            break;
    }
    return DOWNLOAD_BROKEN;
}

// The body has reached position in the file, says the program.
int body_reach(Download* download, uint64_t position, uint64_t limit) {
    const uint64_t before = download->progress.received();
    if (position < before || position > limit) return DOWNLOAD_BROKEN;
    download->taken += position - before;
    download->progress.Reach(position);
    // What is compared is already there.
    return position <= download->file.size() ? 0 : download->file.Advance(position);
}

// Has the body put into the file. 0, FOLLOW_UP or the download's result.
int body_take(Download* download, const BodyMessage& body, bool sized) {
    const uint64_t limit = body.offset + std::min(body.limit, UINT64_MAX - body.offset);
    if (!download->agent.Send(body, download->file.fd())) return DOWNLOAD_BROKEN;
    for (;;) {
        int result = message_wait(download);
        if (result != 0) return result;
        const AnyMessage& message = download->message;
        const bool ended = message.type == MessageType::End;
        if (!ended && message.type != MessageType::Progress) return DOWNLOAD_BROKEN;
        const uint64_t position = ended ? message.end.position : message.progress.position;
        result = body_reach(download, position, limit);
        if (result != 0) return result;
        if (ended) return end_result(download, sized);
    }
}

int file_finish(Download* download) {
    const int result = download->file.Complete(&download->progress);
    if (result != 0) return result;
    return download->progress.Finish() ? HTTP_DOWNLOAD_OK : HTTP_DOWNLOAD_CANCELLED;
}

// The body is the whole file.
int whole_take(Download* download, const Judgement& judged) {
    const FileFacts* facts = judged.proven ? &judged.facts : nullptr;
    int result = download->file.Create(judged.facts.total, facts);
    if (result != 0) return file_fail(download, result);
    download->found = false;
    download->outcome.resumed = 0;
    BodyMessage body;
    if (judged.sized) {
        download->progress.Begin(0, judged.facts.total);
        body.limit = judged.facts.total;
    } else {
        download->progress.BeginUnknown();
        body.limit = download->file.Room();
    }
    result = body_take(download, body, judged.sized);
    return result != 0 ? result : file_finish(download);
}

// The body is the end of what is there, and what is missing.
int part_take(Download* download, const Request& request) {
    int result = download->file.Continue();
    if (result != 0) return file_fail(download, result);
    download->outcome.resumed = request.first;
    const bool was_whole = download->file.whole();
    const uint64_t total = download->file.facts().total;
    download->progress.Begin(request.first, total);
    BodyMessage body;
    body.offset = request.first;
    body.compare = static_cast<uint32_t>(request.size - request.first);
    body.limit = total - request.first;
    result = body_take(download, body, true);
    if (result != 0) return result;
    result = file_finish(download);
    return result == 0 && was_whole ? HTTP_DOWNLOAD_COMPLETE_ALREADY : result;
}

// The server has nothing newer than the whole file that is there.
int whole_keep(Download* download) {
    int result = download->file.Continue();
    if (result != 0) return file_fail(download, result);
    download->outcome.resumed = download->file.size();
    download->progress.Begin(download->file.size(), download->file.size());
    result = file_finish(download);
    return result == 0 ? HTTP_DOWNLOAD_COMPLETE_ALREADY : result;
}

int response_follow(Download* download, const Request& request) {
    const HeadMessage& head = download->message.head;
    const Judgement judged = response_judge(head, request);
    trace(download->job.debug, "status %d", head.status);
    if (judged.verdict == Verdict::Whole) return whole_take(download, judged);
    if (judged.verdict == Verdict::Part) return part_take(download, request);
    target_drop(download);
    switch (judged.verdict) {
        case Verdict::Redirect:
            download->outcome.redirected = 1;
            return follow_up(download, download->place.url, head.location);
        case Verdict::Restart:
            return restart_whole(download);
        case Verdict::Kept:
            return whole_keep(download);
        case Verdict::Whole:
        case Verdict::Part:
        case Verdict::Failed:
            break;
    }
    const bool refused = judged.result == DOWNLOAD_BAD_STATUS;
    return fail(download, judged.result,
                refused ? HTTP_DOWNLOAD_REASON_STATUS : HTTP_DOWNLOAD_REASON_ANSWER, head.status);
}

// One request and what follows from its response.
int hop_run(Download* download) {
    uint32_t address = 0;
    int result = target_set(download, &address);
    if (result != 0) return result;
    const Request request = request_make(*download, download->place.resource);
    result = response_get(download, request, address);
    if (result != 0) return result;
    if (download->message.type == MessageType::End) {
        result = end_result(download, true);
        return result == 0 ? int{DOWNLOAD_BROKEN} : result;  // without a response nothing is whole
    }
    if (download->message.type != MessageType::Head) return DOWNLOAD_BROKEN;
    return response_follow(download, request);
}

int hops_run(Download* download) {
    if (!text_copy(download->target.reference, download->job.url)) return DOWNLOAD_BAD_URL;
    download->found = download->job.resume && download->file.Find();
    if (download->found) {
        trace(download->job.debug, "%llu of %llu bytes are there",
              static_cast<unsigned long long>(download->file.size()),
              static_cast<unsigned long long>(download->file.facts().total));
    }
    for (int hop = 0; hop < HOP_MAX; ++hop) {
        const int result = hop_run(download);
        if (result != FOLLOW_UP) return result;
    }
    return fail(download, DOWNLOAD_BAD_STATUS, HTTP_DOWNLOAD_REASON_ANSWER);
}

void outcome_note(Download* download, int result) {
    http_download_outcome& outcome = download->outcome;
    outcome.fetched = download->taken;
    if (outcome.reason == HTTP_DOWNLOAD_REASON_UNKNOWN && result == DOWNLOAD_BROKEN) {
        outcome.reason = HTTP_DOWNLOAD_REASON_BROKEN;
    } else if (outcome.reason == HTTP_DOWNLOAD_REASON_UNKNOWN) {
        (void)fail(download, result, HTTP_DOWNLOAD_REASON_LIBRARY, result);
    }
    outcome_store(outcome, download->job.context);
}

}  // namespace

int download_run(const DownloadJob& job) {
    char shown[512] = "";
    trace(job.debug, "%s to %s, %s", trace_url(job.url, shown), job.path,
          job.resume ? "continuing what is there" : "from the beginning");
    Download download(job);
    const int result = hops_run(&download);
    const bool whole = result == HTTP_DOWNLOAD_OK || result == HTTP_DOWNLOAD_COMPLETE_ALREADY;
    // A program that is still busy has to end before the file is anybody else's.
    if (download.is_open) {
        download.agent.End();
    } else {
        download.agent.Leave();
    }
    if (!whole && result != HTTP_DOWNLOAD_CANCELLED) download.file.Keep();
    outcome_note(&download, result);
    trace(job.debug, "%s ends with %d, %llu bytes", job.path, result,
          static_cast<unsigned long long>(download.progress.received()));
    return result;
}
