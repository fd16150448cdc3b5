// The process-wide record of the update run in progress, and of the last one
// when none is. It is there for reports: the run writes it and decides nothing
// by it; only the state keeps a second run out.
//
// Threads: the run's thread writes, any thread copies, under a leaf lock. The
// state word alone is claimed under update_mutex, which is held only to test and
// set it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "http/status.h"
#include "registry/app_registry.h"
#include "update/run_kind.h"

enum UpdateState : uint32_t { UPDATE_STATE_FREE = 0, UPDATE_STATE_RUNNING = 1 };

struct UpdateProgress {
    UpdateRunKind mode;
    UpdateState state;
    DownloadFlag download_flag;
    AppSet app_mask;       // apps that the current server says need updating
    uint32_t current_app;  // slot being worked on
    uint32_t file_num;     // files of that app
    uint32_t down_num;     // of those, completed in this pass
    uint64_t file_size;    // bytes of the file being fetched, as the library reports
    uint64_t down_size;    // bytes of it received so far
    char cur_file[256];    // its local path
    UpdateStatus results[APP_REG_MAX];
    uint64_t fresh_bytes;   // of down_size, those that did not lie there before
    int64_t begin_ms;       // monotonic, when the file was begun; 0: none was
    int64_t last_bytes_ms;  // when the last bytes came; begin_ms: none have
};
static_assert(std::is_trivially_copyable_v<UpdateProgress>);

// Zeroes everything: no run is in progress. Before other threads start.
void update_progress_init();

[[nodiscard]] UpdateProgress update_progress_copy();

// Claims the running state; false when a run has it already.
[[nodiscard]] bool update_state_claim();
void update_state_release();
[[nodiscard]] bool update_state_is_running();

// --- by the thread of the run that holds the running state

// Fresh record for one server's pass of a run of that kind.
void update_progress_reset(UpdateRunKind kind);

void update_progress_set_mask(const AppSet& mask);
void update_progress_set_result(int slot, UpdateStatus result);
void update_progress_begin_app(int slot);
void update_progress_begin_files(uint32_t count);
void update_progress_begin_file(std::string_view path);
// fresh_bytes came since the last call.
void update_progress_set_sizes(uint64_t file_size, uint64_t down_size, uint64_t fresh_bytes = 0);
void update_progress_file_done();
