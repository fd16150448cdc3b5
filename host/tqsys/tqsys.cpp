// System information of the host. The device description
// /etc/http_client/device.conf comes first; what it leaves out comes from
// os-release and from the firmware's tables (DMI or device tree).
//
// Every file is opened through tqsys_open_device_file, so that
// HTTP_CLIENT_DEVICE_ROOT moves them all.
#include "frame/platform/tqsys.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/file.h"
#include "base/text.h"
#include "base/unique_fd.h"

namespace {

constexpr size_t FILE_SIZE_MAX = 16384;  // what lies behind it is not read

constexpr const char* DEVICE_FILE = "/etc/http_client/device.conf";
constexpr const char* OS_RELEASE_FILES[] = {"/etc/os-release", "/usr/lib/os-release"};

struct FileText {
    char bytes[FILE_SIZE_MAX];
    size_t size;
    std::string_view view() const { return {bytes, size}; }
};

bool device_file_read(const char* path, FileText* text) {
    text->size = 0;
    const UniqueFd fd(tqsys_open_device_file(path));
    return fd.valid() && file_read_some(fd.get(), text->bytes, &text->size) == 0;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view BLANKS(" \t\r\n\0", 5);
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

std::string_view without_quotes(std::string_view text) {
    const bool quoted = text.size() >= 2 && (text.front() == '"' || text.front() == '\'') &&
                        text.back() == text.front();
    return quoted ? text.substr(1, text.size() - 2) : text;
}

std::string_view next_line(std::string_view* rest) {
    const size_t end = rest->find('\n');
    const std::string_view line = rest->substr(0, end);
    rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + 1);
    return line;
}

// The value of a "key=value" line; lines that begin with # are comments, the
// last line of a key counts, as in a shell. An empty value counts as none.
std::string_view value_of(std::string_view text, std::string_view key) {
    std::string_view value;
    while (!text.empty()) {
        const std::string_view line = trimmed(next_line(&text));
        const size_t equals = line.find('=');
        if (line.starts_with('#') || equals == std::string_view::npos) continue;
        if (trimmed(line.substr(0, equals)) != key) continue;
        value = trimmed(without_quotes(trimmed(line.substr(equals + 1))));
    }
    return value;
}

// What firmware vendors leave in fields that they did not fill.
bool is_placeholder(std::string_view text) {
    for (const std::string_view filler :
         {"To be filled by O.E.M.", "To Be Filled By O.E.M.", "Default string", "System Version",
          "System Product Name", "None", "N/A"}) {
        if (text == filler) return true;
    }
    return text.empty() || text.starts_with("Not ");  // applicable, available, given
}

// Null when memory is short, like any other failure.
char* copy_of(std::string_view text) { return strndup(text.data(), text.size()); }

char* from_device(std::string_view key, FileText* text) {
    if (!device_file_read(DEVICE_FILE, text)) return nullptr;
    const std::string_view value = value_of(text->view(), key);
    return value.empty() ? nullptr : copy_of(value);
}

bool os_release_read(FileText* text) {
    for (const char* path : OS_RELEASE_FILES) {
        if (device_file_read(path, text)) return true;
    }
    return false;
}

template <size_t N>
char* from_os_release(const std::string_view (&keys)[N], FileText* text) {
    if (!os_release_read(text)) return nullptr;
    for (const std::string_view key : keys) {
        const std::string_view value = value_of(text->view(), key);
        if (!value.empty()) return copy_of(value);
    }
    return nullptr;
}

// The first table of the row that says something. A device-tree file holds
// zero-terminated texts, of which the first counts.
template <size_t N>
char* from_firmware(const char* const (&paths)[N], FileText* text) {
    for (const char* path : paths) {
        if (!device_file_read(path, text)) continue;
        const std::string_view value = trimmed(text->view().substr(0, text->view().find('\0')));
        if (!is_placeholder(value)) return copy_of(value);
    }
    return nullptr;
}

}  // namespace

int tqsys_open_device_file(const char* path) {
    const char* root = getenv("HTTP_CLIENT_DEVICE_ROOT");
    char full[PATH_MAX];
    size_t length = 0;
    if (!text_appendf(full, sizeof(full), &length, "%s%s", root == nullptr ? "" : root, path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return open(full, O_RDONLY | O_CLOEXEC);
}

char* tqsys_get_os_name() {
    FileText text;
    if (char* value = from_device("os_name", &text)) return value;
    return from_os_release({"NAME", "ID"}, &text);
}

// What the product is; a machine whose firmware keeps silent still has the
// distribution's short name.
char* tqsys_get_project() {
    FileText text;
    if (char* value = from_device("project", &text)) return value;
    if (char* value = from_os_release({"VARIANT_ID", "IMAGE_ID"}, &text)) return value;
    if (char* value =
            from_firmware({"/sys/class/dmi/id/product_name", "/proc/device-tree/model"}, &text)) {
        return value;
    }
    return from_os_release({"ID"}, &text);
}

// Rolling distributions name no release type at all.
char* tqsys_get_release_type() {
    FileText text;
    if (char* value = from_device("release_type", &text)) return value;
    if (char* value = from_os_release({"RELEASE_TYPE", "VERSION_CODENAME"}, &text)) return value;
    return os_release_read(&text) ? copy_of("release") : nullptr;
}

char* tqsys_get_release() {
    FileText text;
    if (char* value = from_device("release", &text)) return value;
    return from_os_release({"VERSION_ID", "IMAGE_VERSION", "BUILD_ID"}, &text);
}

char* tqsys_get_hw_version() {
    FileText text;
    if (char* value = from_device("hw_version", &text)) return value;
    return from_firmware({"/sys/class/dmi/id/product_version", "/sys/class/dmi/id/board_version",
                          "/proc/device-tree/compatible"},
                         &text);
}
