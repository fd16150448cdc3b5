// CPU affinity on the host: /etc/http_client/cpu.rule, one line a process, the
// name and the list of its CPUs, as in "http_client 0-1,3". Lines that begin
// with # are comments; the first line of a process counts.
#include "frame/platform/cpurule.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <string_view>

#include "base/unique_fd.h"
#include "frame/platform/tqsys.h"

namespace {

constexpr const char* RULE_FILE = "/etc/http_client/cpu.rule";
constexpr size_t LINE_SIZE = 4096;  // even a list of every other CPU fits
constexpr std::string_view BLANKS = " \t\r\n";

struct FileCloser {
    void operator()(FILE* file) const { (void)fclose(file); }  // it was only read
};

// A device's own tqsys library may lack the call.
int rule_file_open() {
    if (tqsys_open_device_file != nullptr) return tqsys_open_device_file(RULE_FILE);
    return open(RULE_FILE, O_RDONLY | O_CLOEXEC);
}

std::string_view next_word(std::string_view* rest) {
    rest->remove_prefix(std::min(rest->find_first_not_of(BLANKS), rest->size()));
    const std::string_view word = rest->substr(0, rest->find_first_of(BLANKS));
    rest->remove_prefix(word.size());
    return word;
}

bool parse_cpu(std::string_view* text, unsigned* cpu) {
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *cpu);
    if (error != std::errc() || *cpu >= CPU_SETSIZE) return false;
    text->remove_prefix(static_cast<size_t>(end - text->data()));
    return true;
}

// "0-1,3" into cpus. A rule that says something else binds nothing: better all
// CPUs than the wrong ones.
bool parse_cpu_list(std::string_view list, cpu_set_t* cpus) {
    CPU_ZERO(cpus);
    for (;;) {
        unsigned first = 0;
        if (!parse_cpu(&list, &first)) return false;
        unsigned last = first;
        if (list.starts_with('-')) {
            list.remove_prefix(1);
            if (!parse_cpu(&list, &last) || last < first) return false;
        }
        for (unsigned cpu = first; cpu <= last; ++cpu) CPU_SET(cpu, cpus);
        if (list.empty()) return true;
        if (!list.starts_with(',')) return false;
        list.remove_prefix(1);
    }
}

}  // namespace

int get_cores_affinity(CpuAffinityRequest* request) {
    if (request == nullptr || request->process == nullptr) return -1;
    UniqueFd fd(rule_file_open());
    const std::unique_ptr<FILE, FileCloser> file(fd.valid() ? fdopen(fd.get(), "r") : nullptr);
    if (file == nullptr) return -1;
    (void)fd.release();  // the stream closes it
    char line[LINE_SIZE];
    while (fgets(line, sizeof(line), file.get()) != nullptr) {
        std::string_view rest(line);
        if (next_word(&rest) != request->process) continue;
        const std::string_view list = next_word(&rest);
        cpu_set_t cpus;
        if (!parse_cpu_list(list, &cpus) || !next_word(&rest).empty()) return -1;
        request->cpus = cpus;
        return 0;
    }
    return -1;
}
