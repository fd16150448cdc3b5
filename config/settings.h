// The update settings.
// Threads: written on the main thread, read by any. Values that belong together
// (hour and minute) and the source address are copied under a lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

constexpr int32_t UPDATE_MODE_MANUAL = 0;
constexpr int32_t UPDATE_MODE_AUTO = 1;
extern std::atomic<int32_t> update_mode;

struct DailyTime {
    int32_t update_hour;    // 0 to 23
    int32_t update_minute;  // 0 to 59
};

// The time of the daily update, local time.
[[nodiscard]] DailyTime update_time_get();
void update_time_set(DailyTime time);

// Its default, drawn once at start.
[[nodiscard]] DailyTime default_update_time_get();
void default_update_time_set(DailyTime time);
// The daily time becomes the default.
void update_time_default();

constexpr size_t SRC_IP_SIZE = 128;
constexpr char SRC_IP_NONE[] = "0.0.0.0";  // no source address

struct SourceAddress {
    char update_src_ip[SRC_IP_SIZE];  // dotted IPv4 text as configured
    [[nodiscard]] bool is_set() const;
};

[[nodiscard]] SourceAddress src_ip_get();
// A null or empty text is ignored; a longer one is cut to 127 characters.
void src_ip_set(const char* text);
