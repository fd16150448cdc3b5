// The attribute is text, a line a field: format, boot, synced bytes, size, validator,
// resource. After a power cut the length of a file may count bytes that never
// reached the disk, so only those noted as synced are kept; within the same boot
// the page cache has them all.

#include "host/http_util/partial_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "base/text.h"
#include "host/http_util/engine.h"

namespace {

constexpr const char* ATTRIBUTE = "user.http_client.partial";
constexpr std::string_view FORMAT = "1";
constexpr mode_t FILE_MODE = 0644;
constexpr size_t BUFFER_BYTES = 256 * 1024;
constexpr size_t BOOT_SIZE = 40;
constexpr size_t DIRECTORY_SIZE = 1024;

int file_error() {
    const bool full = errno == ENOSPC || errno == EDQUOT || errno == EFBIG;
    return full ? HTTP_DOWNLOAD_NO_STORAGE : DOWNLOAD_BAD_FILE;
}

// Changes with every start of the machine; empty where it can't be had.
void boot_id(char (&id)[BOOT_SIZE]) {
    id[0] = '\0';
    const UniqueFd fd(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return;
    const ssize_t got = read(fd.get(), id, sizeof id - 1);
    id[got > 0 ? got : 0] = '\0';
    id[strcspn(id, "\n")] = '\0';
}

// Directory of a path, "." where it has none. False when it is too long.
bool directory_of(const char* path, char (&directory)[DIRECTORY_SIZE]) {
    const char* slash = strrchr(path, '/');
    if (slash == nullptr) return text_copy(directory, ".");
    return text_copy(directory, {path, static_cast<size_t>(std::max(slash - path, ptrdiff_t{1}))});
}

// Takes the next line off the front; false when there is none.
bool line_take(std::string_view* rest, std::string_view* line) {
    const size_t end = rest->find('\n');
    if (end == std::string_view::npos) return false;
    *line = rest->substr(0, end);
    rest->remove_prefix(end + 1);
    return true;
}

bool number_parse(std::string_view text, uint64_t* number) {
    char digits[24] = "";
    if (text.empty() || !text_copy(digits, text)) return false;
    if (strspn(digits, "0123456789") != text.size()) return false;
    errno = 0;
    *number = strtoull(digits, nullptr, 10);
    return errno == 0;
}

// What the attribute says, and how many bytes may be kept of a file of size bytes.
bool mark_parse(std::string_view text, uint64_t size, PartialFacts* facts, uint64_t* keep) {
    std::string_view format;
    std::string_view boot;
    std::string_view synced;
    std::string_view total;
    std::string_view validator;
    std::string_view resource;
    if (!line_take(&text, &format) || !line_take(&text, &boot) || !line_take(&text, &synced) ||
        !line_take(&text, &total) || !line_take(&text, &validator) ||
        !line_take(&text, &resource)) {
        return false;
    }
    char this_boot[BOOT_SIZE] = "";
    boot_id(this_boot);
    uint64_t synced_bytes = 0;
    if (format != FORMAT || validator.empty() || !number_parse(synced, &synced_bytes) ||
        !number_parse(total, &facts->total) || !text_copy(facts->validator, validator) ||
        !text_copy(facts->resource, resource)) {
        return false;
    }
    const bool same_boot = !boot.empty() && boot == this_boot;
    if (!same_boot && synced_bytes > size) return false;
    *keep = same_boot ? size : synced_bytes;
    return *keep > 0 && *keep <= facts->total;
}

// Room for size bytes beside what is there; freed_blocks of 512 bytes come free.
bool room_for(const char* path, uint64_t size_bytes, blkcnt_t freed_blocks) {
    char directory[DIRECTORY_SIZE] = "";
    struct statvfs facts {};
    if (!directory_of(path, directory) || statvfs(directory, &facts) != 0) return true;
    const uint64_t free_bytes =
        uint64_t{facts.f_bavail} * facts.f_frsize + static_cast<uint64_t>(freed_blocks) * 512;
    return size_bytes <= free_bytes;
}

}  // namespace

bool PartialFile::Find(const char* resource) {
    fd_.reset(open(path_, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat facts {};
    if (!fd_.valid() || fstat(fd_.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) return false;
    char text[VALIDATOR_SIZE + RESOURCE_SIZE + 128];
    const ssize_t length = fgetxattr(fd_.get(), ATTRIBUTE, text, sizeof text);
    const bool found = length > 0 &&
                       mark_parse({text, static_cast<size_t>(length)},
                                  static_cast<uint64_t>(facts.st_size), &facts_, &size_) &&
                       strcmp(facts_.resource, resource) == 0;
    marked_ = found;
    if (!found) fd_.reset();
    return found;
}

int PartialFile::Create(uint64_t size_bytes, const PartialFacts* facts) {
    struct stat old {};
    const bool exists = lstat(path_, &old) == 0;
    if (exists && !S_ISREG(old.st_mode) && !S_ISLNK(old.st_mode)) return DOWNLOAD_BAD_FILE;
    // The old file's blocks come free when it goes, unless it has another name.
    const bool frees = exists && S_ISREG(old.st_mode) && old.st_nlink == 1;
    if (!room_for(path_, size_bytes, frees ? old.st_blocks : 0)) return HTTP_DOWNLOAD_NO_STORAGE;
    if (exists && unlink(path_) != 0 && errno != ENOENT) return DOWNLOAD_BAD_FILE;
    fd_.reset(open(path_, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, FILE_MODE));
    if (!fd_.valid()) return file_error();
    marked_ = facts != nullptr;
    if (marked_) {
        facts_ = *facts;
        Mark(0);
    }
    return Begin(0);
}

int PartialFile::Continue(uint64_t offset) {
    if (!room_for(path_, facts_.total - offset, 0)) return HTTP_DOWNLOAD_NO_STORAGE;
    const off_t position = static_cast<off_t>(offset);
    if (ftruncate(fd_.get(), position) != 0 || lseek(fd_.get(), position, SEEK_SET) != position) {
        return file_error();
    }
    return Begin(offset);
}

int PartialFile::Begin(uint64_t offset) {
    size_ = offset;
    open_ = true;
    gathered_ = 0;
    if (!buffer_) buffer_.reset(static_cast<char*>(malloc(BUFFER_BYTES)));
    return buffer_ ? 0 : HTTP_DOWNLOAD_NO_MEMORY;
}

int PartialFile::Write(const char* bytes, size_t size) {
    while (size > 0) {
        const size_t taken = std::min(size, BUFFER_BYTES - gathered_);
        memcpy(buffer_.get() + gathered_, bytes, taken);
        gathered_ += taken;
        bytes += taken;
        size -= taken;
        if (gathered_ < BUFFER_BYTES) break;
        const int result = Flush();
        if (result != 0) return result;
    }
    return 0;
}

int PartialFile::Flush() {
    const size_t size = gathered_;
    gathered_ = 0;  // after a failure the rest is lost, and never written out of place
    for (size_t done = 0; done < size;) {
        const ssize_t written = write(fd_.get(), buffer_.get() + done, size - done);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return file_error();
        done += static_cast<size_t>(written);
        size_ += static_cast<uint64_t>(written);
    }
    return 0;
}

int PartialFile::Complete() {
    const bool marked = marked_;
    marked_ = false;  // after a failed fsync() no later one can be believed
    if (marked && fremovexattr(fd_.get(), ATTRIBUTE) != 0 && errno != ENODATA && errno != ENOTSUP) {
        return file_error();
    }
    if (fsync(fd_.get()) != 0) return file_error();
    char directory[DIRECTORY_SIZE] = "";
    if (!directory_of(path_, directory)) return DOWNLOAD_BAD_FILE;
    const UniqueFd entry(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // A file system that can't sync a directory says EINVAL; there is nothing to wait for.
    if (!entry.valid() || (fsync(entry.get()) != 0 && errno != EINVAL)) return file_error();
    return 0;
}

void PartialFile::Keep() {
    if (!open_ || !marked_) return;
    if (fdatasync(fd_.get()) == 0) Mark(size_);
}

void PartialFile::Mark(uint64_t synced_bytes) const {
    char boot[BOOT_SIZE] = "";
    boot_id(boot);
    char text[VALIDATOR_SIZE + RESOURCE_SIZE + 128];
    size_t length = 0;
    const bool whole = text_appendf(text, sizeof text, &length, "%.*s\n%s\n%llu\n%llu\n%s\n%s\n",
                                    static_cast<int>(FORMAT.size()), FORMAT.data(), boot,
                                    static_cast<unsigned long long>(synced_bytes),
                                    static_cast<unsigned long long>(facts_.total), facts_.validator,
                                    facts_.resource);
    // Where the file system keeps no attributes the next download starts afresh.
    if (whole) (void)fsetxattr(fd_.get(), ATTRIBUTE, text, length, 0);
}
