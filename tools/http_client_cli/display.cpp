// Output that is lost (a full disk) does not stop the command, whose work matters more than
// its words.
#include "display.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "base/file.h"
#include "base/shown_text.h"
#include "window.h"

using client_new::Frame;

namespace {

constexpr size_t KEYWORD_SHOWN_SIZE = 64;

void put_out(Display* display, std::string_view text) {
    if (display->holds) {
        display->held += text;
    } else {
        display_write(display, text);
    }
}

void take_line(Display* display) {
    std::string line = std::exchange(display->line, "");
    std::string_view text = line;
    while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
    if (filter_passes(&display->filters, text)) put_out(display, line);
}

void take_output(Display* display, std::string_view text) {
    if (display->filters.empty()) {
        put_out(display, text);
        return;
    }
    while (!text.empty()) {
        const size_t length = std::min(text.find('\n'), text.size() - 1) + 1;
        display->line += text.substr(0, length);
        text.remove_prefix(length);
        if (display->line.ends_with('\n')) take_line(display);
    }
}

void release(Display* display) {
    display->holds = false;
    display_write(display, std::exchange(display->held, ""));
}

void take_refusal(Display* display, std::string_view text) {
    release(display);
    progress_line_erase(&display->progress);
    (void)file_write_all(STDERR_FILENO, text);
    const std::string nearest = std::exchange(display->nearest, "");
    if (!nearest.empty()) display_write(display, "Did you mean \"" + nearest + "\"?\n");
}

// Stands right below the typed line, unless that has more rows than one.
void draw_caret(Display* display, std::string_view payload) {
    client_new::CaretPayload caret{};
    if (!display->person || payload.size() < sizeof(caret)) return;
    memcpy(&caret, payload.data(), sizeof(caret));
    display->nearest = ShownText<KEYWORD_SHOWN_SIZE>(payload.substr(sizeof(caret))).get();
    const std::string_view typed = display->typed;
    const bool one_row = text_columns(typed) < window_now().columns;
    if (typed.empty() || !one_row || typed.find('\t') != typed.npos) return;
    const std::string_view before = typed.substr(0, display->typed_prompt + caret.at);
    const size_t beyond = display->typed_prompt + caret.at - before.size();
    display_write(display, std::string(text_columns(before) + beyond, ' ') + "^\n");
}

}  // namespace

bool display_serves_person(const Display& display) {
    return display.person || window_moves_cursor();
}

void display_begin(Display* display, std::vector<Filter> filters, bool hold) {
    display->filters = std::move(filters);
    display->holds = hold;
    display->progress = {};
}

void display_frame(Display* display, const Frame& frame) {
    switch (frame.type) {
        case client_new::FRAME_OUTPUT:
            take_output(display, frame.payload);
            break;
        case client_new::FRAME_REFUSAL:
            take_refusal(display, frame.payload);
            break;
        case client_new::FRAME_RUNNING:
            release(display);
            break;
        case client_new::FRAME_PROGRESS:
            if (window_moves_cursor()) progress_line_draw(&display->progress, frame.payload);
            break;
        case client_new::FRAME_CARET:
            draw_caret(display, frame.payload);
            break;
        case client_new::FRAME_HINT:
            if (display->person) put_out(display, frame.payload);
            break;
        case client_new::FRAME_OPEN:
        case client_new::FRAME_COMMAND:
        case client_new::FRAME_KEY:
        case client_new::FRAME_HELP:
        case client_new::FRAME_COMPLETE:
        case client_new::FRAME_PING:
        case client_new::FRAME_UNSAVED:
        case client_new::FRAME_END:
        case client_new::FRAME_REPLY:
        case client_new::FRAME_BYE:
        case client_new::FRAME_PONG:
            break;  // no part of a command; others are of a later release
    }
}

void display_end(Display* display) {
    if (!display->line.empty()) take_line(display);
    progress_line_erase(&display->progress);
    display->nearest.clear();
}

void display_write(Display* display, std::string_view text) {
    if (text.empty()) return;
    progress_line_erase(&display->progress);
    const int error = file_write_all(STDOUT_FILENO, text);
    progress_line_note(&display->progress, text);
    if (error == 0 || display->output_lost) return;
    display->output_lost = true;
    (void)fprintf(stderr, "http_client_cli: standard output: %s\n", strerror(error));
}
