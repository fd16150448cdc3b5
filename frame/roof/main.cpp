// Entry of http_client, the update-client daemon. Apps register with it over a
// local socket; it asks update servers which of them have newer versions,
// downloads the files and hands them over: once a day, on an operator's
// command, and in resume runs that retry what failed.
//
// The main thread serves apps, operator commands and technical support from one
// event loop; the admin thread runs the daily and resume updates from its own;
// long operator commands get a thread each. The process has no orderly stop: it
// runs until it is killed, and everything that must survive that is on disk.
#include <malloc.h>

#include "admin/admin.h"
#include "config/server_list.h"
#include "frame/health.h"
#include "frame/identity.h"
#include "frame/log.h"
#include "frame/loop.h"
#include "frame/memory_reserve.h"
#include "frame/paths.h"
#include "frame/platform/tq_thread.h"
#include "frame/roof/commands.h"
#include "frame/roof/startup.h"
#include "resume/resume_file.h"
#include "update/announce.h"

// The main thread's event loop; never destroyed.
static tq_thread_master* http_client_master = nullptr;

int main(int argc, char** argv) {
    // One heap for all threads: few allocate at the same time, and what a run has
    // freed can go back to the system from the heap's top.
    (void)mallopt(M_ARENA_MAX, 1);
    memory_reserve_init();

    http_client_parse_args(argc, argv);
    http_client_get_env_dir();
    http_client_vsd_make_dir();
    http_client_is_continue();
    http_client_bind_cpus();
    http_client_master = tq_thread_master_create();
    if (http_client_master == nullptr) {
        http_client_debug_dump_exit("[%s %d]: tq_thread_master_create failed.", __func__, __LINE__);
    }
    http_client_registe_ham();
    http_client_signal_init();
    http_client_get_device_info();
    hu_serv_config_init();
    resume_init();
    announce_init();
    http_update_admin_init();
    (void)http_update_admin_reg_install(http_client_master);  // retried by the public timer
    if (http_update_admin_cli(http_client_master) < 0 &&
        !http_client_services_retry(http_client_master)) {
        http_update_admin_retry(http_client_services_retry);
    }
    http_client_dead_detection(http_client_master);
    announce_start();

    (void)loop_run(http_client_master);
    http_client_debug_dump("[%s %d]<-->the main loop has ended", __func__, __LINE__);
    return -1;
}
