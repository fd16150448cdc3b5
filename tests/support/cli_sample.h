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

inline std::atomic<int> g_flooded{0};  // workers of "work flood" that have ended
inline std::atomic<int> g_held{0};     // of "work hold"
inline std::atomic<bool> g_go{false};  // lets "work hold" go on
inline bool g_stop = false;            // ends serve; main loop only
inline std::string g_server;           // configured by "http update server"; main loop only

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

inline void* hold(void* record) {
    cli_printf("holding\n");
    cli_flush();
    while (!g_go && cli_getc_no_block() != CLI_KEY_CTRL_C) usleep(1000);
    cli_printf("stopped\n");
    cli_proc_thread_end(static_cast<cli_record*>(record), pthread_self());
    ++g_held;
    return nullptr;
}

inline void* flood(void* record) {
    for (int i = 0; i < 4096; ++i) cli_printf("%01023d\n", i);
    cli_proc_thread_end(static_cast<cli_record*>(record), pthread_self());
    ++g_flooded;
    return nullptr;
}

// Names itself, prints its word many times, in bits and pieces.
inline void* chatter(void* argument) {
    auto* record = static_cast<cli_record*>(argument);
    cli_proc_thread_start(record, pthread_self());
    for (int i = 0; i < 500; ++i) {
        cli_printf("%s", record->string2);
        if (i % 7 == 0) cli_flush();
        cli_printf(".\n");
    }
    cli_proc_thread_end(record, pthread_self());
    return nullptr;
}

inline void* stray(void*) {
    cli_printf("stray\n");
    return nullptr;
}

inline pthread_t start_thread(void* (*body)(void*), cli_record* record, bool detached) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, body, record) == 0 && detached) pthread_detach(thread);
    return thread;
}

template <void* (*body)(void*)>
void work(cli_record* record) {
    const pthread_t thread = start_thread(body, record, true);
    usleep(20000);  // the worker prints first
    cli_proc_thread_start(record, thread);
    cli_proc_thread_start(record, thread);
}

// Never says whose thread it is.
inline void work_stray(cli_record*) {
    (void)start_thread(stray, nullptr, true);
    cli_printf("handler\n");
    usleep(20000);
}

// The worker has ended the command, and is gone, before it is named. A next
// thread usually gets its number, and must not get its terminal.
inline void work_end_first(cli_record* record) {
    const auto end = [](void* argument) -> void* {
        cli_proc_thread_end(static_cast<cli_record*>(argument), pthread_self());
        return nullptr;
    };
    const pthread_t thread = start_thread(end, record, false);
    pthread_join(thread, nullptr);
    cli_proc_thread_start(record, thread);
    (void)start_thread(stray, nullptr, true);
    usleep(20000);
}

inline void work_command(cli_record* record) {
    constexpr struct {
        const char* kind;
        cli_handler run;
    } ROWS[] = {{"hold", work<hold>},          {"flood", work<flood>},
                {"chatter", work<chatter>},    {"stray", work_stray},
                {"end-first", work_end_first}, {"quit", [](cli_record*) { g_stop = true; }}};
    for (const auto& row : ROWS) {
        if (std::string(record->string1) == row.kind) row.run(record);
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

// work KIND [WORD]
inline constexpr cli_node k_work_end = eol_action(work_command);
inline constexpr cli_node k_work_word =
    string_action(CLI_NODE_STRING, "word", CLI_SLOT_STRING2, &k_work_end, &k_work_end);
inline constexpr cli_node k_kind =
    string_action(CLI_NODE_STRING, "kind", CLI_SLOT_STRING1, &k_work_word, Tno_alt);
inline constexpr cli_node k_work = word("work", &k_kind);

// show record; debug record [info]
inline constexpr cli_node k_record_end = eol_action(show_record);
inline constexpr cli_node k_show = word("record", &k_record_end);
inline constexpr cli_node k_debug_all =
    set_cdb_var_action(CLI_SLOT_DEBUG, 0xff, &k_record_end, Tno_alt);
inline constexpr cli_node k_debug_info =
    common_keyword_action("info", "", &k_record_end, &k_debug_all, CLI_SLOT_DEBUG, 1);
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
