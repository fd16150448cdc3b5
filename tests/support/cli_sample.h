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
inline std::string g_file_help = "Files: null";

inline void show_record(cli_record* r) {
    cli_printf("words=[%s] no=%u context=%u debug=%x v1=%d v2=%d s1=[%s] s2=[%s]\n", r->words,
               r->no_flag, r->context, r->debug_bits, r->value1, r->value2, r->string1, r->string2);
}

inline void server(cli_record* r) {
    if ((r->output_flags & CLI_OUTPUT_RUNNING) != 0) {
        if (!g_server.empty()) c2p_printf(1, r, "%s %s port 80", r->words, g_server.c_str());
        c2p_printf(0, r, "%s never", r->words);
        return;
    }
    if (std::string(r->string1) == "bad%s") {
        cli_printf_cdb(r, "%% Invalid server %s. \n", r->string1);
        return;
    }
    g_server = r->no_flag != 0 ? "" : r->string1;
}

inline void mode(cli_record* r) {
    if ((r->output_flags & CLI_OUTPUT_RUNNING) == 0) show_record(r);
}

inline void debug_switch(int action) { cli_printf("debug switch %d\n", action); }

inline void* hold(void* argument) {
    auto* record = static_cast<cli_record*>(argument);
    cli_printf("holding\n");
    cli_flush();
    while (!g_go && cli_getc_no_block() != CLI_KEY_CTRL_C) usleep(1000);
    cli_printf("stopped\n");
    cli_proc_thread_end(record, pthread_self());
    ++g_held;
    return nullptr;
}

inline void* flood(void* argument) {
    auto* record = static_cast<cli_record*>(argument);
    for (int i = 0; i < 4096; ++i) cli_printf("%01023d\n", i);
    cli_proc_thread_end(record, pthread_self());
    ++g_flooded;
    return nullptr;
}

// Names itself, prints its word many times, in bits and pieces.
inline void* chatter(void* argument) {
    auto* record = static_cast<cli_record*>(argument);
    cli_proc_thread_start(record, pthread_self());
    for (int i = 0; i < 500; ++i) {
        cli_printf("%s", record->string1);
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

inline void* end_only(void* argument) {
    cli_proc_thread_end(static_cast<cli_record*>(argument), pthread_self());
    return nullptr;
}

template <void* (*body)(void*)>
void work(cli_record* record) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, body, record) != 0) return;
    pthread_detach(thread);
    usleep(20000);  // the worker prints first
    cli_proc_thread_start(record, thread);
    cli_proc_thread_start(record, thread);
}

// Never says whose thread it is.
inline void work_stray(cli_record*) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, stray, nullptr) == 0) pthread_detach(thread);
    cli_printf("handler\n");
    usleep(20000);
}

// The worker has ended the command, and is gone, before it is named. A next
// thread usually gets its number, and must not get its terminal.
inline void work_end_first(cli_record* record) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, end_only, record) != 0) return;
    pthread_join(thread, nullptr);
    cli_proc_thread_start(record, thread);
    if (pthread_create(&thread, nullptr, stray, nullptr) == 0) pthread_detach(thread);
    usleep(20000);
}

// http update mode manual | server HOST [port N] | time daily hh:mm
inline constexpr cli_node k_mode_end = eol_action(mode);
inline constexpr cli_node k_manual =
    common_keyword_action("manual", "manual update files", &k_mode_end, Tno_alt);
inline constexpr cli_node k_mode_no = noprefix_action(&k_mode_end, &k_manual);
inline constexpr cli_node k_mode_c2p = c2p_action(mode, &k_mode_no, Tno_alt);
inline constexpr cli_node k_server_end = eol_action(server);
inline constexpr cli_node k_port_number =
    common_number_action("default 80", 1, 65535, CLI_SLOT_VALUE1, &k_server_end, Tno_alt);
inline constexpr cli_node k_port =
    common_keyword_action("port", "server port", &k_port_number, &k_server_end);
inline constexpr cli_node k_host =
    string_action(CLI_NODE_STRING, "hostname", CLI_SLOT_STRING1, &k_port, Tno_alt);
inline constexpr cli_node k_no_host = nop_action(&k_host, &k_server_end);
inline constexpr cli_node k_server_no = noprefix_action(&k_no_host, &k_host);
inline constexpr cli_node k_server_c2p = c2p_action(server, &k_server_no, Tno_alt);
inline constexpr cli_node k_daily_time =
    time_action("detect time(hh:mm)", CLI_SLOT_VALUE1, CLI_SLOT_VALUE2, &k_mode_end, Tno_alt);
inline constexpr cli_node k_daily_c2p = c2p_action(mode, &k_daily_time, Tno_alt);
inline constexpr cli_node k_daily =
    common_keyword_action("daily", "auto detect daily", &k_daily_c2p, Tno_alt);
