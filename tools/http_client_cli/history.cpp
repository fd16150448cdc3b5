// The file is one of a person: what can't be read is left alone, never replaced.
#include "history.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "base/file.h"

namespace {

constexpr size_t FILE_MAX_BYTES = 1048576;

// "" where there is to be none. Another user's HOME (after su or sudo) is not ours to leave
// files in.
std::string history_path() {
    const char* home = getenv("HOME");
    struct stat info {};
    const bool ours =
        home != nullptr && *home == '/' && stat(home, &info) == 0 && info.st_uid == geteuid();
    return ours ? std::string(home) + "/.http_client_history" : "";
}

// False: what lies there can't be read.
bool read_lines(const std::string& path, std::vector<std::string>* lines) {
    FileBytes file;
    const int error =
        file_read(path.c_str(), FILE_NO_LINK | FILE_OURS | FILE_ONE_NAME, FILE_MAX_BYTES, &file);
    if (error != 0) return error == ENOENT;
    for (std::string_view rest = file.View(); !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        if (!line.empty()) lines->emplace_back(line);
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    }
    return true;
}

void keep_last(std::vector<std::string>* lines) {
    if (lines->size() <= HISTORY_LINES) return;
    lines->erase(lines->begin(), lines->end() - ptrdiff_t{HISTORY_LINES});
}

}  // namespace

std::vector<std::string> history_load() {
    std::vector<std::string> lines;
    const std::string path = history_path();
    if (path.empty() || !read_lines(path, &lines)) return {};
    keep_last(&lines);
    return lines;
}

void history_add(const std::vector<std::string>& lines) {
    const std::string path = history_path();
    std::vector<std::string> all;
    if (lines.empty() || path.empty() || !read_lines(path, &all)) return;
    all.insert(all.end(), lines.begin(), lines.end());
    keep_last(&all);
    std::string text;
    for (const std::string& line : all) text += line + '\n';
    (void)file_replace(path.c_str(), text, 0600);
}
