// Walk over the configuration trees, and the file that keeps its result.
#include "host/client_new/running_config.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "base/text.h"
#include "base/unique_fd.h"
#include "base/working_dir.h"
#include "frame/platform/syslog_new.h"
#include "host/client_new/command.h"

namespace client_new {

namespace {

// No honest tree is deeper; a ring in a faulty one ends here.
constexpr int DEPTH_MAX = 64;
constexpr size_t FILE_MAX_BYTES = 262144;
// Every damaged line of a configuration gets its message; a file that is something
// else altogether must not flood the system log.
constexpr int COMPLAINTS_MAX = 500;
constexpr int SYSLOG_WARNING = LOG_WARNING;
constexpr int SYSLOG_OUTPUT = 2;  // as the daemon's own lines

// Where c2p_printf writes; null: nobody asked.
std::string* s_collected = nullptr;

void ask_writer(const cli_node* node, const std::string& words) {
    cli_record record{};
    // Words that do not fit would give a line that can't be read back.
    if (!text_copy(record.words, words) || node->handler == nullptr) return;
    record.output_flags = CLI_OUTPUT_RUNNING;
    node->handler(&record);
}

void walk(const cli_node* first, const std::string& words, int depth) {
    if (depth > DEPTH_MAX) return;
    for (const cli_node* node = first; node != Tno_alt; node = node->alternative) {
        switch (node->kind) {
            case CLI_NODE_KEYWORD:
                walk(node->next, words.empty() ? node->keyword : words + " " + node->keyword,
                     depth + 1);
                break;
            case CLI_NODE_C2P:
                ask_writer(node, words);
                walk(node->next, words, depth + 1);
                break;
            case CLI_NODE_SET_VAR:
            case CLI_NODE_NOP:
            case CLI_NODE_APPEND_POINT:
                walk(node->next, words, depth + 1);
                break;
            // What follows a typed value has no fixed words; what follows a
            // no-prefix node only ever takes something away.
            case CLI_NODE_NUMBER:
            case CLI_NODE_STRING:
            case CLI_NODE_LINE:
            case CLI_NODE_TIME:
            case CLI_NODE_NOPREFIX:
            case CLI_NODE_EOL:
                break;
        }
    }
}

void complain(const std::string& path, const std::string& reason) {
    (void)printk_syslog_ext(SYSLOG_WARNING, "CLI", "WARNING", SYSLOG_OUTPUT, "%s: %s\n",
                            path.c_str(), reason.c_str());
}

// The log takes one line: line ends at the end go, others become blanks, and
// what is no text becomes a question mark.
std::string as_one_line(std::string text) {
    while (!text.empty() && strchr("\r\n ", text.back()) != nullptr) text.pop_back();
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\r' || c == '\n' || c == '\t') c = ' ';
        if (byte < 0x20 || byte == 0x7f) c = c == ' ' ? ' ' : '?';
    }
    return text;
}

std::string error_text(const char* what) { return std::string(what) + ": " + strerror(errno); }

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

// A new file with the text, on the disk. Returns "" or the reason.
std::string write_new_file(const std::string& path, std::string_view text) {
    (void)unlink(path.c_str());  // left by a crash; the open tells if it is still there
    UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.valid()) return error_text("create");
    if (!write_all(file.get(), text)) return error_text("write");
    if (fsync(file.get()) != 0) return error_text("sync");
    if (close(file.release()) != 0) return error_text("close");
    return "";
}

void sync_directory_of(const std::string& path) {
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // The file is in place; a file system without directory sync can't do better.
    if (fd.valid()) (void)fsync(fd.get());
}

// Reads the whole file. False: *reason says why, or is empty when there is none.
bool read_file(const std::string& path, std::string* text, std::string* reason) {
    // Non-blocking, because what lies there might be a pipe.
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) {
        if (errno != ENOENT) *reason = error_text("open");
        return false;
    }
    struct stat info {};
    if (fstat(fd.get(), &info) != 0) {
        *reason = error_text("stat");
    } else if (!S_ISREG(info.st_mode)) {
        *reason = "not a plain file";
    } else if (info.st_uid != geteuid() && info.st_uid != 0) {
        *reason = "belongs to a stranger";  // the directory is open to everyone
    } else if (info.st_size > off_t{FILE_MAX_BYTES}) {
        *reason = "too large";
    }
    if (!reason->empty()) return false;
    text->resize(FILE_MAX_BYTES);
    size_t length = 0;
    while (length < text->size()) {
        const ssize_t count = read(fd.get(), text->data() + length, text->size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            *reason = error_text("read");
            return false;
        }
        if (count == 0) break;
        length += static_cast<size_t>(count);
    }
    text->resize(length);
    return true;
}

// Returns "" or what is wrong with the line.
std::string replay_line(std::string_view line, const Grammar& grammar) {
    if (line_is_blank(line)) return "";
    const Match match = match_line(grammar, line, 0);
    return as_one_line(match.handler == nullptr ? match.refusal : command_run_silent(match));
}

void append_line(const std::string& text) {
    // A line end inside would make a line of its own out of what follows it.
    *s_collected += as_one_line(text) + "\n";
}

}  // namespace

std::string running_config_text(const std::vector<const cli_node*>& trees) {
    std::string text;
    s_collected = &text;
    for (const cli_node* tree : trees) walk(tree, "", 0);
    s_collected = nullptr;
    return text;
}

std::string startup_config_path() {
    char path[PATH_SIZE];
    working_path_now(DATA_DIR, "startup-config", path);
    return path;
}

std::string startup_config_save(const std::string& path, std::string_view text) {
    if (text.size() > FILE_MAX_BYTES) return "too large";  // would not be read back
    const std::string fresh = path + ".new";
    std::string reason = write_new_file(fresh, text);
    if (reason.empty() && rename(fresh.c_str(), path.c_str()) != 0) reason = error_text("rename");
    if (!reason.empty()) {
        (void)unlink(fresh.c_str());  // nothing more can be done about it
        return reason;
    }
    sync_directory_of(path);
    return "";
}

void startup_config_replay(const std::string& path, const Grammar& grammar) {
    std::string text;
    std::string reason;
    if (!read_file(path, &text, &reason)) {
        if (!reason.empty()) complain(path, reason);
        return;
    }
    int number = 0;
    int damaged = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const size_t end = rest.find('\n');
        ++number;
        reason = replay_line(rest.substr(0, end), grammar);
        rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
        if (reason.empty() || ++damaged > COMPLAINTS_MAX) continue;
        complain(path, "line " + std::to_string(number) + ": " + reason);
    }
    if (damaged > COMPLAINTS_MAX) {
        complain(path, std::to_string(damaged - COMPLAINTS_MAX) + " more damaged lines");
    }
}

}  // namespace client_new

void c2p_printf(int flag, cli_record*, const char* format, ...) {
    if (flag != 1 || client_new::s_collected == nullptr) return;
    va_list args;
    va_start(args, format);
    client_new::append_line(client_new::format_text(format, args));
    va_end(args);
}
