// Bytes are malloc's and paths are built on the stack, so that memory shortage is an
// error like any other instead of the end of the process.
#include "base/file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/text.h"

static int check(const struct stat& status, unsigned demands) {
    if (!S_ISREG(status.st_mode)) return EINVAL;
    const bool ours = status.st_uid == geteuid() || status.st_uid == 0;
    if ((demands & FILE_OURS) != 0 && !ours) return EPERM;
    if ((demands & FILE_OURS_TO_CHANGE) != 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return EPERM;
    }
    if ((demands & FILE_ONE_NAME) != 0 && status.st_nlink != 1) return EMLINK;
    return 0;
}

static int open_checked(const char* path, int access, unsigned demands, UniqueFd* file,
                        struct stat* status) {
    // Not blocking, for a FIFO waits for its other end; and no terminal of ours.
    const int link = (demands & FILE_NO_LINK) != 0 ? O_NOFOLLOW : 0;
    UniqueFd fd(open(path, access | link | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd.valid() || fstat(fd.get(), status) != 0) return errno;
    const int error = check(*status, demands);
    if (error == 0) *file = std::move(fd);
    return error;
}

int file_open(const char* path, int access, unsigned demands, UniqueFd* file) {
    struct stat status {};
    return open_checked(path, access, demands, file, &status);
}

int file_read_some(int fd, std::span<char> buffer, size_t* size) {
    size_t total = 0;
    while (total < buffer.size()) {
        const ssize_t count = read(fd, buffer.data() + total, buffer.size() - total);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        if (count == 0) break;
        total += static_cast<size_t>(count);
    }
    *size = total;
    return 0;
}

int file_read(const char* path, unsigned demands, size_t limit, FileBytes* bytes) {
    UniqueFd fd;
    struct stat status {};
    int error = open_checked(path, O_RDONLY, demands, &fd, &status);
    if (error != 0) return error;
    const auto size = static_cast<size_t>(status.st_size);
    if (size > limit) return EFBIG;
    FileBytes found;
    found.bytes.reset(static_cast<char*>(malloc(size + 1)));  // of an empty file, too
    if (found.bytes == nullptr) return ENOMEM;
    error = file_read_some(fd.get(), {found.bytes.get(), size}, &found.size);
    if (error != 0) return error;
    found.bytes.get()[found.size] = '\0';
    found.modified_s = status.st_mtim.tv_sec;
    *bytes = std::move(found);
    return 0;
}

int file_write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<size_t>(count));
        } else if (errno == EAGAIN) {
            pollfd waiting{fd, POLLOUT, 0};
            (void)poll(&waiting, 1, -1);  // the next write tells
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

static int write_new(const char* path, std::string_view bytes, mode_t mode) {
    (void)unlink(path);  // left by a crash; the open tells if something is still there
    const UniqueFd fd(open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd.valid()) return errno;
    const int error = file_write_all(fd.get(), bytes);
    if (error != 0) return error;
    return fsync(fd.get()) == 0 ? 0 : errno;
}

int file_replace(const char* path, std::string_view bytes, mode_t mode) {
    char beside[PATH_MAX];
    size_t length = 0;
    if (!text_appendf(beside, sizeof(beside), &length, "%s.new", path)) return ENAMETOOLONG;
    int error = write_new(beside, bytes, mode);
    if (error == 0 && rename(beside, path) != 0) error = errno;
    if (error == 0) return file_sync_directory(path);
    (void)unlink(beside);  // nothing more can be done about it
    return error;
}

int file_sync_directory(const char* path) {
    char directory[PATH_MAX];
    const char* slash = strrchr(path, '/');
    const auto whole = text_copy(
        directory,
        slash == nullptr ? "." : std::string_view(path, static_cast<size_t>(slash + 1 - path)));
    if (!whole) return ENAMETOOLONG;
    const UniqueFd fd(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid()) return errno;
    // Not every file system can sync a directory; the change itself then has to do.
    return fsync(fd.get()) == 0 || errno == EINVAL ? 0 : errno;
}
