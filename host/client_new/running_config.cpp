// Walk over the configuration trees. Nothing else knows a setting's syntax: a handler
// writes the very line that would set it.
#include "host/client_new/running_config.h"

#include <cstdarg>
#include <cstring>

#include "base/text.h"
#include "host/client_new/command.h"

namespace client_new {

namespace {

// No honest tree is deeper; a ring in a faulty one ends here.
constexpr int DEPTH_MAX = 64;

// Where c2p_printf writes; null: nobody asked.
std::string* s_collected = nullptr;

void ask_writer(const cli_node* node, const std::string& words) {
    cli_record record{};
    // Words that do not fit would give a line that can't be read back.
    if (!text_copy(record.words, words) || node->handler == nullptr) return;
    record.output_flags = CLI_OUTPUT_RUNNING;
    node->handler(&record);
}

void walk(const cli_node* first, const std::string& words, int depth) {
    if (depth > DEPTH_MAX) return;
    for (const cli_node* node = first; node != Tno_alt; node = node->alternative) {
        switch (node->kind) {
            case CLI_NODE_KEYWORD:
                walk(node->next, words.empty() ? node->keyword : words + " " + node->keyword,
                     depth + 1);
                break;
            case CLI_NODE_C2P:
                ask_writer(node, words);
                walk(node->next, words, depth + 1);
                break;
            case CLI_NODE_SET_VAR:
            case CLI_NODE_NOP:
            case CLI_NODE_APPEND_POINT:
                walk(node->next, words, depth + 1);
                break;
            // What follows a typed value has no fixed words; what follows a
            // no-prefix node only ever takes something away.
            case CLI_NODE_NUMBER:
            case CLI_NODE_STRING:
            case CLI_NODE_LINE:
            case CLI_NODE_TIME:
            case CLI_NODE_NOPREFIX:
            case CLI_NODE_EOL:
                break;
        }
    }
}

void append_line(const std::string& text) {
    // A line end inside would make a line of its own out of what follows it.
    *s_collected += as_one_line(text) + "\n";
}

}  // namespace

std::string as_one_line(std::string text) {
    while (!text.empty() && strchr("\r\n ", text.back()) != nullptr) text.pop_back();
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\r' || c == '\n' || c == '\t') c = ' ';
        if (byte < 0x20 || byte == 0x7f) c = c == ' ' ? ' ' : '?';
    }
    return text;
}

std::string running_config_text(const std::vector<const cli_node*>& trees) {
    std::string text;
    s_collected = &text;
    for (const cli_node* tree : trees) walk(tree, "", 0);
    s_collected = nullptr;
    return text;
}

}  // namespace client_new

void c2p_printf(int flag, cli_record*, const char* format, ...) {
    if (flag != 1 || client_new::s_collected == nullptr) return;
    va_list args;
    va_start(args, format);
    client_new::append_line(client_new::format_text(format, args));
    va_end(args);
}
