// The rate is that of the last seconds, so that it follows a line that slows down; the time
// left is that of the file, for nobody knows the sizes of the others.
#include "progress_line.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/clock.h"
#include "base/file.h"
#include "base/shown_text.h"
#include "base/text.h"
#include "window.h"

using client_new::ProgressPayload;

namespace {

constexpr int64_t RATE_OVER_MS = 5000;
constexpr int64_t RATE_AFTER_MS = 1000;  // less says nothing
constexpr uint64_t LEFT_SHOWN_MAX_S = 100 * 3600;
constexpr char CLEAR_BELOW[] = "\x1b[J";

void write_terminal(std::string_view text) {
    (void)file_write_all(STDOUT_FILENO, text);  // decoration: its loss is no trouble
}

std::string amount(uint64_t bytes) {
    char text[32];
    if (bytes < 1000) {
        (void)snprintf(text, sizeof(text), "%u B", static_cast<unsigned>(bytes));
    } else if (bytes < 1'000'000) {
        (void)snprintf(text, sizeof(text), "%.0f kB", static_cast<double>(bytes) / 1e3);
    } else if (bytes < 1'000'000'000) {
        (void)snprintf(text, sizeof(text), "%.1f MB", static_cast<double>(bytes) / 1e6);
    } else {
        (void)snprintf(text, sizeof(text), "%.2f GB", static_cast<double>(bytes) / 1e9);
    }
    return text;
}

std::string duration(uint64_t seconds) {
    const auto hours = static_cast<unsigned>(seconds / 3600);
    const auto minutes = static_cast<unsigned>(seconds / 60 % 60);
    const auto rest = static_cast<unsigned>(seconds % 60);
    char text[48];
    if (hours > 0) {
        (void)snprintf(text, sizeof(text), "%u:%02u:%02u", hours, minutes, rest);
    } else {
        (void)snprintf(text, sizeof(text), "%u:%02u", minutes, rest);
    }
    return text;
}

void remember(ProgressLine* line, const ProgressPayload& numbers, int64_t now_ms) {
    const bool another =
        line->file != numbers.file || line->app != numbers.app ||
        (!line->samples.empty() && numbers.received < line->samples.back().received);
    if (another) line->samples.clear();
    line->file = numbers.file;
    line->app = numbers.app;
    line->samples.push_back({now_ms, numbers.received});
    // The one before the span's begin stays, so that the span is covered.
    while (line->samples.size() > 2 && now_ms - line->samples[1].at_ms >= RATE_OVER_MS) {
        line->samples.pop_front();
    }
}

// ", 512 kB/s, 0:07 left", as much of it as is known.
std::string pace_text(const ProgressLine& line, const ProgressPayload& numbers) {
    const ProgressLine::Sample& first = line.samples.front();
    const ProgressLine::Sample& last = line.samples.back();
    const int64_t span_ms = last.at_ms - first.at_ms;
    if (span_ms < RATE_AFTER_MS) return "";
    const uint64_t rate = (last.received - first.received) * 1000 / static_cast<uint64_t>(span_ms);
    if (rate == 0) return ", stalled";
    std::string text = ", " + amount(rate) + "/s";
    if (numbers.total <= numbers.received) return text;
    const uint64_t left_s = (numbers.total - numbers.received) / rate;
    return left_s < LEFT_SHOWN_MAX_S ? text + ", " + duration(left_s) + " left" : text;
}

}  // namespace

std::string progress_line_text(ProgressLine* line, const ProgressPayload& numbers, int64_t now_ms) {
    remember(line, numbers, now_ms);
    std::string text = std::string(ShownText(numbers.app).get()) + ": file " +
                       std::to_string(numbers.file) + " of " + std::to_string(numbers.files) + ", ";
    if (numbers.total == 0) {
        text += amount(numbers.received);
    } else {
        const double share =
            static_cast<double>(numbers.received) / static_cast<double>(numbers.total);
        text += std::to_string(static_cast<int>(share * 100)) + "% of " + amount(numbers.total);
    }
    return text + pace_text(*line, numbers);
}

void progress_line_draw(ProgressLine* line, std::string_view payload) {
    ProgressPayload numbers{};
    if (payload.size() < sizeof(numbers)) return;
    memcpy(&numbers, payload.data(), sizeof(numbers));
    numbers.app[sizeof(numbers.app) - 1] = '\0';
    const std::string text = progress_line_text(line, numbers, monotonic_ms());
    const Window window = window_now();
    const std::string_view shown = text_fitting(text, window.columns - 1);
    const size_t column = line->column % window.columns;
    progress_line_erase(line);
    if (line->column == 0) {
        write_terminal(std::string(shown) + "\r");
    } else if (column != 0) {
        // Behind a full row the cursor is nowhere: then there is no line until it moves on.
        write_terminal("\r\n" + std::string(shown) + "\r\x1b[A\x1b[" + std::to_string(column) +
                       "C");
    } else {
        return;
    }
    line->drawn = true;
}

void progress_line_erase(ProgressLine* line) {
    if (line->drawn) write_terminal(CLEAR_BELOW);
    line->drawn = false;
}

void progress_line_note(ProgressLine* line, std::string_view output) {
    const size_t line_end = output.find_last_of("\r\n");
    if (line_end != output.npos) {
        line->column = 0;
        output.remove_prefix(line_end + 1);
    }
    line->column += text_columns(output);
}