inline constexpr cli_node k_daily_no = noprefix_action(&k_mode_end, &k_daily);
inline constexpr cli_node k_time =
    common_keyword_action("time", "http update time", &k_daily_no, Tno_alt);
inline constexpr cli_node k_server =
    common_keyword_action("server", "http update server", &k_server_c2p, &k_time);
inline constexpr cli_node k_mode =
    common_keyword_action("mode", "http update mode", &k_mode_c2p, &k_server);
inline constexpr cli_node k_cfg_update =
    common_keyword_action("update", "config http update", &k_mode, Tno_alt);
inline constexpr cli_node k_cfg_http =
    common_keyword_action("http", "configure http", &k_cfg_update, Tno_alt);
inline constexpr cli_node k_config = append_point_action(&k_cfg_http);

// http update all | display-progress | NAMES
inline constexpr cli_node k_show_end = eol_action(show_record);
// The help text changes while the daemon runs.
inline const cli_node k_names =
    string_action(CLI_NODE_LINE, g_file_help.c_str(), CLI_SLOT_STRING1, &k_show_end, Tno_alt);
inline const cli_node k_progress =
    common_keyword_action("display-progress", "display update progress", &k_show_end, &k_names);
inline const cli_node k_all =
    common_keyword_action("all", "update all files", &k_show_end, &k_progress, CLI_SLOT_VALUE2, 1);
inline const cli_node k_update = common_keyword_action("update", "http update", &k_all, Tno_alt);
inline const cli_node k_http = common_keyword_action("http", "http cmd", &k_update, Tno_alt);
inline const cli_node k_exec = append_point_action(&k_http);

// work KIND
inline constexpr cli_node k_end_first = eol_action(work_end_first);
inline constexpr cli_node k_stray = eol_action(work_stray);
inline constexpr cli_node k_flood = eol_action(work<flood>);
inline constexpr cli_node k_hold = eol_action(work<hold>);
inline constexpr cli_node k_chatter = eol_action(work<chatter>);
inline constexpr cli_node k_word =
    string_action(CLI_NODE_STRING, "word", CLI_SLOT_STRING1, &k_chatter, Tno_alt);
inline constexpr cli_node k_w5 = common_keyword_action("end-first", "", &k_end_first, Tno_alt);
inline constexpr cli_node k_w4 = common_keyword_action("stray", "", &k_stray, &k_w5);
inline constexpr cli_node k_w3 = common_keyword_action("flood", "", &k_flood, &k_w4);
inline constexpr cli_node k_w2 = common_keyword_action("hold", "", &k_hold, &k_w3);
inline constexpr cli_node k_w1 = common_keyword_action("chatter", "", &k_word, &k_w2);
inline constexpr cli_node k_work_word = common_keyword_action("work", "threads", &k_w1, Tno_alt);
inline constexpr cli_node k_work = append_point_action(&k_work_word);

// show http-update; debug http-client [info]
inline constexpr cli_node k_show_record = eol_action(show_record);
inline constexpr cli_node k_show_update =
    common_keyword_action("http-update", "http auto update state", &k_show_record, Tno_alt);
inline constexpr cli_node k_show = append_point_action(&k_show_update);
inline constexpr cli_node k_debug_all =
    set_cdb_var_action(CLI_SLOT_DEBUG, 0xff, &k_show_record, Tno_alt);
inline constexpr cli_node k_debug_info = common_keyword_action(
    "info", "http-client debug info", &k_show_record, &k_debug_all, CLI_SLOT_DEBUG, 1);
inline constexpr cli_node k_debug_client =
    common_keyword_action("http-client", "debug http-client", &k_debug_info, Tno_alt);
inline constexpr cli_node k_debug = append_point_action(&k_debug_client);

// Starts the service on the calling thread's loop. False: it failed.
inline bool start(tq_thread_master* master) {
    if (cli_client_init("sample", master) < 0) return false;
    const bool added = cli_add_command(CLI_MODE_CONFIG, &k_config, "config") == 0 &&
                       cli_add_command(CLI_MODE_EXEC, &k_exec, "exec") == 0 &&
                       cli_add_command(CLI_MODE_EXEC, &k_work, "work") == 0 &&
                       cli_add_command(CLI_MODE_SHOW, &k_show, "show") == 0 &&
                       cli_add_command(CLI_MODE_DEBUG, &k_debug, "debug") == 0;
    (void)sys_add_debug("sample", 0, 0, 0, debug_switch, 0);
    return added && cli_client_ready() == 0;
}

inline void serve(tq_thread_master* master) {
    tq_thread task{};
    while (!g_stop && tq_thread_fetch(master, &task) != nullptr) tq_thread_call(&task);
}

}  // namespace cli_sample
