// The attribute is text, a line a field: format, boot, synced bytes, size, validator,
// resource. A mark of another format is none.

#include "host/http_util/mark.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/text.h"

namespace {

constexpr const char* ATTRIBUTE = "user.http_client.partial";
constexpr std::string_view FORMAT = "2";
constexpr size_t MARK_SIZE = VALIDATOR_SIZE + RESOURCE_SIZE + 128;

struct BootId {
    char text[BOOT_SIZE] = "";

    BootId() {
        const UniqueFd fd(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
        if (!fd.valid()) return;
        const ssize_t got = read(fd.get(), text, sizeof(text) - 1);
        text[got > 0 ? got : 0] = '\0';
        text[strcspn(text, "\n")] = '\0';
    }
};

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

bool mark_parse(std::string_view text, Mark* mark) {
    std::string_view format;
    std::string_view boot;
    std::string_view synced;
    std::string_view total;
    std::string_view validator;
    std::string_view resource;
    return line_take(&text, &format) && line_take(&text, &boot) && line_take(&text, &synced) &&
           line_take(&text, &total) && line_take(&text, &validator) &&
           line_take(&text, &resource) && format == FORMAT && !validator.empty() &&
           text_copy(mark->boot, boot) && number_parse(synced, &mark->synced) &&
           number_parse(total, &mark->facts.total) && text_copy(mark->facts.validator, validator) &&
           text_copy(mark->facts.resource, resource);
}

}  // namespace

const char* boot_id() {
    static const BootId s_id;
    return s_id.text;
}

bool mark_read(int fd, Mark* mark) {
    char text[MARK_SIZE];
    const ssize_t length = fgetxattr(fd, ATTRIBUTE, text, sizeof(text));
    Mark found;
    if (length <= 0 || !mark_parse({text, static_cast<size_t>(length)}, &found)) return false;
    *mark = found;
    return true;
}

bool mark_write(int fd, const Mark& mark) {
    char text[MARK_SIZE];
    size_t length = 0;
    return text_appendf(text, sizeof(text), &length, "%.*s\n%s\n%llu\n%llu\n%s\n%s\n",
                        static_cast<int>(FORMAT.size()), FORMAT.data(), mark.boot,
                        static_cast<unsigned long long>(mark.synced),
                        static_cast<unsigned long long>(mark.facts.total), mark.facts.validator,
                        mark.facts.resource) &&
           fsetxattr(fd, ATTRIBUTE, text, length, 0) == 0;
}

void mark_remove(int fd) { (void)fremovexattr(fd, ATTRIBUTE); }

void mark_remove(const char* path) { (void)lremovexattr(path, ATTRIBUTE); }
