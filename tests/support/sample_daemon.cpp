// A daemon of samples on the real command-line and support services: commands
// that show what they were given, threads that misbehave in every allowed way,
// reports of all sizes. Its standard output says when it is ready, and when a
// command's thread has said everything.
// Threads: handlers on the main loop, workers on their own.
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "frame/platform/client_new.h"
#include "frame/platform/tech_support_msg.h"

namespace {

constexpr size_t REPORT_STEP = 819200;  // more than a socket's buffer takes

bool s_stop = false;   // main loop only
std::string s_server;  // configured by "http update server"; main loop only

void say(const char* what) {
    (void)puts(what);
    (void)fflush(stdout);
}

void show_record(cli_record* r) {
    cli_printf("[%s] no=%u context=%u debug=%x [%s]\n", r->words, r->no_flag, r->context,
               r->debug_bits, r->string1);
}

void server(cli_record* r) {
    if ((r->output_flags & CLI_OUTPUT_RUNNING) != 0) {
        if (!s_server.empty()) c2p_printf(1, r, "%s %s", r->words, s_server.c_str());
        c2p_printf(0, r, "%s never", r->words);
    } else if (std::string(r->string1) == "bad%s") {
        cli_printf_cdb(r, "%% Invalid server %s. \n", r->string1);
    } else {
        s_server = r->no_flag != 0 ? "" : r->string1;
    }
}

void debug_switch(int action) { cli_printf("debug switch %d\n", action); }

void* end(void* record) {
    say("ended");
    cli_proc_thread_end(static_cast<cli_record*>(record), pthread_self());
    return nullptr;
}

void* hold(void* record) {
    cli_printf("holding\n");
    cli_flush();
    while (cli_getc_no_block() != CLI_KEY_CTRL_C) usleep(1000);
    cli_printf("stopped\n");
    return end(record);
}

void* flood(void* record) {
    for (int i = 0; i < 4096; ++i) cli_printf("%01023d\n", i);
    return end(record);
}

// Names itself, prints its kind many times, in bits and pieces.
void* chatter(void* argument) {
    auto* record = static_cast<cli_record*>(argument);
    cli_proc_thread_start(record, pthread_self());
    for (int i = 0; i < 500; ++i) {
        cli_printf("%s", record->string1);
        if (i % 7 == 0) cli_flush();
        cli_printf(".\n");
    }
    return end(record);
}

void* stray(void*) {
    cli_printf("stray\n");
    return nullptr;
}

void work_command(cli_record* record) {
    const std::string kind = record->string1;
    pthread_t thread{};
    s_stop = kind == "quit";
    if (s_stop) return;
    if (kind == "stray") {  // nobody says whose thread it is
        (void)pthread_create(&thread, nullptr, stray, nullptr);
        cli_printf("handler\n");
        pthread_join(thread, nullptr);
    } else if (kind == "end-first") {
        // The worker has ended the command, and is gone, before it is named. A next
        // thread usually gets its number, and must not get its terminal.
        for (const auto body : {end, stray}) {
            (void)pthread_create(&thread, nullptr, body, record);
            pthread_join(thread, nullptr);
            if (body == end) cli_proc_thread_start(record, thread);
        }
    } else {
        const auto body = kind == "hold" ? hold : kind == "flood" ? flood : chatter;
        (void)pthread_create(&thread, nullptr, body, record);
        pthread_detach(thread);
        usleep(20000);  // the worker prints first
        cli_proc_thread_start(record, thread);
        cli_proc_thread_start(record, thread);
    }
}

constexpr cli_node word(const char* keyword, const cli_node* next) {
    return common_keyword_action(keyword, "help", next, Tno_alt);
}

// [no] http update server HOST
constexpr cli_node k_server_end = eol_action(server);
constexpr cli_node k_host =
    string_action(CLI_NODE_STRING, "hostname", CLI_SLOT_STRING1, &k_server_end, Tno_alt);
constexpr cli_node k_server_no = noprefix_action(&k_server_end, &k_host);
constexpr cli_node k_server_c2p = c2p_action(server, &k_server_no, Tno_alt);
constexpr cli_node k_server = word("server", &k_server_c2p);
constexpr cli_node k_update = word("update", &k_server);
constexpr cli_node k_http = word("http", &k_update);

// work KIND
constexpr cli_node k_work_end = eol_action(work_command);
constexpr cli_node k_kind =
    string_action(CLI_NODE_STRING, "kind", CLI_SLOT_STRING1, &k_work_end, Tno_alt);
constexpr cli_node k_work = word("work", &k_kind);

// show record; debug record info
constexpr cli_node k_record_end = eol_action(show_record);
constexpr cli_node k_show = word("record", &k_record_end);
constexpr cli_node k_debug_info =
    common_keyword_action("info", "", &k_record_end, Tno_alt, CLI_SLOT_DEBUG, 1);
constexpr cli_node k_debug = word("record", &k_debug_info);

constexpr struct {
    int mode;
    cli_node root;
} k_trees[] = {{CLI_MODE_CONFIG, append_point_action(&k_http)},
               {CLI_MODE_EXEC, append_point_action(&k_work)},
               {CLI_MODE_SHOW, append_point_action(&k_show)},
               {CLI_MODE_DEBUG, append_point_action(&k_debug)}};

bool start_commands(tq_thread_master* master) {
    if (cli_client_init("sample", master) < 0) return false;
    for (const auto& tree : k_trees) {
        if (cli_add_command(tree.mode, &tree.root, "sample") < 0) return false;
    }
    return sys_add_debug("sample", 0, 0, 0, debug_switch, 0) == 0 && cli_client_ready() == 0;
}

// Report 1 is never completed, 2 is large, 3 too large.
int report(int type, void*) {
    tech_module_msg_output("100%% of %d\n", type);
    for (int i = 1; i < type; ++i) {
        tech_module_msg_output("%s", std::string(REPORT_STEP, 'x').c_str());
    }
    if (type == 1) return 0;
    tech_module_msg_deal_completion();
    tech_module_msg_output("after the end\n");
    tech_module_msg_deal_completion();
    return 0;
}

bool start_support(tq_thread_master* master) {
    return tech_reg_service_callback("oam#sample", master, report) == 0 &&
           tech_module_reg_dump_file("/tmp/%s dump") == 0 &&
           tech_module_reg_dump_file("/tmp/second") == 0;
}

}  // namespace

int main() {
    (void)signal(SIGPIPE, SIG_IGN);
    tq_thread_master* master = tq_thread_master_create();
    if (!start_support(master)) return 2;
    if (!start_commands(master)) return 3;
    say("ready");
    tq_thread task{};
    while (!s_stop && tq_thread_fetch(master, &task) != nullptr) tq_thread_call(&task);
    return 0;
}
