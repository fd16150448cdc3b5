// A part may be continued only when nothing else than the rest of the same file can come
// of it. A strong entity tag proves that by itself, wherever the file is fetched from;
// a date only together with path and size. Servers make their tags of time and size,
// one second fine: neither counts when the file changed in the second of the response.

#include "host/http_util/judge.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/text.h"
#include "host/http_util/failure.h"

namespace {

bool usable(const HeadMessage& head, uint32_t fields) { return (head.unusable & fields) == 0; }

// It is going to be a line of a mark and of a request.
bool tag_is_strong(std::string_view tag) {
    return tag.size() > 2 && tag.starts_with('"') && tag.ends_with('"') &&
           std::all_of(tag.begin(), tag.end(), [](char c) { return c > ' ' && c != 0x7f; });
}

bool validator_take(const HeadMessage& head, FileFacts* facts) {
    if (!usable(head, HEAD_TAG | HEAD_MODIFIED | HEAD_DATE)) return false;
    const bool settled = head.modified_s != -1 && head.date_s > head.modified_s;
    if (tag_is_strong(head.tag) && (settled || head.modified[0] == '\0')) {
        return text_copy(facts->validator, head.tag);
    }
    return settled && text_copy(facts->validator, head.modified);
}

bool validator_agrees(const HeadMessage& head, const Request& request) {
    const FileFacts& facts = *request.facts;
    if (facts.tagged()) return usable(head, HEAD_TAG) && strcmp(head.tag, facts.validator) == 0;
    return usable(head, HEAD_MODIFIED) && strcmp(head.modified, facts.validator) == 0 &&
           request.may_match();
}

// "bytes FIRST-LAST/TOTAL" with exactly the range that was asked for.
bool range_agrees(const HeadMessage& head, const Request& request) {
    const auto total = static_cast<unsigned long long>(request.facts->total);
    char expected[sizeof(head.range)] = "";
    size_t length = 0;
    (void)text_appendf(expected, sizeof(expected), &length, "bytes %llu-%llu/%llu",
                       static_cast<unsigned long long>(request.first), total - 1, total);
    return usable(head, HEAD_RANGE) && strcasecmp(head.range, expected) == 0;
}

// No coding was asked for: a body in one is not the file.
bool is_plain(const char* coding) {
    return coding[0] == '\0' || strcasecmp(coding, "identity") == 0;
}

bool is_chunked(const HeadMessage& head) { return strcasecmp(head.transfer, "chunked") == 0; }

bool body_is_clear(const HeadMessage& head) {
    return usable(head, HEAD_LENGTH | HEAD_ENCODING | HEAD_TRANSFER) && is_plain(head.encoding) &&
           (is_plain(head.transfer) || is_chunked(head));
}

Judgement failed(int result) { return {.verdict = Verdict::Failed, .result = result}; }

Judgement whole_judge(const HeadMessage& head, const Request& request) {
    if (!body_is_clear(head)) return failed(DOWNLOAD_BAD_ANSWER);
    const bool chunked = is_chunked(head);
    // Without both, a cut file would look like a whole one.
    if (head.length < 0 && !chunked) return failed(DOWNLOAD_NO_LENGTH);
    Judgement judged{.verdict = Verdict::Whole, .sized = !chunked};
    if (!judged.sized) return judged;
    judged.facts.total = static_cast<uint64_t>(head.length);
    // A server without ranges may still say that nothing has changed.
    if (request.facts != nullptr && request.size == request.facts->total &&
        request.size == judged.facts.total && validator_agrees(head, request)) {
        return {.verdict = Verdict::Kept};
    }
    judged.proven = head.length > 0 && validator_take(head, &judged.facts) &&
                    (judged.facts.tagged() || (request.resource[0] != '\0' &&
                                               text_copy(judged.facts.resource, request.resource)));
    return judged;
}

Judgement part_judge(const HeadMessage& head, const Request& request) {
    if (!request.ranged) return failed(DOWNLOAD_BAD_STATUS);
    const auto expected = static_cast<int64_t>(request.facts->total - request.first);
    const bool proven = body_is_clear(head) && range_agrees(head, request) &&
                        validator_agrees(head, request) &&
                        (head.length < 0 || is_chunked(head) || head.length == expected);
    return {.verdict = proven ? Verdict::Part : Verdict::Restart};
}

Judgement redirect_judge(const HeadMessage& head) {
    if (head.location[0] == '\0' || !usable(head, HEAD_LOCATION)) {
        return failed(DOWNLOAD_BAD_STATUS);
    }
    return {.verdict = Verdict::Redirect};
}

}  // namespace

bool Request::may_match() const {
    return facts != nullptr && (facts->tagged() || strcmp(facts->resource, resource) == 0);
}

Judgement response_judge(const HeadMessage& head, const Request& request) {
    switch (head.status) {
        case 200:
            return whole_judge(head, request);
        case 206:
            return part_judge(head, request);
        case 301:
        case 302:
        case 303:
        case 307:
        case 308:
            return redirect_judge(head);
        case 404:
        case 410:
            return failed(DOWNLOAD_BAD_STATUS);
        default:
            // Servers refuse ranges in many ways, some with 400 for one beyond the end.
            if (request.ranged) return {.verdict = Verdict::Restart};
            return failed(DOWNLOAD_BAD_STATUS);
    }
}
