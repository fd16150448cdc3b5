// What an update run is: who asked for it, and what follows from that.
// Threads: any; constants and arguments only.
#pragma once

#include <cstdint>

enum UpdateRunKind : uint32_t {
    UPDATE_RUN_DAILY = 0,
    UPDATE_RUN_COMMAND = 1,  // an operator waits for it at the terminal
    UPDATE_RUN_RESUME = 2,
    UPDATE_RUN_BACKGROUND = 3,  // an operator's, who does not wait
};
constexpr uint32_t UPDATE_RUN_KINDS = 4;
constexpr UpdateRunKind UPDATE_RUN_ALL_KINDS[UPDATE_RUN_KINDS] = {
    UPDATE_RUN_DAILY, UPDATE_RUN_COMMAND, UPDATE_RUN_RESUME, UPDATE_RUN_BACKGROUND};

// Fourth argument of every download call.
enum DownloadFlag : uint32_t {
    DOWNLOAD_RESTART = 0,
    DOWNLOAD_CONTINUE = 1,  // a partial file on disk may be completed
};

[[nodiscard]] constexpr bool run_is_by_operator(UpdateRunKind kind) {
    return kind == UPDATE_RUN_COMMAND || kind == UPDATE_RUN_BACKGROUND;
}

// Whoever asks for an update by hand wants the files as the server has them now.
[[nodiscard]] constexpr DownloadFlag run_download_flag(UpdateRunKind kind) {
    return run_is_by_operator(kind) ? DOWNLOAD_RESTART : DOWNLOAD_CONTINUE;
}
