// A device's own libtqsys.so and libclient_new.so in one, with no optional call. Of the trees
// it is offered it gives each command at once: the "no" form, for something unknown.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "frame/platform/client_new.h"
#include "frame/platform/tqsys.h"

static void give(const cli_node* first) {
    for (const cli_node* node = first; node != Tno_alt; node = node->alternative) {
        give(node->next);
        if (node->kind != CLI_NODE_EOL) continue;
        auto* record = new cli_record{};  // its thread keeps it
        record->no_flag = 1;
        memcpy(record->string1, "nobody", 7);
        node->handler(record);
    }
}

char* tqsys_get_os_name() { return strdup("OS"); }
char* tqsys_get_project() { return strdup("P"); }
char* tqsys_get_release_type() { return strdup("type"); }
char* tqsys_get_release() { return strdup("1"); }
char* tqsys_get_hw_version() { return strdup("2"); }

int cli_client_init(const char*, tq_thread_master*) { return 0; }
int cli_add_command(int mode, const cli_node* root, const char*) {
    if (mode == CLI_MODE_EXEC || mode == CLI_MODE_CONFIG) give(root);
    return 0;
}
int cli_client_ready() { return 0; }
int sys_add_debug(const char*, int, int, int, void (*)(int), int) { return 0; }
void cli_printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    (void)vdprintf(1, format, args);
    va_end(args);
}
void cli_printf_cdb(cli_record*, const char*, ...) {}
void cli_flush() {}
int cli_getc_no_block() { return -1; }
void c2p_printf(int, cli_record*, const char*, ...) {}
void cli_proc_thread_start(cli_record*, pthread_t) {}
void cli_proc_thread_end(cli_record*, pthread_t) {}
