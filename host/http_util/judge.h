// What a response means for the file of a download. Decided once, from its header
// alone, before a byte of its body is taken.
// Threads: any; no state.
#pragma once

#include "host/http_util/mark.h"
#include "host/http_util/protocol.h"

// The question that is answered.
struct Request {
    const char* resource = "";         // of the URL: path and query
    const FileFacts* facts = nullptr;  // of the file found at the path; null: none counts
    uint64_t size = 0;                 // bytes of it
    bool ranged = false;               // only the bytes from first on were asked for
    uint64_t first = 0;

    // The server may have this very file, so that a range is worth asking for.
    [[nodiscard]] bool may_match() const;
};

enum class Verdict {
    Whole,     // the body is the whole file
    Part,      // the body is the range
    Kept,      // the file found is complete, and still the server's
    Redirect,  // another URL
    Restart,   // the range can't be had: ask for the whole
    Failed,    // result says why
};

struct Judgement {
    Verdict verdict = Verdict::Failed;
    int result = 0;
    bool sized = false;   // of Whole: facts.total is its size
    bool proven = false;  // of Whole: facts will prove a part of it
    FileFacts facts = {};
};

[[nodiscard]] Judgement response_judge(const HeadMessage& head, const Request& request);
