// The table of registered apps. A slot's number is the app's id: it is printed
// in reports, is the app's bit in an AppSet and indexes the results of a run.
//
// Threads: any; every operation takes the registry's reader-writer lock itself
// unless it says otherwise. Slots and most fields are written on the main thread
// only. Callers never keep a pointer to an entry: they take copies or sets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "base/sync.h"
#include "frame/platform/http_update_packets.h"
#include "registry/app_set.h"

constexpr int APP_REG_MAX = HTTP_UPDATE_APP_MAX;
constexpr size_t APP_NAME_SIZE = HTTP_UPDATE_NAME_SIZE;
constexpr size_t APP_VERSION_SIZE = HTTP_UPDATE_VERSION_SIZE;
constexpr size_t APP_SAVE_PATH_SIZE = HTTP_UPDATE_SAVE_PATH_SIZE;

constexpr uint32_t APP_FLAG_ONE_FILE = HTTP_UPDATE_FLAG_ONE_FILE;
constexpr uint32_t APP_FLAG_MANUAL = HTTP_UPDATE_FLAG_MANUAL;
constexpr uint32_t APP_FLAG_INCREMENTAL = HTTP_UPDATE_FLAG_INCREMENTAL;
constexpr uint32_t APP_FLAG_BUSY = 0x8;  // has an update request it has not answered yet

// Other flag bits are kept as registered; nothing reads them.
struct AppEntry {
    int32_t fd;  // registration connection; several entries may share one
    char name[APP_NAME_SIZE];
    char version[APP_VERSION_SIZE];
    char save_path[APP_SAVE_PATH_SIZE];  // empty until set
    uint32_t flags;
};
static_assert(sizeof(AppEntry) == 200 && std::is_trivially_copyable_v<AppEntry>);

// Results of reg_app_add; they travel to the app in the registration reply.
constexpr int REG_OK = HTTP_UPDATE_REGIST_OK;
constexpr int REG_NO_MEMORY = HTTP_UPDATE_REGIST_NO_MEMORY;
constexpr int REG_TABLE_FULL = HTTP_UPDATE_REGIST_TABLE_FULL;
constexpr int REG_DUPLICATE = HTTP_UPDATE_REGIST_DUPLICATE;

extern RwLock app_registry_lock;

// First entry of that name, or null. The pointer is good while the lock is held;
// who wants to change the entry holds the lock alone.
[[nodiscard]] const AppEntry* reg_app_find(std::string_view name)
    REQUIRES_SHARED(app_registry_lock);
[[nodiscard]] AppEntry* reg_app_find_mutable(std::string_view name) REQUIRES(app_registry_lock);

// Enters an app. REG_OK also when the name is registered on the same fd already;
// the entry is then left as it is. Called on the main thread only.
[[nodiscard]] int reg_app_add(int fd, std::string_view name, std::string_view version,
                              uint32_t flags);

// Removes the app. -1 when there is none of that name.
[[nodiscard]] int reg_app_del_by_name(std::string_view name);

// Removes every app of a connection. The help text is left to the caller, who
// rebuilds it when the connection is gone.
void reg_app_del_by_fd(int fd);
[[nodiscard]] bool reg_app_fd_in_use(int fd);

// Changes reported by apps, with the numbers of their messages; an unknown name
// is ignored.
void reg_app_set_version(std::string_view name, std::string_view version);
void reg_app_set_mode(std::string_view name, int32_t mode);
// text is the new version on success; it may be empty.
void reg_app_update_result(std::string_view name, std::string_view text, int32_t result);

// -1 for an unknown name.
[[nodiscard]] int reg_app_set_savepath(std::string_view name, std::string_view path);

// Copies a slot's entry (zeroed first). -1 when the slot is free or out of
// range, or entry is null.
[[nodiscard]] int reg_app_get(int slot, AppEntry* entry);

// Adds every occupied slot to the set.
void reg_app_all(AppSet* set);

// The set becomes the slots of the apps that are not in manual mode.
void reg_app_auto_set(AppSet* set);

// Adds the slots of the apps named in text (separated by white space) to the
// set. Names that are not registered are skipped; a name of more than 31
// characters ends the walk with -1.
[[nodiscard]] int reg_app_parse_names(const char* text, AppSet* set);

// The help text of the app-list argument of the update commands, kept current in
// place: the command line reads it by address each time it shows help. Main
// thread only.
[[nodiscard]] const char* reg_app_help_text();
void reg_app_files_help();
