// The table of registered apps: 20 slots of heap records under one reader-writer
// lock. Nothing is logged under the lock: a log line opens and writes a file, and
// the lines are made from copies.

#include "registry/app_registry.h"

#include <cstring>

#include "base/shown_text.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "frame/log.h"

// "Files:", 20 names and blanks, and the closing words take 680 bytes.
static constexpr size_t HELP_SIZE = 704;
static constexpr char HELP_BEGIN[] = "Files:";
static constexpr char WHITE_SPACE[] = " \t\n\v\f\r";

RwLock app_registry_lock;

// A member of its own, so that the lock guards the entry as it guards the slot.
struct AppSlot {
    AppEntry* app PT_GUARDED_BY(app_registry_lock) = nullptr;  // null: free
};
static AppSlot s_slots[APP_REG_MAX] GUARDED_BY(app_registry_lock);
static char s_help[HELP_SIZE] = "Files: null";

// Slot of the first entry of that name, or -1.
static int slot_find_locked(std::string_view name) REQUIRES_SHARED(app_registry_lock) {
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        const AppEntry* app = s_slots[slot].app;
        if (app != nullptr && name == app->name) return slot;
    }
    return -1;
}

// Puts a copy of the app into the lowest free slot.
static int slot_take_locked(const AppEntry& app) REQUIRES(app_registry_lock) {
    for (AppSlot& slot : s_slots) {
        if (slot.app != nullptr) continue;
        slot.app = static_cast<AppEntry*>(mem_zalloc(sizeof(app)));
        if (slot.app == nullptr) return REG_NO_MEMORY;
        *slot.app = app;
        return REG_OK;
    }
    return REG_TABLE_FULL;
}

// Enters the app unless its name is taken: *other_fd is then the connection that
// has it, else -1.
static int app_enter(const AppEntry& app, int* other_fd) {
    const WriteLock guard(app_registry_lock);
    const AppEntry* present = reg_app_find(app.name);
    *other_fd = present == nullptr ? -1 : present->fd;
    if (present == nullptr) return slot_take_locked(app);
    return present->fd == app.fd ? REG_OK : REG_DUPLICATE;
}

// Applies a change to the app of that name; *app is its state afterwards. False
// when there is none.
template <typename Change>
static bool app_change(std::string_view name, AppEntry* app, Change change) {
    const WriteLock guard(app_registry_lock);
    AppEntry* entry = reg_app_find_mutable(name);
    if (entry == nullptr) return false;
    change(entry);
    *app = *entry;
    return true;
}

const AppEntry* reg_app_find(std::string_view name) {
    const int slot = slot_find_locked(name);
    return slot < 0 ? nullptr : s_slots[slot].app;
}

AppEntry* reg_app_find_mutable(std::string_view name) {
    const int slot = slot_find_locked(name);
    return slot < 0 ? nullptr : s_slots[slot].app;
}

int reg_app_add(int fd, std::string_view name, std::string_view version, uint32_t flags) {
    AppEntry app{};
    app.fd = fd;
    (void)text_copy(app.name, name);  // the cut name is the one that must be unique
    (void)text_copy(app.version, version);
    app.flags = flags;
    int other_fd = -1;
    const int result = app_enter(app, &other_fd);
    switch (result) {
        case REG_OK:
            if (other_fd == fd) {
                http_client_debug_dump("[%d]<-->[%s] already register", fd, app.name);
                break;
            }
            http_client_debug_dump("[%d]<-->[%s] reg add", fd, app.name);
            reg_app_files_help();
            break;
        case REG_DUPLICATE:
            http_client_debug_dump("[%d]<-->[%s] [%d] is duplicate", fd, app.name, other_fd);
            break;
        case REG_NO_MEMORY:
            http_client_debug_dump("[%d]<-->[%s] add malloc fail", fd, app.name);
            break;
        default:
            http_client_debug_dump("[%d]<-->[%s] reg no add for [%d]", fd, app.name, APP_REG_MAX);
            break;
    }
    return result;
}

int reg_app_del_by_name(std::string_view name) {
    {
        const WriteLock guard(app_registry_lock);
        const int slot = slot_find_locked(name);
        if (slot < 0) return -1;
        mem_free(s_slots[slot].app);
        s_slots[slot].app = nullptr;
    }
    reg_app_files_help();
    return 0;
}

void reg_app_del_by_fd(int fd) {
    AppEntry* removed[APP_REG_MAX];
    int count = 0;
    {
        const WriteLock guard(app_registry_lock);
        for (AppSlot& slot : s_slots) {
            if (slot.app == nullptr || slot.app->fd != fd) continue;
            removed[count++] = slot.app;
            slot.app = nullptr;
        }
    }
    for (int i = 0; i < count; ++i) {
        http_client_debug_dump("[%d]<-->deregister [%s] in free by fd", fd, removed[i]->name);
        mem_free(removed[i]);
    }
}

