// Technical-support library (libtech-support-msg.so): the support service asks
// the daemon for its reports and collects the dump files it offered.
// Threads: everything on the main loop's thread.
#pragma once

#include "frame/platform/tq_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

// Asked for report type; answers with tech_module_msg_output and one
// tech_module_msg_deal_completion before it returns. No completion: there is no
// such report.
typedef int (*tech_service_callback)(int type, void* argument);

// Offers the reports of a service on a loop. -1: failure.
int tech_reg_service_callback(const char* service, struct tq_thread_master* master,
                              tech_service_callback callback);

// Offers a file (path copied) that need not exist. Non-zero: failure.
int tech_module_reg_dump_file(const char* path);

// Adds text to the reply in progress; ignored when there is none.
void tech_module_msg_output(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Ends the reply in progress.
void tech_module_msg_deal_completion(void);

#ifdef __cplusplus
}
#endif
