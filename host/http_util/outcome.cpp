// A context has 24 bytes for it, in three places.
#include "host/http_util/outcome.h"

#include <cstring>

namespace {

// What is in reserved_0; a context that was never used has zeroes there.
struct Failure {
    uint8_t stored;
    uint8_t redirected;
    int16_t reason;
    int32_t number;
};
static_assert(sizeof(Failure) == sizeof(DownloadCtx::reserved_0));
static_assert(sizeof(uint64_t) == sizeof(DownloadCtx::reserved_24));
static_assert(sizeof(uint64_t) == sizeof(DownloadCtx::reserved_40));

}  // namespace

void outcome_store(const http_download_outcome& outcome, DownloadCtx* context) {
    const Failure failure{1, static_cast<uint8_t>(outcome.redirected != 0 ? 1 : 0),
                          static_cast<int16_t>(outcome.reason), outcome.number};
    memcpy(context->reserved_0, &failure, sizeof(failure));
    memcpy(context->reserved_24, &outcome.resumed, sizeof(outcome.resumed));
    memcpy(context->reserved_40, &outcome.fetched, sizeof(outcome.fetched));
}

bool outcome_load(const DownloadCtx& context, http_download_outcome* outcome) {
    Failure failure{};
    memcpy(&failure, context.reserved_0, sizeof(failure));
    if (failure.stored != 1) return false;
    outcome->redirected = failure.redirected;
    outcome->reason = failure.reason;
    outcome->number = failure.number;
    memcpy(&outcome->resumed, context.reserved_24, sizeof(outcome->resumed));
    memcpy(&outcome->fetched, context.reserved_40, sizeof(outcome->fetched));
    return true;
}