bool reg_app_fd_in_use(int fd) {
    const ReadLock guard(app_registry_lock);
    for (const AppSlot& slot : s_slots) {
        if (slot.app != nullptr && slot.app->fd == fd) return true;
    }
    return false;
}

void reg_app_set_version(std::string_view name, std::string_view version) {
    AppEntry app;
    if (app_change(name, &app,
                   [&](AppEntry* entry) { (void)text_copy(entry->version, version); })) {
        http_client_debug_dump("[%s]<-->version [%s]", app.name, app.version);
    }
}

void reg_app_set_mode(std::string_view name, int32_t mode) {
    const bool manual = mode == HTTP_UPDATE_MODE_MANUAL;
    AppEntry app;
    if (app_change(name, &app, [&](AppEntry* entry) {
            entry->flags =
                manual ? entry->flags | APP_FLAG_MANUAL : entry->flags & ~APP_FLAG_MANUAL;
        })) {
        http_client_debug_dump("[%s]<-->mode is %s", app.name, manual ? "manual" : "auto");
    }
}

void reg_app_update_result(std::string_view name, std::string_view text, int32_t result) {
    AppEntry app;
    if (app_change(name, &app, [&](AppEntry* entry) {
            if (result != HTTP_UPDATE_RESULT_UPDATING) entry->flags &= ~APP_FLAG_BUSY;
            if (result == HTTP_UPDATE_RESULT_SUCCESS && !text.empty()) {
                (void)text_copy(entry->version, text);
            }
        })) {
        http_client_debug_dump("[%s]<-->update response result %d %s", app.name, result,
                               app.version);
    }
}

int reg_app_set_savepath(std::string_view name, std::string_view path) {
    AppEntry app;
    if (!app_change(name, &app,
                    [&](AppEntry* entry) { (void)text_copy(entry->save_path, path); })) {
        return -1;
    }
    http_client_debug_dump("[%s]<-->savepath [%s]", app.name, app.save_path);
    return 0;
}

int reg_app_get(int slot, AppEntry* entry) {
    if (entry == nullptr) return -1;
    *entry = AppEntry{};
    if (slot < 0 || slot >= APP_REG_MAX) return -1;
    const ReadLock guard(app_registry_lock);
    if (s_slots[slot].app == nullptr) return -1;
    *entry = *s_slots[slot].app;
    return 0;
}

// Adds the slots of the apps that have none of the flags.
static void slots_add(AppSet* set, uint32_t without_flags) {
    const ReadLock guard(app_registry_lock);
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        const AppEntry* app = s_slots[slot].app;
        if (app != nullptr && (app->flags & without_flags) == 0) app_set_insert(set, slot);
    }
}

void reg_app_all(AppSet* set) { slots_add(set, 0); }

void reg_app_auto_set(AppSet* set) {
    *set = AppSet{};
    slots_add(set, APP_FLAG_MANUAL);
}

static void named_slot_add(std::string_view name, AppSet* set) {
    char text[APP_NAME_SIZE];
    (void)text_copy(text, name);
    http_client_debug_dump("get module name: %s", text);
    int slot = -1;
    {
        const ReadLock guard(app_registry_lock);
        slot = slot_find_locked(name);
    }
    if (slot < 0) return;
    app_set_insert(set, slot);
    http_client_debug_dump("get module id: %d", slot);
}

int reg_app_parse_names(const char* text, AppSet* set) {
    http_client_debug_dump("update check: %s", text);
    constexpr size_t length_max = APP_NAME_SIZE - 1;
    std::string_view rest(text);
    for (;;) {
        const size_t begin = rest.find_first_not_of(WHITE_SPACE);
        if (begin == std::string_view::npos) return 0;
        rest.remove_prefix(begin);
        const std::string_view name = rest.substr(0, rest.find_first_of(WHITE_SPACE));
        if (name.size() > length_max) {
            http_client_debug_dump("Length of module's name can't more than %d",
                                   static_cast<int>(length_max));
            return -1;
        }
        named_slot_add(name, set);
        rest.remove_prefix(name.size());
    }
}

const char* reg_app_help_text() { return s_help; }

void reg_app_files_help() {
    size_t length = 0;
    (void)text_appendf(s_help, HELP_SIZE, &length, HELP_BEGIN);
    {
        const ReadLock guard(app_registry_lock);
        for (const AppSlot& slot : s_slots) {
            if (slot.app == nullptr) continue;
            (void)text_appendf(s_help, HELP_SIZE, &length, "%s ", ShownText(slot.app->name).get());
        }
    }
    const bool none = length == strlen(HELP_BEGIN);
    (void)text_appendf(s_help, HELP_SIZE, &length, "%s",
                       none ? " null" : "(multiple files splitted by space)");
}
