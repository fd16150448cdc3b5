// Which bytes count: within the start of the machine that wrote them all of the file,
// since the page cache has them; after another start those that were synced before,
// since the length of a file may count bytes that never reached the disk. A sync that
// failed takes that trust away: the kernel may drop what it could not write, and says
// so only once.

#include "host/http_util/partial_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/clock.h"
#include "base/file.h"
#include "base/text.h"
#include "host/http_util/failure.h"

namespace {

constexpr mode_t FILE_MODE = 0644;
constexpr size_t DIRECTORY_SIZE = 1024;

// A mark costs the file system a block. A smaller file gets it when it is complete or
// has failed; if the daemon is killed meanwhile, little is fetched again.
constexpr uint64_t MARK_BYTES = 256 * 1024;

// A power cut costs at most this much, or what came in this time.
constexpr uint64_t SYNC_BYTES = 16 << 20;
constexpr int64_t SYNC_MS = 30000;

// A thread for a sync of less would cost more than the sync.
constexpr uint64_t QUICK_SYNC_BYTES = 1 << 20;

constexpr uint64_t RESERVE_BYTES = 16 << 20;
constexpr uint64_t RESERVE_SHARE = 16;

constexpr int TICK_MS = 250;

const char* name_of(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

// Bytes of a file of size bytes that its mark vouches for; 0: none.
uint64_t bytes_believed(const Mark& mark, uint64_t size) {
    const bool same_boot = mark.boot[0] != '\0' && strcmp(mark.boot, boot_id()) == 0;
    const uint64_t believed = same_boot ? size : mark.synced;
    return believed <= size && believed <= mark.facts.total ? believed : 0;
}

}  // namespace

void PartialFile::Sync::operator()() {
    error = fdatasync(file.get()) == 0 ? 0 : errno;
    if (error != 0) return;
    // Only now is it true; and the directory's sync takes it along. Where it fails the
    // older mark holds.
    if (marked) (void)mark_write(file.get(), mark);
    if (!directory.valid()) return;
    // A file system that can't sync a directory says EINVAL; there is nothing to wait for.
    if (fsync(directory.get()) != 0 && errno != EINVAL) error = errno;
}

bool PartialFile::Find() {
    constexpr unsigned DEMANDS = FILE_NO_LINK | FILE_OURS | FILE_OURS_TO_CHANGE | FILE_ONE_NAME;
    struct stat facts {};
    if (file_open(path_, O_RDWR, DEMANDS, &fd_) == 0 && fstat(fd_.get(), &facts) == 0 &&
        mark_read(fd_.get(), &mark_)) {
        size_ = bytes_believed(mark_, static_cast<uint64_t>(facts.st_size));
    }
    if (size_ == 0) fd_.reset();
    return size_ > 0;
}

bool PartialFile::OpenDirectory() {
    if (directory_.valid()) return true;
    char directory[DIRECTORY_SIZE] = ".";
    const char* name = name_of(path_);
    // "/" of a file in the root directory stays.
    const auto length = static_cast<size_t>(std::max(name - path_ - 1, ptrdiff_t{1}));
    if (name != path_ && !text_copy(directory, {path_, length})) return false;
    directory_.reset(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory_.valid();
}

// In the common case nothing lies there, and one call does it.
int PartialFile::OpenNew() {
    const char* name = name_of(path_);
    const auto create = [&] {
        fd_.reset(openat(directory_.get(), name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, FILE_MODE));
        return fd_.valid() ? 0 : errno;
    };
    int error = create();
    if (error != EEXIST) return error == 0 ? 0 : file_error(error);
    struct stat old {};
    if (fstatat(directory_.get(), name, &old, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(old.st_mode) &&
        !S_ISLNK(old.st_mode)) {
        return DOWNLOAD_BAD_FILE;
    }
    if (unlinkat(directory_.get(), name, 0) != 0 && errno != ENOENT) return file_error(errno);
    error = create();
    return error == 0 ? 0 : file_error(error);
}

int PartialFile::Create(uint64_t size_bytes, const FileFacts* facts) {
    if (!OpenDirectory()) return file_error(errno);
    if (!RoomFor(size_bytes)) return HTTP_DOWNLOAD_NO_STORAGE;
    const int result = OpenNew();
    if (result != 0) return result;
    size_ = 0;
    mark_ = {};
    marked_ = keep_ && facts != nullptr;
    if (marked_) {
        mark_.facts = *facts;
        (void)text_copy(mark_.boot, boot_id());
        // Where the file system keeps no attributes the next download begins at byte 0.
        if (facts->total >= MARK_BYTES) marked_ = mark_write(fd_.get(), mark_);
    }
    open_ = true;
    sync_size_ = 0;
    sync_ms_ = monotonic_ms();
    return 0;
}

int PartialFile::Continue() {
    if (!OpenDirectory()) return file_error(errno);
    if (!RoomFor(mark_.facts.total - size_)) return HTTP_DOWNLOAD_NO_STORAGE;
    if (ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0) return file_error(errno);
    // From here on all of the file counts again, until the next start or failed sync.
    const bool same_boot = strcmp(mark_.boot, boot_id()) == 0;
    (void)text_copy(mark_.boot, boot_id());
    marked_ = same_boot || mark_write(fd_.get(), mark_);
    open_ = true;
    sync_size_ = size_;
    sync_ms_ = monotonic_ms();
    return 0;
}

bool PartialFile::RoomFor(uint64_t size_bytes) const {
    struct statvfs facts {};
    if (fstatvfs(directory_.get(), &facts) != 0) return true;
    const uint64_t free_bytes = uint64_t{facts.f_bavail} * facts.f_frsize;
    if (size_bytes <= free_bytes) return true;
    // The old file's blocks come free when it goes, unless it has another name.
    struct stat old {};
    return fstatat(directory_.get(), name_of(path_), &old, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(old.st_mode) && old.st_nlink == 1 &&
           size_bytes <= free_bytes + static_cast<uint64_t>(old.st_blocks) * 512;
}

uint64_t PartialFile::Room() const {
    struct statvfs facts {};
    if (fstatvfs(directory_.get(), &facts) != 0) return UINT64_MAX;
    const uint64_t whole = uint64_t{facts.f_blocks} * facts.f_frsize;
    const uint64_t free_bytes = uint64_t{facts.f_bavail} * facts.f_frsize;
    const uint64_t reserve = std::min(whole / RESERVE_SHARE, RESERVE_BYTES);
    return free_bytes > reserve ? free_bytes - reserve : 0;
}

// At the end the directory's entry is synced, too.
bool PartialFile::SyncBegin(bool at_end) {
    Sync sync;
    sync.file.reset(fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0));
    if (at_end) sync.directory = std::move(directory_);
    sync.mark = mark_;
    sync.mark.synced = size_;
    sync.marked = marked_;
    const bool long_one = size_ - sync_size_ > QUICK_SYNC_BYTES;
    sync_size_ = size_;
    sync_ms_ = monotonic_ms();
    return sync.file.valid() && sync_.Start(std::move(sync), long_one);
}

// Takes the result of the sync under way when it ends within wait_ms.
int PartialFile::SyncTake(int wait_ms) {
    if (!sync_.started()) return 0;
    const Sync* done = sync_.Wait(wait_ms);
    if (done == nullptr) return 0;
    const int error = done->error;
    sync_.Abandon();
    if (error != 0) return SyncFailed(error);
    mark_.synced = sync_size_;
    return 0;
}

int PartialFile::SyncWait(Progress* progress) {
    while (sync_.started()) {
        const int result = SyncTake(TICK_MS);
        if (result != 0) return result;
        if (sync_.started() && !progress->Tick()) return HTTP_DOWNLOAD_CANCELLED;
    }
    return 0;
}

// Nothing that is not known to be on disk is believed any more, in this boot, too.
int PartialFile::SyncFailed(int error) {
    mark_.boot[0] = '\0';
    const bool trusted = marked_ && !mark_write(fd_.get(), mark_);
    marked_ = false;
    // A mark that can't be taken back must not be found.
    if (trusted && IsAtPath()) (void)unlink(path_);
    return file_error(error);
}

int PartialFile::Advance(uint64_t size) {
    size_ = size;
    if (!marked_) return 0;
    const int result = SyncTake(0);
    if (result != 0 || sync_.started()) return result;
    const bool due = size_ - sync_size_ >= SYNC_BYTES ||
                     (size_ > sync_size_ && monotonic_ms() - sync_ms_ >= SYNC_MS);
    // Without memory for it the next one is due sooner or later.
    if (due) (void)SyncBegin(false);
    return 0;
}

bool PartialFile::IsAtPath() const {
    struct stat ours {};
    struct stat there {};
    return fstat(fd_.get(), &ours) == 0 && lstat(path_, &there) == 0 &&
           ours.st_dev == there.st_dev && ours.st_ino == there.st_ino &&
           static_cast<uint64_t>(ours.st_size) == size_;
}

int PartialFile::Complete(Progress* progress) {
    // Its error must be seen: the kernel reports it to one sync only.
    int result = SyncWait(progress);
    if (result != 0) return result;
    if (!SyncBegin(true)) return HTTP_DOWNLOAD_NO_MEMORY;
    result = SyncWait(progress);
    if (result != 0) return result;
    return IsAtPath() ? 0 : DOWNLOAD_BAD_FILE;
}

void PartialFile::Keep() {
    while (sync_.started()) {
        if (SyncTake(TICK_MS) != 0) return;
    }
    if (!open_ || !marked_) return;
    if (fdatasync(fd_.get()) != 0) {
        (void)SyncFailed(errno);
        return;
    }
    mark_.synced = size_;
    (void)mark_write(fd_.get(), mark_);
}
