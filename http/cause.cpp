// The words are made for people without a manual: what they can check comes first (the
// place), then what was seen there. Numbers stay where they help to look further.
#include "http/cause.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <iterator>

#include "base/shown_text.h"
#include "base/text.h"

static constexpr const char* PHASE_NAMES[] = {"none",  "look-up",  "connect",  "query",
                                              "reply", "download", "hand-over"};
static_assert(std::size(PHASE_NAMES) == static_cast<size_t>(CausePhase::HandOver) + 1);

static constexpr const char* REASON_NAMES[] = {
    "none", "system",     "name-service", "http-status", "no-answer", "too-slow", "closed",
    "file", "no-storage", "no-memory",    "cancelled",   "unusable",  "other"};
static_assert(std::size(REASON_NAMES) == static_cast<size_t>(CauseReason::Other) + 1);

const char* cause_phase_name(CausePhase phase) { return PHASE_NAMES[static_cast<size_t>(phase)]; }

const char* cause_reason_name(CauseReason reason) {
    return REASON_NAMES[static_cast<size_t>(reason)];
}

// Index of the name; 0, which is "none", when there is none such.
template <size_t N>
static size_t name_index(const char* const (&names)[N], std::string_view name) {
    const auto* found = std::find(std::begin(names), std::end(names), name);
    return found == std::end(names) ? 0 : static_cast<size_t>(found - names);
}

CausePhase cause_phase_of(std::string_view name) {
    return static_cast<CausePhase>(name_index(PHASE_NAMES, name));
}

CauseReason cause_reason_of(std::string_view name) {
    return static_cast<CauseReason>(name_index(REASON_NAMES, name));
}

void cause_begin(Cause* cause, std::string_view host, uint16_t port) {
    if (cause == nullptr) return;
    *cause = {};
    (void)text_copy(cause->host, host);
    cause->port = port;
}

void cause_set(Cause* cause, CausePhase phase, CauseReason reason, int32_t number) {
    if (cause == nullptr) return;
    cause->phase = phase;
    cause->reason = reason;
    cause->number = number;
    cause->text[0] = '\0';
}

void cause_set_unusable(Cause* cause, CausePhase phase, std::string_view text) {
    if (cause == nullptr) return;
    cause_set(cause, phase, CauseReason::Unusable);
    (void)text_copy(cause->text, text);
}

void cause_set_errno(Cause* cause, CausePhase phase, int error, int silence_s) {
    switch (error) {
        case 0:
            return cause_set(cause, phase, CauseReason::Closed);
        case ETIMEDOUT:
            return cause_set(cause, phase, CauseReason::NoAnswer, silence_s);
        case ETIME:
            return cause_set(cause, phase, CauseReason::TooSlow);
        case ECANCELED:
            return cause_set(cause, phase, CauseReason::Cancelled);
        case ENOMEM:
            return cause_set(cause, phase, CauseReason::NoMemory);
        case ENOSPC:
        case EDQUOT:
            return cause_set(cause, phase, CauseReason::NoStorage);
        default:
            return cause_set(cause, phase, CauseReason::System, error);
    }
}

// --- words

static const char* error_words(int error) {
    switch (error) {
        case ECONNREFUSED:
            return "connection refused";
        case ENETUNREACH:
            return "network unreachable";
        case EHOSTUNREACH:
            return "host unreachable";
        case EADDRNOTAVAIL:
            return "the source address is none of this device's";
        case ECONNRESET:
        case EPIPE:
            return "connection reset by the server";
        case EROFS:
            return "read-only file system";
        default:
            return strerror(error);
    }
}

static const char* name_service_words(int result) {
    switch (result) {
        case 3:
            return " (no name server answers)";
        case 4:
            return " (the name servers fail or are out of reach)";
        default:
            return "";
    }
}

// Whether a server has to do with it, so that its place helps.
static bool is_at_server(const Cause& cause) {
    switch (cause.reason) {
        case CauseReason::NameService:  // names the host itself
        case CauseReason::File:
        case CauseReason::NoStorage:
        case CauseReason::NoMemory:
        case CauseReason::Cancelled:
            return false;
        default:
            return cause.host[0] != '\0' && cause.phase != CausePhase::HandOver;
    }
}

static const char* plain_words(const Cause& cause) {
    switch (cause.reason) {
        case CauseReason::TooSlow:
            return "too slow, less than 512 bytes a second over two minutes";
        case CauseReason::Closed:
            return cause.phase == CausePhase::Download ? "the connection broke off"
                                                       : "connection closed without an answer";
        case CauseReason::NoStorage:
            return "disk full";
        case CauseReason::NoMemory:
            return "out of memory";
        case CauseReason::Cancelled:
            return "cancelled by the operator";
        default:
            return error_words(cause.number);
    }
}

void CauseWords::Append(const char* format, ...) {
    va_list args;
    va_start(args, format);
    (void)text_vappendf(text_, sizeof(text_), &length_, format, args);
    va_end(args);
}

void CauseWords::AppendPlace(const Cause& cause) {
    const bool at_server = is_at_server(cause);
    if (cause.file[0] != '\0') {
        Append(at_server ? "%s from " : "%s: ", ShownText(cause.file).get());
    }
    if (!at_server) return;
    Append("%s:%u", ShownText(cause.host).get(), cause.port);
    Append(cause.redirected ? ", redirected: " : ": ");
}

void CauseWords::AppendReason(const Cause& cause) {
    switch (cause.reason) {
        case CauseReason::NameService:
            return Append("no address for %s%s", ShownText(cause.host).get(),
                          name_service_words(cause.number));
        case CauseReason::HttpStatus:
            return Append("HTTP %d", cause.number);
        case CauseReason::NoAnswer:
            if (cause.number == 0) return Append("no answer in time");
            return Append("no answer within %d s", cause.number);
        case CauseReason::Unusable:
            if (cause.phase == CausePhase::Reply) Append("reply unusable: ");
            return Append("%s", ShownText(cause.text).get());
        case CauseReason::Other:
            return Append("download failed (code %d)", cause.number);
        default:
            return Append("%s", plain_words(cause));
    }
}

CauseWords::CauseWords(const Cause& cause) {
    if (cause.reason == CauseReason::None) return;
    AppendPlace(cause);
    AppendReason(cause);
}
