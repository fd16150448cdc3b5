// A terminal that records, the two logs of the platform and technical support.
#include <deque>

#include "frame/platform/syslog_new.h"
#include "tests/fakes/fake_state.h"
#include "tests/fakes/fakes.h"

namespace fakes {

struct TerminalState {
    std::string terminal;
    std::string config_lines;
    std::string config_errors;
    std::deque<int> keys;
    int started;
    int ended;
    std::map<int, const cli_node*> trees;
    bool fail_init;
    void (*debug_switch)(int action);
    std::string cli_calls;
    std::string syslog;
    std::string tech_output;
    int tech_completions;
    std::vector<std::string> dump_files;
    tech_service_callback tech_callback;
    std::string tech_service;
    bool fail_tech;
};
static TerminalState s_state GUARDED_BY(fake_lock);

void ResetTerminal() { s_state = TerminalState{}; }

void Append(std::string* text, const char* format, va_list args) {
    char* formatted = nullptr;
    const int length = vasprintf(&formatted, format, args);
    if (length < 0) return;
    text->append(formatted, static_cast<size_t>(length));
    free(formatted);
}

// Each hands out one field of the record; Take also empties it.
#define FAKE_TAKE(type, name, field) \
    type name() {                    \
        MutexLock guard(fake_lock);  \
        return Take(&s_state.field); \
    }
#define FAKE_GET(type, name, field) \
    type name() {                   \
        MutexLock guard(fake_lock); \
        return s_state.field;       \
    }
#define FAKE_SET(type, name, field) \
    void name(type value) {         \
        MutexLock guard(fake_lock); \
        s_state.field = value;      \
    }

FAKE_TAKE(std::string, Terminal, terminal)
FAKE_TAKE(std::string, ConfigLines, config_lines)
FAKE_TAKE(std::string, ConfigErrors, config_errors)
FAKE_GET(int, CommandsStarted, started)
FAKE_GET(int, CommandsEnded, ended)
using TreeMap = std::map<int, const cli_node*>;
FAKE_GET(TreeMap, Trees, trees)
FAKE_SET(bool, FailCliInit, fail_init)
FAKE_GET(std::string, CliCalls, cli_calls)
FAKE_TAKE(std::string, Syslog, syslog)
FAKE_TAKE(std::string, TechOutput, tech_output)
FAKE_GET(int, TechCompletions, tech_completions)
FAKE_GET(std::vector<std::string>, DumpFiles, dump_files)
FAKE_GET(tech_service_callback, TechCallback, tech_callback)
FAKE_GET(std::string, TechService, tech_service)
FAKE_SET(bool, FailTechInit, fail_tech)

void TypeKey(int key) {
    MutexLock guard(fake_lock);
    s_state.keys.push_back(key);
}

void (*DebugSwitch())(int action) {
    MutexLock guard(fake_lock);
    return s_state.debug_switch;
}

}  // namespace fakes

using namespace fakes;

// Records printf-style arguments in a field, with an end of its own.
#define FAKE_RECORD(field, end)               \
    va_list args;                             \
    va_start(args, format);                   \
    {                                         \
        MutexLock guard(fake_lock);           \
        Append(&s_state.field, format, args); \
        s_state.field += (end);               \
    }                                         \
    va_end(args)

extern "C" {

int cli_client_init(const char* client, tq_thread_master*) {
    MutexLock guard(fake_lock);
    s_state.cli_calls += "cli_client_init(" + std::string(client) + ")\n";
    return s_state.fail_init ? -1 : 0;
}

int cli_add_command(int mode, const cli_node* root, const char* name) {
    MutexLock guard(fake_lock);
    s_state.cli_calls += "cli_add_command(" + std::to_string(mode) + "," + name + ")\n";
    s_state.trees[mode] = root;
    return 0;
}

int cli_client_ready() {
    MutexLock guard(fake_lock);
    s_state.cli_calls += "cli_client_ready()\n";
    return 0;
}

int sys_add_debug(const char* name, int, int, int, void (*callback)(int action), int) {
    MutexLock guard(fake_lock);
    s_state.cli_calls += "sys_add_debug(" + std::string(name) + ")\n";
    s_state.debug_switch = callback;
    return 0;
}

void cli_printf(const char* format, ...) { FAKE_RECORD(terminal, ""); }
void cli_printf_cdb(cli_record*, const char* format, ...) { FAKE_RECORD(config_errors, ""); }

void c2p_printf(int flag, cli_record*, const char* format, ...) {
    if (flag != 1) return;
    FAKE_RECORD(config_lines, "\n");
}

void cli_flush() {}

int cli_getc_no_block() {
    MutexLock guard(fake_lock);
    if (s_state.keys.empty()) return -1;
    const int key = s_state.keys.front();
    s_state.keys.pop_front();
    return key;
}

void cli_proc_thread_start(cli_record*, pthread_t) {
    MutexLock guard(fake_lock);
    s_state.started++;
}

void cli_proc_thread_end(cli_record*, pthread_t) {
    MutexLock guard(fake_lock);
    s_state.ended++;
}

int printk_syslog_ext(int, const char*, const char*, int, const char* format, ...) {
    FAKE_RECORD(syslog, s_state.syslog.ends_with('\n') ? "" : "\n");
    return 0;
}

int tech_reg_service_callback(const char* service, tq_thread_master*,
                              tech_service_callback callback) {
    MutexLock guard(fake_lock);
    if (s_state.fail_tech) return -1;
    s_state.tech_service = service;
    s_state.tech_callback = callback;
    return 0;
}

int tech_module_reg_dump_file(const char* path) {
    MutexLock guard(fake_lock);
    s_state.dump_files.emplace_back(path);
    return 0;
}

void tech_module_msg_output(const char* format, ...) { FAKE_RECORD(tech_output, ""); }

void tech_module_msg_deal_completion() {
    MutexLock guard(fake_lock);
    s_state.tech_completions++;
}
}
