// What an update run was started by. It decides where the run reports and what
// becomes of a download that failed.
#pragma once

#include <cstdint>

constexpr uint32_t UPDATE_RUN_DAILY = 0;
constexpr uint32_t UPDATE_RUN_COMMAND = 1;  // in the foreground: on the operator's terminal
constexpr uint32_t UPDATE_RUN_RESUME = 2;
constexpr uint32_t UPDATE_RUN_BACKGROUND = 3;
