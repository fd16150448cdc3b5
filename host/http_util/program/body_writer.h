// Where the bytes of a body go: compared with those at the end of a part first, then
// written. They are gathered to 256 KiB: libcurl hands over 16 KiB at a time, and file
// systems take large pieces up to a third faster.
// Threads: the program's only one.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/unique_fd.h"
#include "host/http_util/protocol.h"

class BodyWriter {
  public:
    // Begins a body; what was gathered of another is forgotten.
    void Begin(UniqueFd file, const BodyMessage& body);
    // Takes the next bytes. False: no more can be taken; end() says why.
    [[nodiscard]] bool Take(const char* bytes, size_t size);
    // Writes what was gathered, as far as it goes.
    [[nodiscard]] bool Flush();
    // Closes the file.
    void Close() { file_.reset(); }

    // Reason, error and position; Whole while nothing has gone wrong.
    [[nodiscard]] const EndMessage& end() const { return end_; }
    [[nodiscard]] uint64_t position() const { return end_.position; }
    [[nodiscard]] bool has_gathered() const { return gathered_ > 0; }

  private:
    [[nodiscard]] bool Fail(EndReason reason, int error = 0);
    [[nodiscard]] bool Compare(const char* bytes, size_t size);

    UniqueFd file_;
    EndMessage end_;
    uint64_t compare_until_ = 0;  // position
    uint64_t limit_ = 0;          // bytes that may still come
    size_t gathered_ = 0;
};
