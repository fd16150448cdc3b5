// Runs read the settings while the operator changes them. They are too small to be worth
// a lock each: one guards all but the mode, which is a word of its own and goes with
// nothing else.
#include "config/settings.h"

#include <string_view>

#include "base/sync.h"
#include "base/text.h"

std::atomic<int32_t> update_mode{UPDATE_MODE_MANUAL};

static Mutex s_lock;  // leaf
static DailyTime s_time GUARDED_BY(s_lock);
static DailyTime s_default_time GUARDED_BY(s_lock);
static SourceAddress s_src_ip GUARDED_BY(s_lock) = {"0.0.0.0"};

DailyTime update_time_get() {
    const MutexLock guard(s_lock);
    return s_time;
}

void update_time_set(DailyTime time) {
    const MutexLock guard(s_lock);
    s_time = time;
}

DailyTime default_update_time_get() {
    const MutexLock guard(s_lock);
    return s_default_time;
}

void default_update_time_set(DailyTime time) {
    const MutexLock guard(s_lock);
    s_default_time = time;
}

void update_time_default() {
    const MutexLock guard(s_lock);
    s_time = s_default_time;
}

bool SourceAddress::is_set() const { return text_view(update_src_ip) != SRC_IP_NONE; }

SourceAddress src_ip_get() {
    const MutexLock guard(s_lock);
    return s_src_ip;
}

void src_ip_set(const char* text) {
    if (text == nullptr || *text == '\0') return;
    const MutexLock guard(s_lock);
    (void)text_copy(s_src_ip.update_src_ip, text);
}
