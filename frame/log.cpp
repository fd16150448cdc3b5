// Debug print and dump file. Every dump call opens, appends and closes the file
// on its own, so that a collected or deleted file never leaves the daemon
// writing into nothing; lines of concurrent writers may interleave with another
// line's end, which support can live with.
#include "frame/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "base/shown_text.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "base/working_dir.h"
#include "frame/platform/http_update.h"
#include "frame/platform/syslog_new.h"

static constexpr size_t LINE_SIZE = 1024;
static constexpr off_t DUMP_LIMIT_BYTES = 512 * 1024;

std::atomic<uint32_t> DebugMask{0};

static uint32_t level_bits(int level) {
    switch (level) {
        case HTTPC_LOG_INFO:
            return DEBUG_INFO;
        case HTTPC_LOG_SEND:
            return DEBUG_INFO | DEBUG_CONNECT;
        case HTTPC_LOG_CONNECT:
            return DEBUG_CONNECT;
        case HTTPC_LOG_REGISTER:
            return DEBUG_REGISTER;
        case HTTPC_LOG_ERROR:
            return DEBUG_ERROR;
        default:
            return 0;
    }
}

namespace {
// syslog's, with the word that stands in the line.
struct Priority {
    int number;
    const char* word;
};
}  // namespace

[[gnu::format(printf, 2, 0)]] static void system_log(Priority priority, const char* format,
                                                     va_list args) {
    const int saved_errno = errno;
    char text[LINE_SIZE] = {};
    (void)vsnprintf(text, sizeof(text), format, args);  // a cut line is still a line
    constexpr int output = 2;                           // fixed; its meaning is the library's
    (void)printk_syslog_ext(priority.number, "HTTPC", priority.word, output, "%s\n", text);
    errno = saved_errno;
}

void http_client_debug_print(int level, const char* format, ...) {
    if ((DebugMask.load(std::memory_order_relaxed) & level_bits(level)) == 0) return;
    va_list args;
    va_start(args, format);
    system_log({7, "DEBUG"}, format, args);
    va_end(args);
}

void http_client_notice(const char* format, ...) {
    va_list args;
    va_start(args, format);
    system_log({5, "NOTICE"}, format, args);
    va_end(args);
}

void http_client_warning(const char* format, ...) {
    va_list args;
    va_start(args, format);
    system_log({4, "WARNING"}, format, args);
    va_end(args);
}

// Never through a symbolic link, and never waiting for a reader: other users may
// put files into the directory.
static int dump_open(const char* path) {
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    return open(path, flags, 0777);
}

static void dump_write(int fd, const char* line) {
    struct stat status {};
    if (fstat(fd, &status) == 0 && status.st_size > DUMP_LIMIT_BYTES) {
        if (ftruncate(fd, 0) != 0) return;  // a file that can't shrink must not grow either
    }
    // A line that can't be written is lost: logging never fails its caller.
    if (write(fd, line, strlen(line)) < 0) return;
    (void)!write(fd, "\r\n", 2);
}

static void dump(const char (&line)[LINE_SIZE]) {
    char path[PATH_SIZE];
    working_path(process_tmp_dir, DUMP_FILE, path);
    const UniqueFd file(dump_open(path));
    const int open_errno = errno;
    if (file.valid()) {
        dump_write(file.get(), ShownText(line).get());
    } else if (open_errno != ENOENT) {
        http_client_debug_print(HTTPC_LOG_REGISTER, "%d %s open file [%s] fail, err:%s", getpid(),
                                "http_client_debug_dump", path, strerror(open_errno));
    }
    if (file.valid() || open_errno != ENOENT) {
        http_client_debug_print(HTTPC_LOG_REGISTER, "%s", line);
    }
}

[[gnu::format(printf, 2, 0)]] static void dump_line_fill(char (&line)[LINE_SIZE],
                                                         const char* format, va_list args) {
    memset(line, 0, sizeof(line));
    http_update_client_get_tmtime(line, sizeof(line));
    size_t length = strnlen(line, sizeof(line) - 1);
    (void)text_appendf(line, sizeof(line), &length, " %d:", getpid());
    (void)text_vappendf(line, sizeof(line), &length, format, args);
}

void http_client_debug_dump(const char* format, ...) {
    const int saved_errno = errno;
    char line[LINE_SIZE];
    va_list args;
    va_start(args, format);
    dump_line_fill(line, format, args);
    va_end(args);
    dump(line);
    errno = saved_errno;
}

void http_client_debug_dump_exit(const char* format, ...) {
    char line[LINE_SIZE];
    va_list args;
    va_start(args, format);
    dump_line_fill(line, format, args);
    va_end(args);
    dump(line);
    const ShownText shown(line);
    (void)!write(STDERR_FILENO, shown.get(), strlen(shown.get()));
    (void)!write(STDERR_FILENO, "\n", 1);
    _exit(EXIT_FAILURE);
}
