// Line editing with libedit. Its keys come through our own reader, so that a
// signal or the daemon's end is noticed while the operator thinks.
#include <histedit.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <memory>

#include "base/file.h"
#include "filter.h"
#include "history.h"
#include "input.h"

namespace {

constexpr wchar_t KEY_INTERRUPT = 3;

struct Editor {
    EditLine* edit;
    History* history;
    Connection* connection;
    const char* prompt;
    InputResult result;                // why a read ended without a line
    std::vector<std::string> entered;  // in this session, for the next ones
};

std::unique_ptr<Editor> s_editor;

// One key may be several bytes; bytes that are no character here are left out.
// False: end of input.
bool read_character(wchar_t* key) {
    mbstate_t state{};
    for (;;) {
        char byte = 0;
        if (read(STDIN_FILENO, &byte, 1) != 1) return false;
        const size_t length = mbrtowc(key, &byte, 1, &state);
        if (length == static_cast<size_t>(-1)) state = {};
        if (length < static_cast<size_t>(-2)) return true;
    }
}

int stop_reading(Editor* editor, InputResult result) {
    editor->result = result;
    return 0;
}

int read_key(EditLine* edit, wchar_t* key) {
    Editor* editor = s_editor.get();
    for (;;) {
        client_new::Frame frame{};
        switch (connection_wait(editor->connection, true, &frame)) {
            case Event::kInput:
                return read_character(key) ? 1 : stop_reading(editor, InputResult::kEnd);
            case Event::kInterrupt:
                *key = KEY_INTERRUPT;
                return 1;
            case Event::kQuit:
                return stop_reading(editor, InputResult::kQuit);
            case Event::kLost:
                return stop_reading(editor, InputResult::kLost);
            case Event::kResize:
                el_resize(edit);
                break;
            case Event::kContinue:
                // Off and on: libedit takes the terminal for what it left it.
                (void)el_set(edit, EL_PREP_TERM, 0);
                (void)el_set(edit, EL_PREP_TERM, 1);
                (void)el_set(edit, EL_REFRESH);
                break;
            case Event::kFrame:
                break;
        }
    }
}

std::string_view line_before_cursor(EditLine* edit) {
    const LineInfo* line = el_line(edit);
    return {line->buffer, static_cast<size_t>(line->cursor - line->buffer)};
}

// Leaves the line for the row below the cursor. Rows of a long line that stand
// there go.
void leave_line(EditLine* edit) {
    const char* clear = nullptr;
    std::string rows = "\n";
    if (el_get(edit, EL_GETTC, "cd", &clear) == 0 && clear != nullptr) rows += clear;
    (void)fflush(stdout);
    (void)file_write_all(STDOUT_FILENO,
                         rows.substr(0, rows.find('$')));  // behind it: times to wait
}

// Shows text below the line and draws the line again under it. libedit's own way
// (CC_REDISPLAY) first clears as many rows upwards as the line has, text included.
unsigned char show(EditLine* edit, std::string_view text) {
    leave_line(edit);
    (void)file_write_all(STDOUT_FILENO, text);
    (void)el_set(edit, EL_REFRESH);
    return CC_NORM;
}

// False: the session is over; *ending is what to return then.
bool ask(EditLine* edit, client_new::FrameType type, std::string* reply, unsigned char* ending) {
    if (connection_ask(s_editor->connection, type, line_before_cursor(edit), reply)) return true;
    s_editor->result = InputResult::kLost;
    *ending = CC_EOF;
    return false;
}

unsigned char help_key(EditLine* edit, int) {
    std::string text;
    std::vector<std::string_view> words;
    if (filter_is_typed(line_before_cursor(edit), &words)) {
        for (const std::string_view word : words) text.append("  ").append(word).append(" TEXT\n");
        return show(edit, text.empty() ? "  TEXT\n" : text);
    }
    unsigned char ending = 0;
    if (!ask(edit, client_new::FRAME_HELP, &text, &ending)) return ending;
    return show(edit, text);
}

// Shortens *common to what it shares with the word.
void keep_common(std::string* common, std::string_view word) {
    const auto ends = std::mismatch(common->begin(), common->end(), word.begin(), word.end());
    common->erase(ends.first, common->end());
}

unsigned char complete_key(EditLine* edit, int) {
    std::string reply;
    unsigned char ending = 0;
    std::vector<std::string_view> words;
    if (filter_is_typed(line_before_cursor(edit), &words)) {
        for (const std::string_view word : words) reply.append(word).append("\n");
    } else if (!ask(edit, client_new::FRAME_COMPLETE, &reply, &ending)) {
        return ending;
    }
    if (reply.empty()) return CC_ERROR;

    std::string common = reply.substr(0, reply.find('\n'));
    for (size_t at = 0; at < reply.size();) {
        const size_t end = reply.find('\n', at);
        if (end == reply.npos) break;
        keep_common(&common, std::string_view(reply).substr(at, end - at));
        at = end + 1;
    }
    const bool only_one = reply == common + "\n";
    const std::string_view line = line_before_cursor(edit);
    const size_t typed = line.size() - (line.find_last_of(" \t") + 1);
    const std::string rest = common.substr(std::min(typed, common.size())) + (only_one ? " " : "");
    if (rest.empty()) return show(edit, reply);
    return el_insertstr(edit, rest.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
}

unsigned char clear_key(EditLine*, int) {
    s_editor->result = InputResult::kInterrupted;
    return CC_EOF;
}

// libedit wants it writable, and does not write.
char* prompt_text(EditLine*) { return const_cast<char*>(s_editor->prompt); }

bool open_editor(Connection* connection) {
    auto editor = std::make_unique<Editor>();
    editor->connection = connection;
    editor->edit = el_init("http_client_cli", stdin, stdout, stderr);
    editor->history = history_init();
    if (editor->edit == nullptr || editor->history == nullptr) return false;
    s_editor = std::move(editor);
    EditLine* edit = s_editor->edit;
    HistEvent event{};
    (void)history(s_editor->history, &event, H_SETSIZE, int{HISTORY_LINES});
    (void)history(s_editor->history, &event, H_SETUNIQUE, 1);
    for (const std::string& line : history_load()) {
        (void)history(s_editor->history, &event, H_ENTER, line.c_str());
    }
    (void)el_set(edit, EL_EDITOR, "emacs");
    (void)el_set(edit, EL_SIGNAL, 0);
    (void)el_set(edit, EL_HIST, history, s_editor->history);
    (void)el_set(edit, EL_PROMPT, prompt_text);
    (void)el_set(edit, EL_GETCFN, read_key);
    // The wide call keeps the names by address; the other one would leak copies.
    (void)el_wset(edit, EL_ADDFN, L"cli-help", L"What may follow", help_key);
    (void)el_wset(edit, EL_ADDFN, L"cli-complete", L"Complete the word", complete_key);
    (void)el_wset(edit, EL_ADDFN, L"cli-clear", L"Clear the line", clear_key);
    (void)el_set(edit, EL_BIND, "?", "cli-help", nullptr);
    (void)el_set(edit, EL_BIND, "^I", "cli-complete", nullptr);
    (void)el_set(edit, EL_BIND, "^C", "cli-clear", nullptr);
    return true;
}

}  // namespace

InputResult edit_read_line(Connection* connection, const char* prompt, std::string* line) {
    if (s_editor == nullptr && !open_editor(connection)) {
        return plain_read_line(connection, prompt, line);
    }
    s_editor->prompt = prompt;
    s_editor->result = InputResult::kEnd;
    el_resize(s_editor->edit);  // the window may have changed while a command ran
    int length = 0;
    const char* text = el_gets(s_editor->edit, &length);
    if (text == nullptr || length <= 0) {
        // The cursor stands behind a prompt that nobody finished.
        leave_line(s_editor->edit);
        return s_editor->result;
    }
    line->assign(text, static_cast<size_t>(length));
    while (!line->empty() && (line->back() == '\n' || line->back() == '\r')) line->pop_back();
    HistEvent event{};
    if (!line->empty()) {
        (void)history(s_editor->history, &event, H_ENTER, line->c_str());
        s_editor->entered.push_back(*line);
        if (s_editor->entered.size() > HISTORY_LINES) {
            s_editor->entered.erase(s_editor->entered.begin());
        }
    }
    return InputResult::kLine;
}

void edit_close() {
    if (s_editor == nullptr) return;
    history_add(s_editor->entered);
    el_end(s_editor->edit);
    history_end(s_editor->history);
    s_editor.reset();
}
