// Health monitor and watchdog. The watchdog is fed from a timer of the main loop, so that a
// loop that hangs is a loop that does not feed it; and not while the admin loop is silent.
#include "frame/health.h"

#include <unistd.h>

#include "frame/log.h"
#include "frame/loop.h"
#include "frame/platform/tq_proc_ham.h"

// The health monitor's own numbers, see tq_proc_ham.h.
static constexpr int HAM_EXIT_KIND = 0;
static constexpr int HAM_EXIT_ACTION = 2;
static constexpr int HAM_RETRY_ACTION = 1;
static constexpr int HAM_TIMEOUT_S = 120;
static constexpr int HAM_TIMEOUT_ACTION = 3;
static constexpr long FEED_DOG_S = 60;

bool ham_registered = false;

void http_client_registe_ham() {
    ham_registered = reg_process_exit_action(HAM_EXIT_KIND, HAM_EXIT_ACTION) >= 0;
    if (!ham_registered) {
        http_client_debug_dump("[%s %d]<-->http-client register ham fail", __func__, __LINE__);
    }
}

void http_client_retry_ham() {
    if (ham_registered || reg_process_exit_action(HAM_EXIT_KIND, HAM_RETRY_ACTION) != 0) return;
    ham_registered = true;
    http_client_debug_print(HTTPC_LOG_INFO, "ham reg success");
}

static bool feed_dog_arm(void* master) {
    return tq_thread_add_timer_withname(static_cast<tq_thread_master*>(master),
                                        http_client_feed_dog, nullptr, FEED_DOG_S,
                                        "ham-ntfy") != nullptr;
}

void http_client_dead_detection(tq_thread_master* master) {
    if (ham_client_reg_thread_notify(getpid(), gettid(), HAM_TIMEOUT_S, HAM_TIMEOUT_ACTION) < 0) {
        http_client_debug_dump("[%s %d]: ham_client_reg_thread_notify failed.", __func__, __LINE__);
        return;
    }
    http_client_debug_dump("[%s %d]: ham_client_reg_thread_notify success.", __func__, __LINE__);
    if (!feed_dog_arm(master)) {
        http_client_debug_dump("[%s %d]: tq_thread_add_timer_withname failed.", __func__, __LINE__);
        loop_owe(feed_dog_arm, master);
    }
}

int http_client_feed_dog(tq_thread* task) {
    if (!loop_turns()) {
        http_client_debug_dump("[%s %d]: the admin loop or a run does not go on.", __func__,
                               __LINE__);
    } else if (ham_client_reset_thread_notify(getpid(), gettid(), HAM_TIMEOUT_S,
                                              HAM_TIMEOUT_ACTION) < 0) {
        http_client_debug_dump("[%s %d]: ham_client_reset_thread_notify failed.", __func__,
                               __LINE__);
    }
    if (!feed_dog_arm(task->master)) {
        http_client_debug_dump("[%s %d]: tq_thread_add_timer_withname failed.", __func__, __LINE__);
        loop_owe(feed_dog_arm, task->master);
    }
    return 0;
}
