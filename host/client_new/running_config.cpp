// Walk over the configuration trees, and the file that keeps its result. Nothing else
// knows a setting's syntax: a handler writes the very line that would set it, and start-up
// replays the lines as if they were typed.
#include "host/client_new/running_config.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/file.h"
#include "base/text.h"
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
constexpr int DAMAGED_LINES_LOGGED = 500;
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

void log_warning(const std::string& path, const std::string& reason) {
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

// Why the file is not read; "" when there is none.
std::string reason_of(int error) {
    switch (error) {
        case ENOENT:
            return "";
        case EINVAL:
            return "not a plain file";
        case EPERM:
            return "belongs to a stranger";  // the directory is open to everyone
        case EFBIG:
            return "too large";
        default:
            return strerror(error);
    }
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
    working_path(dir_prefix_now(DATA_DIR), "startup-config", path);
    return path;
}

std::string startup_config_save(const std::string& path, std::string_view text) {
    if (text.size() > FILE_MAX_BYTES) return "too large";  // would not be read back
    const int error = file_replace(path.c_str(), text, 0600);
    return error == 0 ? "" : strerror(error);
}

void startup_config_replay(const std::string& path, const Grammar& grammar) {
    FileBytes file;
    const int error = file_read(path.c_str(), FILE_NO_LINK | FILE_OURS, FILE_MAX_BYTES, &file);
    std::string reason = error == 0 ? "" : reason_of(error);
    if (!reason.empty()) log_warning(path, reason);
    int number = 0;
    int damaged = 0;
    for (std::string_view rest = file.View(); !rest.empty();) {
        const size_t end = rest.find('\n');
        ++number;
        reason = replay_line(rest.substr(0, end), grammar);
        rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
        if (reason.empty() || ++damaged > DAMAGED_LINES_LOGGED) continue;
        log_warning(path, "line " + std::to_string(number) + ": " + reason);
    }
    if (damaged > DAMAGED_LINES_LOGGED) {
        log_warning(path, std::to_string(damaged - DAMAGED_LINES_LOGGED) + " more damaged lines");
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
