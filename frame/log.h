// The daemon's log calls and the mask that switches the first.
// All leave errno as it was: callers log it more than once.
// Threads: any, without a lock.
#pragma once

#include <atomic>
#include <cstdint>

// Levels of http_client_debug_print; DebugMask says which of them pass.
constexpr int HTTPC_LOG_INFO = 0;
constexpr int HTTPC_LOG_SEND = 1;
constexpr int HTTPC_LOG_CONNECT = 2;
constexpr int HTTPC_LOG_REGISTER = 3;
constexpr int HTTPC_LOG_ERROR = 4;

constexpr uint32_t DEBUG_INFO = 0x01;
constexpr uint32_t DEBUG_CONNECT = 0x02;
constexpr uint32_t DEBUG_REGISTER = 0x04;
constexpr uint32_t DEBUG_DOWNLOAD = 0x08;  // lets no line through: it switches the download library
constexpr uint32_t DEBUG_ERROR = 0x10;
constexpr uint32_t DEBUG_ALL = 0xff;

// DEBUG_ bits that are on; frame/debug changes them. Relaxed order: a line more or
// less around a change does not matter.
extern std::atomic<uint32_t> DebugMask;

// One line (cut to 1023 characters) to the system log, when DebugMask has a bit
// of its level.
[[gnu::format(printf, 2, 3)]] void http_client_debug_print(int level, const char* format, ...);

// One line (cut to 1023 characters) to the system log, whatever DebugMask: what is worth
// knowing where nobody debugs. A warning says that something has failed.
[[gnu::format(printf, 1, 2)]] void http_client_notice(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void http_client_warning(const char* format, ...);

// Below the temporary working directory.
constexpr char DUMP_FILE[] = ".http_reg_server_dump";

// One time-stamped line (cut to 1023 characters) to the dump file that technical
// support collects, whatever DebugMask; copied to the debug print at
// HTTPC_LOG_REGISTER. The file starts again when it has grown beyond 512 KiB.
// Never fails its caller: without its directory the line is dropped.
[[gnu::format(printf, 1, 2)]] void http_client_debug_dump(const char* format, ...);

// The line that the process ends with, in the dump file and on standard error, which is
// there also before the dump file is. Ends with EXIT_FAILURE at once: other threads may
// still use what an orderly end takes down. Allocates nothing itself.
[[noreturn, gnu::format(printf, 1, 2)]] void http_client_debug_dump_exit(const char* format, ...);
