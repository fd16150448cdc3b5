// Command-line service library (libclient_new.so): matches typed commands
// against the daemon's parse trees, fills a record and calls the handler.
//
// Threads: handlers, running-configuration writers and the debug switch run on
// the main loop that was given to cli_client_init. Output and key calls belong
// to the command that runs on the calling thread: on the main loop the command
// whose handler runs, on a worker thread the command it was started for. A
// worker may print, and even end its command, before its handler has called
// cli_proc_thread_start: its output waits until the handler has said whose
// thread it is, an end before the start is final, a second start is harmless.
// Two operators' commands may run side by side.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "frame/platform/tq_thread.h"

// Modes in which a tree can be offered.
#define CLI_MODE_EXEC 1     // typed as it stands
#define CLI_MODE_SHOW 6     // typed after "show"
#define CLI_MODE_DEBUG 17   // typed after "debug" or "no debug"
#define CLI_MODE_CONFIG 33  // typed in configuration mode, perhaps after "no"

// Bits of output_flags: the running configuration is asked for.
#define CLI_OUTPUT_RUNNING 0x02
#define CLI_OUTPUT_STARTUP 0x10

// A key that cli_getc_no_block returns.
#define CLI_KEY_CTRL_C 3

// The parsed command. It belongs to the library and stays valid while its
// handler runs and, once a worker thread was started, until cli_proc_thread_end.
struct cli_record {
    char words[256];        // words up to the running-configuration point
    uint32_t output_flags;  // CLI_OUTPUT_ bits: write running configuration, change nothing
    uint32_t no_flag;       // non-zero: the command began with "no"
    uint32_t context;     // debug commands: 1, negated 2; others: non-zero chooses the second list
    uint32_t debug_bits;  // debug-category slot
    int32_t value1;       // number, keyword's value or hour; 0 when nothing filled it
    int32_t value2;       // minute
    char string1[256];
    char string2[256];
};

typedef void (*cli_handler)(struct cli_record* record);

// Where a node stores what it matched.
enum cli_slot {
    CLI_SLOT_NONE,
    CLI_SLOT_DEBUG,
    CLI_SLOT_VALUE1,
    CLI_SLOT_VALUE2,
    CLI_SLOT_STRING1,
    CLI_SLOT_STRING2,
};

enum cli_node_kind {
    CLI_NODE_KEYWORD,       // the keyword, or a unique abbreviation where neither a string nor
                            // a line can stand as well; stores value in slot
    CLI_NODE_NUMBER,        // a decimal number from minimum to maximum into slot
    CLI_NODE_STRING,        // one word into slot
    CLI_NODE_LINE,          // the rest of the line, at least one word, into slot
    CLI_NODE_TIME,          // hh:mm, hour into slot, minute into slot2
    CLI_NODE_SET_VAR,       // takes no word; stores value in slot
    CLI_NODE_NOPREFIX,      // takes no word; next is open to a "no" command only
    CLI_NODE_NOP,           // takes no word; joins branches
    CLI_NODE_C2P,           // takes no word; handler writes the running configuration here
    CLI_NODE_EOL,           // end of the command: runs handler
    CLI_NODE_APPEND_POINT,  // root of a tree
};

// One node of a parse tree. The daemon's trees are constant data; the library
// reads nodes and texts by address (help may change between two readings).
struct cli_node {
    enum cli_node_kind kind;
    const struct cli_node* next = nullptr;         // goes on here after a match
    const struct cli_node* alternative = nullptr;  // tried as well; Tno_alt ends the chain
    const char* keyword = nullptr;
    const char* help = nullptr;
    enum cli_slot slot = CLI_SLOT_NONE;
    enum cli_slot slot2 = CLI_SLOT_NONE;
    int32_t value = 0;  // keyword and variable: what is stored; number: the minimum
    int32_t maximum = 0;
    cli_handler handler = nullptr;
};

#define Tno_alt nullptr

