// A saved line is replayed as if it were typed. Reading can fail for a while (memory or
// descriptors are short, a disk that stumbles), which is not the same as having nothing
// to read: a daemon without its settings serves nobody, and a configuration saved then
// would be the end of the good one.
#include "host/client_new/startup_config.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/file.h"
#include "base/working_dir.h"
#include "frame/platform/syslog_new.h"
#include "host/client_new/command.h"
#include "host/client_new/running_config.h"

namespace client_new {

namespace {

constexpr size_t FILE_MAX_BYTES = 262144;
// Every damaged line of a configuration gets its message; a file that is something
// else altogether must not flood the system log.
constexpr int DAMAGED_LINES_LOGGED = 500;
constexpr int SYSLOG_OUTPUT = 2;  // as the daemon's own lines

bool s_settled = false;     // replayed, or there is nothing to replay
bool s_in_the_way = false;  // what lies at the path was not read
bool s_no_means = false;    // the last try failed for want of memory or descriptors
std::string s_told;         // why it failed, once in the log

std::string config_path() {
    char path[PATH_SIZE];
    working_path(dir_prefix_now(DATA_DIR), "startup-config", path);
    return path;
}

void log_warning(const std::string& reason) {
    (void)printk_syslog_ext(LOG_WARNING, "CLI", "WARNING", SYSLOG_OUTPUT, "%s: %s\n",
                            config_path().c_str(), reason.c_str());
}

// Why the file is not believed, whatever is tried; "" for any other error.
std::string disbelief(int error) {
    switch (error) {
        case EINVAL:
        case ENXIO:  // a socket
            return "not a plain file";
        case ELOOP:
            return "a symbolic link";
        case EACCES:
        case EPERM:
            return "others own it or may write to it";  // the directory is open to everyone
        case EFBIG:
            return "too large";
        default:
            return "";
    }
}

bool is_shortage(int error) { return error == ENOMEM || error == EMFILE || error == ENFILE; }

SilentOutcome replay_line(std::string_view line, const Grammar& grammar) {
    if (line_is_blank(line)) return {};
    const Match match = match_line(grammar, line, 0);
    if (match.handler == nullptr) return {match.refusal, false};
    return command_run_silent(match);
}

// False: a line could not be carried out for want of memory.
bool replay_lines(std::string_view rest, const Grammar& grammar) {
    int damaged = 0;
    for (int number = 1; !rest.empty(); ++number) {
        const size_t end = rest.find('\n');
        const SilentOutcome outcome = replay_line(rest.substr(0, end), grammar);
        if (outcome.no_memory) return false;
        rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
        const std::string reason = as_one_line(outcome.said);
        if (reason.empty() || ++damaged > DAMAGED_LINES_LOGGED) continue;
        log_warning("line " + std::to_string(number) + ": " + reason);
    }
    if (damaged > DAMAGED_LINES_LOGGED) {
        log_warning(std::to_string(damaged - DAMAGED_LINES_LOGGED) + " more damaged lines");
    }
    return true;
}

std::string settle(bool in_the_way) {
    s_settled = true;
    s_in_the_way = in_the_way;
    return "";
}

// Returns 0 or an errno value.
int read_ours(FileBytes* file) {
    return file_read(config_path().c_str(), FILE_NO_LINK | FILE_OURS | FILE_OURS_TO_CHANGE,
                     FILE_MAX_BYTES, file);
}

std::vector<std::string_view> setting_lines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (!line_is_blank(line)) lines.push_back(line);
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return lines;
}

std::string lines_missing(const std::vector<std::string_view>& lines,
                          const std::vector<std::string_view>& in, std::string_view mark) {
    std::string missing;
    for (const std::string_view line : lines) {
        if (std::ranges::find(in, line) == in.end()) missing.append(mark).append(line).append("\n");
    }
    return missing;
}

// Returns 0 or an errno value.
int move_aside() {
    const std::string path = config_path();
    const std::string aside = path + ".unread";
    if (rename(path.c_str(), aside.c_str()) != 0 && errno != ENOENT) return errno;
    s_in_the_way = false;
    log_warning("moved to " + aside + ", for it was not read");
    return file_sync_directory(path.c_str());
}

}  // namespace

std::string startup_config_replay(const Grammar& grammar) {
    if (s_settled) return "";
    FileBytes file;
    int error = read_ours(&file);
    if (error == 0 && !replay_lines(file.View(), grammar)) error = ENOMEM;
    if (error == 0 || error == ENOENT) return settle(false);
    const std::string reason = disbelief(error);
    if (!reason.empty()) {
        log_warning(reason);
        return settle(true);
    }
    s_no_means = is_shortage(error);
    if (s_told != strerror(error)) log_warning(s_told = strerror(error));
    return s_told;
}

void startup_config_give_up() {
    if (s_settled) return;
    if (s_no_means) {
        log_warning("still not read, the process ends: " + s_told);
        (void)fprintf(stderr, "%s: %s\n", config_path().c_str(), s_told.c_str());
        _exit(EXIT_FAILURE);
    }
    settle(true);
    const int error = move_aside();
    if (error != 0) log_warning(std::string("can't be moved aside: ") + strerror(error));
}

std::string startup_config_save(std::string_view text) {
    const std::string path = config_path();
    std::string reason;
    if (!s_settled) {
        reason = "what was saved before can't be read yet: " + s_told;
    } else if (text.size() > FILE_MAX_BYTES) {
        reason = "too large";  // would not be read back
    } else {
        int error = s_in_the_way ? move_aside() : 0;
        if (error == 0) error = file_replace(path.c_str(), text, 0600);
        if (error != 0) reason = strerror(error);
    }
    return reason.empty() ? "" : path + ": " + reason;
}

std::string startup_config_unsaved(std::string_view text) {
    FileBytes file;
    const int error = read_ours(&file);
    if (!s_settled || (error != 0 && error != ENOENT)) return "";
    const std::vector<std::string_view> saved = setting_lines(file.View());
    const std::vector<std::string_view> present = setting_lines(text);
    return lines_missing(present, saved, "+ ") + lines_missing(saved, present, "- ");
}

}  // namespace client_new
