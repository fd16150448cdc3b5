// What a download tells its caller while it goes on: the two sizes of the context
// and the callback, often enough to cancel within a second and seldom enough to
// cost nothing.
// Threads: the thread of the download.
#pragma once

#include <cstdint>

#include "frame/platform/http_util.h"

class Progress {
  public:
    explicit Progress(DownloadCtx* context);

    // The body begins at offset of a file of total bytes, as the server says.
    void Begin(uint64_t offset, uint64_t total);
    // The same without a size.
    void BeginUnknown();
    // The file has size bytes now.
    void Reach(uint64_t size) { received_ = size; }

    // Calls back when something came and when nothing was said for a second; to be
    // called at least four times a second. False: the caller wants to stop (for good:
    // it is not asked again). Never says that the file is finished.
    [[nodiscard]] bool Tick();
    // Says that the file is complete and on disk.
    [[nodiscard]] bool Finish();

    [[nodiscard]] bool cancelled() const { return cancelled_; }
    [[nodiscard]] uint64_t received() const { return received_; }
    [[nodiscard]] bool WholeSize() const { return !known_ || received_ == total_; }

  private:
    [[nodiscard]] uint64_t Reportable() const;
    bool Call();

    DownloadCtx* context_;
    uint64_t received_ = 0;
    uint64_t total_ = 0;
    uint64_t reported_ = 0;  // of received_, said to the caller
    bool known_ = false;     // total_ is the server's word
    bool finished_ = false;
    bool cancelled_ = false;
    int64_t called_ms_;
};