constexpr cli_node common_keyword_action(const char* keyword, const char* help,
                                         const cli_node* next, const cli_node* alternative,
                                         cli_slot slot = CLI_SLOT_NONE, int32_t value = 0) {
    return {.kind = CLI_NODE_KEYWORD,
            .next = next,
            .alternative = alternative,
            .keyword = keyword,
            .help = help,
            .slot = slot,
            .value = value};
}
constexpr cli_node common_number_action(const char* help, int32_t minimum, int32_t maximum,
                                        cli_slot slot, const cli_node* next,
                                        const cli_node* alternative) {
    return {.kind = CLI_NODE_NUMBER,
            .next = next,
            .alternative = alternative,
            .help = help,
            .slot = slot,
            .value = minimum,
            .maximum = maximum};
}
// kind: CLI_NODE_STRING or CLI_NODE_LINE.
constexpr cli_node string_action(cli_node_kind kind, const char* help, cli_slot slot,
                                 const cli_node* next, const cli_node* alternative) {
    return {.kind = kind, .next = next, .alternative = alternative, .help = help, .slot = slot};
}
constexpr cli_node time_action(const char* help, cli_slot hour, cli_slot minute,
                               const cli_node* next, const cli_node* alternative) {
    return {.kind = CLI_NODE_TIME,
            .next = next,
            .alternative = alternative,
            .help = help,
            .slot = hour,
            .slot2 = minute};
}
constexpr cli_node set_cdb_var_action(cli_slot slot, int32_t value, const cli_node* next,
                                      const cli_node* alternative) {
    return {.kind = CLI_NODE_SET_VAR,
            .next = next,
            .alternative = alternative,
            .slot = slot,
            .value = value};
}
constexpr cli_node noprefix_action(const cli_node* next, const cli_node* alternative) {
    return {.kind = CLI_NODE_NOPREFIX, .next = next, .alternative = alternative};
}
constexpr cli_node nop_action(const cli_node* next, const cli_node* alternative) {
    return {.kind = CLI_NODE_NOP, .next = next, .alternative = alternative};
}
constexpr cli_node c2p_action(cli_handler handler, const cli_node* next,
                              const cli_node* alternative) {
    return {.kind = CLI_NODE_C2P, .next = next, .alternative = alternative, .handler = handler};
}
constexpr cli_node eol_action(cli_handler handler, const cli_node* alternative = Tno_alt) {
    return {.kind = CLI_NODE_EOL, .alternative = alternative, .handler = handler};
}
constexpr cli_node append_point_action(const cli_node* next) {
    return {.kind = CLI_NODE_APPEND_POINT, .next = next};
}

extern "C" {

// Connects to the command-line service and serves it on the loop. Negative:
// failure; it may be called again, at any time, until it succeeds (and after that
// it changes nothing).
int cli_client_init(const char* client, tq_thread_master* master);

// Offers a tree in a mode; once, however often it is called. Negative: failure.
int cli_add_command(int mode, const cli_node* root, const char* name);

// All trees are there: start-up configuration is replayed, then commands are
// taken. Negative: they can't be taken.
int cli_client_ready(void);

// Optional: a library may lack it. Replays the start-up configuration without
// cli_client_init, for a daemon whose service can't be had yet; to be called after
// the trees of configuration mode were added. cli_client_ready does it, too, and
// once is enough: what was replayed is not replayed again.
#define CLI_CONFIG_READ 0       // or there is none
#define CLI_CONFIG_UNREAD (-1)  // it could not be read: to be called again in a minute
__attribute__((weak)) int cli_config_replay(void);

// Optional: a library may lack it. How the command ended, for the operator's scripts; to
// be called before its end, by its handler or its thread. The last call counts, and
// without one a command is done. What cli_printf_cdb has refused stays refused.
#define CLI_OUTCOME_DONE 0
#define CLI_OUTCOME_REFUSED 1  // it can't be carried out
#define CLI_OUTCOME_FAILED 3   // for one app at least, or with one server
#define CLI_OUTCOME_BUSY 4     // another run is going on
#define CLI_OUTCOME_NOBODY 5   // nothing is registered, or nobody of these names
#define CLI_OUTCOME_NO_MEMORY \
    6  // refused for want of memory: a replayed line is
       // replayed again
__attribute__((weak)) void cli_command_outcome(cli_record* record, int outcome);

// The platform's global debug switch: callback with 1 everything on, 2
// everything off, 3 print the status on the terminal.
int sys_add_debug(const char* name, int, int, int, void (*callback)(int action), int);

// Text for the command's terminal; goes out at the latest when the command ends.
void cli_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Error reply to a configuration command, which then counts as refused.
void cli_printf_cdb(cli_record* record, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Optional, as a library may lack it: text (whole lines) for the person at the command's
// terminal, where one looks on. It is no output, and nobody else gets it.
__attribute__((weak)) void cli_hint(const char* text);

// Optional, as a library may lack it: how the download of the calling thread's command
// goes, for a progress line; at most about four times a second. Never waits.
struct cli_progress_numbers {
    uint64_t received;  // bytes of the file
    uint64_t total;     // 0: unknown
    uint32_t file;      // 1..files
    uint32_t files;     // of the app
    const char* app;    // its name; read during the call only
};
__attribute__((weak)) void cli_progress(const struct cli_progress_numbers* numbers);

// Sends pending output now.
void cli_flush(void);

// The next key typed, without waiting; -1 when there is none. A terminal that
// went away reads as CLI_KEY_CTRL_C.
int cli_getc_no_block(void);

// One running-configuration line (the library adds the line end), written when
// flag is 1.
void c2p_printf(int flag, cli_record* record, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The command stays open, and output of the thread goes to its terminal, until
// the end. The record is gone after the end.
void cli_proc_thread_start(cli_record* record, pthread_t thread);
void cli_proc_thread_end(cli_record* record, pthread_t thread);
}
