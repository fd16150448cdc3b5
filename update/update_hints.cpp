// Hints go by an optional call of the platform: where it is missing, nobody gets any.
#include "update/update_hints.h"

#include <string_view>

#include "base/shown_text.h"
#include "base/text.h"
#include "frame/platform/client_new.h"
#include "registry/app_registry.h"

namespace {

constexpr std::string_view BLANKS = " \t\r\n\v\f";
constexpr size_t NAMES_SHOWN_SIZE = 256;  // as long as the argument of the command

bool is_registered(std::string_view name) {
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (reg_app_get(slot, &entry) == 0 && name == entry.name) return true;
    }
    return false;
}

// Adds ", NAME" to the text, the first one without the comma.
template <size_t N>
void add_name(char (&text)[N], size_t* length, const char* name) {
    (void)text_appendf(text, N, length, "%s%s", *length > 0 ? ", " : "", name);
}

}  // namespace

void hint_unregistered(const char* names) {
    if (cli_hint == nullptr) return;
    char strangers[NAMES_SHOWN_SIZE] = "";
    size_t strangers_length = 0;
    const std::string_view words = names;
    for (size_t at = words.find_first_not_of(BLANKS); at < words.size();) {
        const std::string_view name = words.substr(at, words.find_first_of(BLANKS, at) - at);
        if (!is_registered(name)) {
            add_name(strangers, &strangers_length, ShownText<NAMES_SHOWN_SIZE>(name).get());
        }
        at = words.find_first_not_of(BLANKS, at + name.size());
    }
    if (strangers_length == 0) return;
    char present[APP_REG_MAX * (APP_NAME_SIZE + 2)] = "";
    size_t present_length = 0;
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (reg_app_get(slot, &entry) != 0) continue;
        add_name(present, &present_length, ShownText(entry.name).get());
    }
    char hint[sizeof(strangers) + sizeof(present) + 64] = "";
    size_t length = 0;
    (void)text_appendf(hint, sizeof(hint), &length, "Not registered: %s. Registered: %s.\n",
                       strangers, present_length > 0 ? present : "nobody");
    cli_hint(hint);
}
