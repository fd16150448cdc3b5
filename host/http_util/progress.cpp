#include "host/http_util/progress.h"

#include <time.h>

#include <algorithm>

namespace {

constexpr uint64_t REPORT_BYTES = 256 * 1024;
constexpr int64_t REPORT_MS = 250;
// libcurl wakes up once a second while a server stalls: a full second here would
// make the callback come every other time.
constexpr int64_t IDLE_MS = 600;

int64_t monotonic_ms() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

Progress::Progress(DownloadCtx* context) : context_(context), called_ms_(monotonic_ms()) {
    context_->received = 0;
    context_->total = 1;  // unknown; equal sizes would mean a finished file
}

void Progress::Begin(uint64_t offset, uint64_t total) {
    received_ = reported_ = offset;
    total_ = total;
    known_ = true;
}

void Progress::BeginUnknown() {
    received_ = reported_ = 0;
    known_ = false;
}

bool Progress::Tick() {
    if (cancelled_) return false;
    // The last bytes are held back for Finish(): until they are synced nothing is finished.
    if (known_ && received_ >= total_) return true;
    const uint64_t fresh = received_ - reported_;
    if (fresh >= REPORT_BYTES) return Call();
    const int64_t idle_ms = monotonic_ms() - called_ms_;
    return idle_ms < (fresh > 0 ? REPORT_MS : IDLE_MS) || Call();
}

bool Progress::Finish() {
    known_ = true;
    total_ = received_;
    return Call();
}

bool Progress::Call() {
    const uint64_t count = std::min(received_ - reported_, uint64_t{INT32_MAX});
    reported_ = received_;
    called_ms_ = monotonic_ms();
    context_->received = received_;
    context_->total = known_ ? total_ : received_ + 1;  // at least one more byte is to come
    if (context_->progress != nullptr) {
        cancelled_ = context_->progress(context_, static_cast<int32_t>(count)) < 0;
    }
    return !cancelled_;
}
