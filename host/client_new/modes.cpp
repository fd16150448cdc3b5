// The service's own commands are parse nodes like the daemon's, so that matching,
// help and completion treat them alike. A tree is hung into a grammar by a nop
// node of its own, because the daemon's roots are constant and have no
// alternatives.
#include "host/client_new/modes.h"

#include <algorithm>
#include <deque>
#include <vector>

#include "host/client_new/command.h"
#include "host/client_new/running_config.h"
#include "host/client_new/startup_config.h"

namespace client_new {

namespace {

constexpr int DEBUG_ALL_ON = 1;
constexpr int DEBUG_ALL_OFF = 2;
constexpr int DEBUG_ALL_STATUS = 3;

std::vector<const cli_node*> s_exec_trees;
std::vector<const cli_node*> s_show_trees;
std::vector<const cli_node*> s_debug_trees;
std::vector<const cli_node*> s_config_trees;
std::vector<DebugSwitch> s_debug_switches;
std::deque<cli_node> s_nodes;  // built at start-up; addresses stay
Grammar s_exec;
Grammar s_config;
Grammar s_startup;

void set_mode(Mode mode) {
    const std::shared_ptr<Session> session = command_session();
    if (session == nullptr) return;
    const MutexLock guard(cli_lock);
    session->mode = mode;
}

// What is set before the saved configuration was read would be lost when it is.
void enter_configuration(cli_record*) {
    const std::string reason = modes_replay();
    if (reason.empty()) {
        set_mode(Mode::kConfig);
    } else {
        command_refuse("% The saved configuration can't be read yet: " + reason + "\n");
    }
}
void leave_configuration(cli_record*) { set_mode(Mode::kExec); }

void leave_session(cli_record*) {
    const std::shared_ptr<Session> session = command_session();
    if (session == nullptr) return;
    const MutexLock guard(cli_lock);
    session->leave = true;
}

void show_running_config(cli_record*) {
    cli_printf("%s", running_config_text(s_config_trees).c_str());
}

void write_startup_config(cli_record*) {
    (void)modes_replay();  // its failure is the saving's, too
    const std::string reason = startup_config_save(
        "! Start-up configuration, saved by \"write\"\n" + running_config_text(s_config_trees));
    if (!reason.empty()) {
        command_refuse("% Not saved: " + reason + "\n");
    } else {
        cli_hint("Saved.\n");
    }
}

void switch_all_debugging(int action) {
    for (const DebugSwitch debug_switch : s_debug_switches) debug_switch(action);
}

void debug_all(cli_record* record) {
    switch_all_debugging(record->no_flag != 0 ? DEBUG_ALL_OFF : DEBUG_ALL_ON);
}

void show_debugging(cli_record*) { switch_all_debugging(DEBUG_ALL_STATUS); }

const cli_node* add_node(const cli_node& node) {
    s_nodes.push_back(node);
    return &s_nodes.back();
}

const cli_node* keyword(const char* word, const char* help, const cli_node* next) {
    return add_node(common_keyword_action(word, help, next, Tno_alt));
}

const cli_node* command(const char* word, const char* help, cli_handler handler) {
    return keyword(word, help, add_node(eol_action(handler)));
}

// Offers all of them side by side.
const cli_node* choice(const std::vector<const cli_node*>& branches) {
    const cli_node* chain = Tno_alt;
    for (auto branch = branches.rbegin(); branch != branches.rend(); ++branch) {
        chain = add_node(nop_action(*branch, chain));
    }
    return chain;
}

std::vector<const cli_node*> operator+(std::vector<const cli_node*> left,
                                       const std::vector<const cli_node*>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

template <typename T>
void add_once(std::vector<T>* list, T what) {
    if (std::ranges::find(*list, what) == list->end()) list->push_back(what);
}

}  // namespace

bool modes_add_tree(int mode, const cli_node* root) {
    std::vector<const cli_node*>* trees = mode == CLI_MODE_EXEC     ? &s_exec_trees
                                          : mode == CLI_MODE_SHOW   ? &s_show_trees
                                          : mode == CLI_MODE_DEBUG  ? &s_debug_trees
                                          : mode == CLI_MODE_CONFIG ? &s_config_trees
                                                                    : nullptr;
    if (trees == nullptr || root == nullptr) return false;
    add_once(trees, root);
    return true;
}

void modes_add_debug_switch(DebugSwitch debug_switch) { add_once(&s_debug_switches, debug_switch); }

void modes_build() {
    if (s_exec.root != nullptr) return;
    const std::vector<const cli_node*> common = {
        keyword("show", "Show state and configuration",
                choice(std::vector{command("debugging", "What is debugged", show_debugging),
                                   command("running-config", "The present configuration",
                                           show_running_config)} +
                       s_show_trees)),
        command("write", "Save the configuration for the next start", write_startup_config)};
    const cli_node* all = command("all", "Debug everything", debug_all);
    const cli_node* debug =
        keyword("debug", "Switch debugging on", choice(std::vector{all} + s_debug_trees));
    const cli_node* no_debug = keyword("no", "Switch debugging off", debug);
    s_exec = {
        choice(s_exec_trees + common +
               std::vector{debug, no_debug,
                           command("configure", "Enter configuration mode", enter_configuration),
                           command("exit", "Leave the session", leave_session)}),
        no_debug, debug};

    const cli_node* no =
        keyword("no", "Remove a setting or restore its default", choice(s_config_trees));
    s_config = {
        choice(s_config_trees + std::vector{no} + common +
               std::vector{command("end", "Leave configuration mode", leave_configuration),
                           command("exit", "Leave configuration mode", leave_configuration)}),
        no, nullptr};
}

const Grammar& modes_grammar(Mode mode) { return mode == Mode::kConfig ? s_config : s_exec; }

std::string modes_replay() {
    if (s_startup.root == nullptr) {
        const cli_node* no = keyword("no", "", choice(s_config_trees));
        s_startup = {choice(s_config_trees + std::vector{no}), no, nullptr};
    }
    return startup_config_replay(s_startup);
}

std::string modes_unsaved() { return startup_config_unsaved(running_config_text(s_config_trees)); }

}  // namespace client_new
