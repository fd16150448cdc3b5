// Sample trees for tests of the command-line service: handlers that show what
// they were given, and commands whose threads misbehave in every allowed way.
// Threads: handlers on the main loop, workers on their own.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "frame/platform/client_new.h"

namespace cli_sample {

inline std::atomic<int> g_ending{0};  // workers that have said everything
inline bool g_stop = false;           // ends serve; main loop only
inline std::string g_server;          // configured by "http update server"; main loop only

inline void show_record(cli_record* r) {
    cli_printf("[%s] no=%u context=%u debug=%x [%s]\n", r->words, r->no_flag, r->context,
               r->debug_bits, r->string1);
}

inline void server(cli_record* r) {
    if ((r->output_flags & CLI_OUTPUT_RUNNING) != 0) {
        if (!g_server.empty()) c2p_printf(1, r, "%s %s", r->words, g_server.c_str());
        c2p_printf(0, r, "%s never", r->words);
    } else if (std::string(r->string1) == "bad%s") {
        cli_printf_cdb(r, "%% Invalid server %s. \n", r->string1);
    } else {
        g_server = r->no_flag != 0 ? "" : r->string1;
    }
}

inline void debug_switch(int action) { cli_printf("debug switch %d\n", action); }

inline void* end(void* record) {
    ++g_ending;
    cli_proc_thread_end(static_cast<cli_record*>(record), pthread_self());
    return nullptr;
}

inline void* hold(void* record) {
    cli_printf("holding\n");
    cli_flush();
    while (cli_getc_no_block() != CLI_KEY_CTRL_C) usleep(1000);
    cli_printf("stopped\n");
    return end(record);
}

inline void* flood(void* record) {
    for (int i = 0; i < 4096; ++i) cli_printf("%01023d\n", i);
    return end(record);
}

// Names itself, prints its kind many times, in bits and pieces.
inline void* chatter(void* argument) {
    auto* record = static_cast<cli_record*>(argument);
    cli_proc_thread_start(record, pthread_self());
    for (int i = 0; i < 500; ++i) {
        cli_printf("%s", record->string1);
        if (i % 7 == 0) cli_flush();
        cli_printf(".\n");
    }
    return end(record);
}

inline void* stray(void*) {
    cli_printf("stray\n");
    return nullptr;
}

inline void work_command(cli_record* record) {
    const std::string kind = record->string1;
    pthread_t thread{};
    g_stop = kind == "quit";
    if (g_stop) return;
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

constexpr cli_node word(const char* keyword, const cli_node* next,
                        const cli_node* alternative = Tno_alt) {
    return common_keyword_action(keyword, "help", next, alternative);
}

// [no] http update server HOST
inline constexpr cli_node k_server_end = eol_action(server);
inline constexpr cli_node k_host =
    string_action(CLI_NODE_STRING, "hostname", CLI_SLOT_STRING1, &k_server_end, Tno_alt);
inline constexpr cli_node k_server_no = noprefix_action(&k_server_end, &k_host);
inline constexpr cli_node k_server_c2p = c2p_action(server, &k_server_no, Tno_alt);
inline constexpr cli_node k_server = word("server", &k_server_c2p);
inline constexpr cli_node k_update = word("update", &k_server);
inline constexpr cli_node k_http = word("http", &k_update);

// work KIND
inline constexpr cli_node k_work_end = eol_action(work_command);
inline constexpr cli_node k_kind =
    string_action(CLI_NODE_STRING, "kind", CLI_SLOT_STRING1, &k_work_end, Tno_alt);
inline constexpr cli_node k_work = word("work", &k_kind);

// show record; debug record info
inline constexpr cli_node k_record_end = eol_action(show_record);
inline constexpr cli_node k_show = word("record", &k_record_end);
inline constexpr cli_node k_debug_info =
    common_keyword_action("info", "", &k_record_end, Tno_alt, CLI_SLOT_DEBUG, 1);
inline constexpr cli_node k_debug = word("record", &k_debug_info);

inline constexpr struct {
    int mode;
    cli_node root;
} k_trees[] = {{CLI_MODE_CONFIG, append_point_action(&k_http)},
               {CLI_MODE_EXEC, append_point_action(&k_work)},
               {CLI_MODE_SHOW, append_point_action(&k_show)},
               {CLI_MODE_DEBUG, append_point_action(&k_debug)}};

// Starts the service on the calling thread's loop. False: it failed.
inline bool start(tq_thread_master* master) {
    if (cli_client_init("sample", master) < 0) return false;
    for (const auto& tree : k_trees) {
        if (cli_add_command(tree.mode, &tree.root, "sample") < 0) return false;
    }
    return sys_add_debug("sample", 0, 0, 0, debug_switch, 0) == 0 && cli_client_ready() == 0;
}

inline void serve(tq_thread_master* master) {
    tq_thread task{};
    while (!g_stop && tq_thread_fetch(master, &task) != nullptr) tq_thread_call(&task);
}

}  // namespace cli_sample
