// The process-wide record of the update run in progress, and of the last one
// when none is.
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

constexpr uint32_t UPDATE_STATE_FREE = 0;
constexpr uint32_t UPDATE_STATE_RUNNING = 1;

// Download flags of update_progress_reset.
constexpr uint32_t DOWNLOAD_AFRESH = 0;
constexpr uint32_t DOWNLOAD_CONTINUE = 1;

struct UpdateProgress {
    uint32_t mode;           // UPDATE_RUN_ kind
    uint32_t state;          // UPDATE_STATE_
    uint32_t download_flag;  // fourth argument of every download call
    AppSet app_mask;         // apps that the current server says need updating
    uint32_t current_app;    // slot being worked on
    uint32_t file_num;       // files of that app
    uint32_t down_num;       // of those, completed in this pass
    uint64_t file_size;      // bytes of the file being fetched, as the library reports
    uint64_t down_size;      // bytes of it received so far
    char cur_file[256];      // its local path
    UpdateStatus results[APP_REG_MAX];
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
void update_progress_reset(uint32_t kind);

[[nodiscard]] uint32_t update_progress_mode();
[[nodiscard]] uint32_t update_progress_download_flag();
[[nodiscard]] UpdateStatus update_progress_result(int slot);

void update_progress_set_mask(const AppSet& mask);
void update_progress_set_result(int slot, UpdateStatus result);
void update_progress_begin_app(int slot);
void update_progress_begin_files(uint32_t count);
void update_progress_begin_file(std::string_view path);
void update_progress_set_sizes(uint64_t file_size, uint64_t down_size);
void update_progress_file_done();
