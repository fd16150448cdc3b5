// The record of the update run. Its writers call here for each change, so that the lock
// is held for an assignment and never while something is fetched or printed.
#include "update/progress.h"

#include <algorithm>
#include <atomic>

#include "base/clock.h"
#include "base/sync.h"
#include "base/text.h"

// Guards the state: held only to test and set it.
static Mutex update_mutex;
// Written under update_mutex; atomic, so that reports read it without.
static std::atomic<UpdateState> s_state{UPDATE_STATE_FREE};

static Mutex s_lock;  // leaf: everything but the state
static UpdateProgress s_progress GUARDED_BY(s_lock);

void update_progress_init() {
    update_state_release();
    MutexLock lock(s_lock);
    s_progress = {};
}

UpdateProgress update_progress_copy() {
    MutexLock lock(s_lock);
    UpdateProgress copy = s_progress;
    copy.state = s_state.load(std::memory_order_relaxed);
    return copy;
}

bool update_state_claim() {
    MutexLock lock(update_mutex);
    if (s_state.load(std::memory_order_relaxed) == UPDATE_STATE_RUNNING) return false;
    s_state.store(UPDATE_STATE_RUNNING, std::memory_order_relaxed);
    return true;
}

void update_state_release() {
    MutexLock lock(update_mutex);
    s_state.store(UPDATE_STATE_FREE, std::memory_order_relaxed);
}

bool update_state_is_running() {
    MutexLock lock(update_mutex);
    return s_state.load(std::memory_order_relaxed) == UPDATE_STATE_RUNNING;
}

void update_progress_reset(UpdateRunKind kind) {
    MutexLock lock(s_lock);
    s_progress = {};
    s_progress.mode = kind;
    s_progress.download_flag = run_download_flag(kind);
    std::fill(std::begin(s_progress.results), std::end(s_progress.results), UPDATE_NOT_STARTED);
}

void update_progress_set_mask(const AppSet& mask) {
    MutexLock lock(s_lock);
    s_progress.app_mask = mask;
}

void update_progress_set_result(int slot, UpdateStatus result) {
    MutexLock lock(s_lock);
    s_progress.results[slot] = result;
}

void update_progress_begin_app(int slot) {
    MutexLock lock(s_lock);
    s_progress.current_app = static_cast<uint32_t>(slot);
}

void update_progress_begin_files(uint32_t count) {
    MutexLock lock(s_lock);
    s_progress.file_num = count;
    s_progress.down_num = 0;
}

void update_progress_begin_file(std::string_view path) {
    const int64_t now_ms = monotonic_ms();
    MutexLock lock(s_lock);
    (void)text_copy(s_progress.cur_file, path);  // paths are at most 255 characters
    s_progress.begin_ms = s_progress.last_bytes_ms = now_ms;
    s_progress.fresh_bytes = 0;
}

void update_progress_set_sizes(uint64_t file_size, uint64_t down_size, uint64_t fresh_bytes) {
    const int64_t now_ms = monotonic_ms();
    MutexLock lock(s_lock);
    s_progress.file_size = file_size;
    s_progress.down_size = down_size;
    s_progress.fresh_bytes += fresh_bytes;
    if (fresh_bytes > 0) s_progress.last_bytes_ms = now_ms;
}

void update_progress_file_done() {
    MutexLock lock(s_lock);
    ++s_progress.down_num;
}
