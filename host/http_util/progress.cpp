// The caller takes equal sizes for a finished file. So of a file that is not synced yet
// one byte is held back, and a size that is unknown is always ahead of what came.
#include "host/http_util/progress.h"

#include <algorithm>

#include "base/clock.h"

namespace {

constexpr int64_t REPORT_MS = 200;
constexpr int64_t IDLE_MS = 1000;

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
    const int64_t quiet_ms = monotonic_ms() - called_ms_;
    return quiet_ms < (Reportable() > reported_ ? REPORT_MS : IDLE_MS) || Call();
}

bool Progress::Finish() {
    known_ = true;
    total_ = received_;
    finished_ = true;
    return Call();
}

// Equal sizes mean a finished file, which it isn't before it is synced: the last byte
// is not spoken of until then.
uint64_t Progress::Reportable() const {
    return known_ && !finished_ && received_ == total_ && total_ > 0 ? total_ - 1 : received_;
}

bool Progress::Call() {
    const uint64_t reportable = std::max(Reportable(), reported_);
    const uint64_t count = std::min(reportable - reported_, uint64_t{INT32_MAX});
    reported_ = reportable;
    called_ms_ = monotonic_ms();
    context_->received = reportable;
    // Without a size, at least one more byte is to come.
    context_->total = known_ && (total_ > 0 || finished_) ? total_ : reportable + 1;
    if (context_->progress != nullptr) {
        cancelled_ = context_->progress(context_, static_cast<int32_t>(count)) < 0;
    }
    return !cancelled_;
}
