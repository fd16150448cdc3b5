// A response to a download: its header as libcurl gives it, and what it means for the file.
#include <curl/curl.h>

#include <memory>

#include "host/http_util/judge.h"
#include "host/http_util/program/response.h"
#include "tests/fuzz/server.h"

static void Prepare() { Require(curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK); }

static HeadMessage Head() {
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(),
                                                                   curl_easy_cleanup);
    curl_easy_setopt(easy.get(), CURLOPT_URL, "http://127.0.0.1/a?b");
    curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(
        easy.get(), CURLOPT_WRITEFUNCTION, +[](char*, size_t, size_t size, void*) { return size; });
    (void)curl_easy_perform(easy.get());
    return response_head(easy.get());
}

static void Judge(const HeadMessage& head, const Request& request) {
    const Judgement judged = response_judge(head, request);
    const std::string_view validator(judged.facts.validator);
    Require(!judged.proven || (judged.facts.total > 0 && !validator.empty() &&
                               validator.find('\n') == std::string_view::npos));
    Require(judged.verdict != Verdict::Part || (request.ranged && head.status == 206));
    Require(judged.verdict != Verdict::Whole || head.status == 200);
    Require(judged.verdict != Verdict::Kept || request.size == request.facts->total);
}

static void Try(std::string_view input) {
    s_answers = input;
    const HeadMessage head = Head();
    s_server.reset();
    Judge(head, {.resource = "/a?b"});
    for (const char* validator : {"\"tag\"", "Sun, 06 Nov 1994 08:49:37 GMT"}) {
        const FileFacts facts = {20, "", "/a?b"};
        memcpy(const_cast<char*>(facts.validator), validator, strlen(validator));
        for (const uint64_t size : {10u, 20u}) Judge(head, {"/a?b", &facts, size, true, size - 1});
    }
}
