// Bytes are compared and written at explicit positions (pread, pwrite): the file is open
// in the library, too, which syncs it meanwhile. The first difference ends the body before
// anything is written over.
#include "host/http_util/program/body_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr size_t GATHER_BYTES = 256 * 1024;

// There is one body at a time.
char s_gathered[GATHER_BYTES];

}  // namespace

void BodyWriter::Begin(UniqueFd file, const BodyMessage& body) {
    file_ = static_cast<UniqueFd&&>(file);
    end_ = EndMessage();
    end_.reason = EndReason::Whole;
    end_.position = body.offset;
    compare_until_ = body.offset + body.compare;
    limit_ = body.limit;
    gathered_ = 0;
}

bool BodyWriter::Fail(EndReason reason, int error) {
    end_.reason = reason;
    end_.error = error;
    gathered_ = 0;  // never written out of place later
    return false;
}

bool BodyWriter::Compare(const char* bytes, size_t size) {
    char expected[16384];
    while (size > 0) {
        const size_t asked = std::min(size, sizeof(expected));
        const ssize_t got = pread(file_.get(), expected, asked, static_cast<off_t>(end_.position));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return Fail(EndReason::WriteFailed, errno);
        if (got == 0 || memcmp(expected, bytes, static_cast<size_t>(got)) != 0) {
            return Fail(EndReason::Differs);
        }
        bytes += got;
        size -= static_cast<size_t>(got);
        end_.position += static_cast<uint64_t>(got);
    }
    return true;
}

bool BodyWriter::Take(const char* bytes, size_t size) {
    if (end_.reason != EndReason::Whole) return false;
    if (size > limit_) return Fail(EndReason::TooLong);
    limit_ -= size;
    if (end_.position < compare_until_) {
        const size_t compared = std::min(uint64_t{size}, compare_until_ - end_.position);
        if (!Compare(bytes, compared)) return false;
        bytes += compared;
        size -= compared;
    }
    while (size > 0) {
        const size_t taken = std::min(size, GATHER_BYTES - gathered_);
        memcpy(s_gathered + gathered_, bytes, taken);
        gathered_ += taken;
        bytes += taken;
        size -= taken;
        if (gathered_ == GATHER_BYTES && !Flush()) return false;
    }
    return true;
}

bool BodyWriter::Flush() {
    for (size_t done = 0; done < gathered_;) {
        const ssize_t written = pwrite(file_.get(), s_gathered + done, gathered_ - done,
                                       static_cast<off_t>(end_.position));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return Fail(EndReason::WriteFailed, written < 0 ? errno : ENOSPC);
        done += static_cast<size_t>(written);
        end_.position += static_cast<uint64_t>(written);
    }
    gathered_ = 0;
    return end_.reason == EndReason::Whole;
}
