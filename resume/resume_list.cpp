// The resume list. An entry is built before it is linked in and taken apart
// after it was unlinked, so that the lock covers pointer work only and deleting
// files or logging never waits under it. Between the two steps of a replacement
// the app is briefly not listed; nobody but the one update run records apps.
#include "resume/resume_list.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>

#include "base/text.h"
#include "buffer/memory.h"
#include "frame/log.h"

Mutex resume_lock;
ResumeLink ResumeList GUARDED_BY(resume_lock) = {&ResumeList, &ResumeList};
bool resume_changed GUARDED_BY(resume_lock) = false;
std::atomic<int32_t> resume_retry_count{RESUME_RETRY_MAX};

static void list_init(ResumeLink* head) { *head = {head, head}; }

static void list_insert_before(ResumeLink* place, ResumeLink* link) {
    link->next = place;
    link->prev = place->prev;
    place->prev->next = link;
    place->prev = link;
}

static void list_remove(ResumeLink* link) {
    link->prev->next = link->next;
    link->next->prev = link->prev;
    list_init(link);
}

static ResumeFile* file_after(const ResumeLink* files, const ResumeLink* link) {
    return link->next == files ? nullptr : static_cast<ResumeFile*>(link->next);
}

ResumeApp* resume_next_app(const ResumeLink* after) {
    return after->next == &ResumeList ? nullptr : static_cast<ResumeApp*>(after->next);
}

ResumeFile* resume_next_file(const ResumeApp* app, const ResumeLink* after) {
    return file_after(&app->files, after);
}

void ResumeAppFree::operator()(ResumeApp* app) const {
    while (ResumeFile* file = file_after(&app->files, &app->files)) {
        list_remove(file);
        mem_free(file);
    }
    mem_free(app);
}

template <typename Record>
static Record* record_malloc() {
    Record* record = mem_make<Record>().release();
    if (record == nullptr) http_client_debug_print(HTTPC_LOG_ERROR, "not enough memory");
    return record;
}

static ResumeApp* find_locked(const char* name) REQUIRES(resume_lock) {
    for (ResumeApp* app = resume_next_app(&ResumeList); app != nullptr;
         app = resume_next_app(app)) {
        if (strcmp(app->name, name) == 0) return app;
    }
    return nullptr;
}

static OwnedResumeApp take_locked(ResumeApp* app) REQUIRES(resume_lock) {
    if (app == nullptr) return nullptr;
    list_remove(app);
    resume_changed = true;
    return OwnedResumeApp(app);
}

static OwnedResumeApp take_by_name(const char* name) {
    MutexLock guard(resume_lock);
    return take_locked(find_locked(name));
}

static OwnedResumeApp take_first() {
    MutexLock guard(resume_lock);
    return take_locked(resume_next_app(&ResumeList));
}

static bool is_listed(const char* name) {
    MutexLock guard(resume_lock);
    return find_locked(name) != nullptr;
}

bool resume_empty() {
    MutexLock guard(resume_lock);
    return resume_next_app(&ResumeList) == nullptr;
}

uint32_t resume_app_count() {
    MutexLock guard(resume_lock);
    uint32_t count = 0;
    for (const ResumeLink* link = ResumeList.next; link != &ResumeList; link = link->next) count++;
    return count;
}

bool resume_app_name(uint32_t position, char (&name)[RESUME_NAME_SIZE]) {
    MutexLock guard(resume_lock);
    const ResumeApp* app = resume_next_app(&ResumeList);
    for (; app != nullptr && position > 0; --position) app = resume_next_app(app);
    if (app != nullptr) memcpy(name, app->name, sizeof(name));
    return app != nullptr;
}

void resume_clear() {
    MutexLock guard(resume_lock);
    while (ResumeApp* app = resume_next_app(&ResumeList)) (void)take_locked(app);
}

static constexpr char DELIVERED_ATTRIBUTE[] = "user.http_client.delivered";

// Deletes one file of an entry; it may be gone already. What an app was handed since
// the list was saved is the app's.
static void unlink_undelivered(const char* path) {
    if (lgetxattr(path, DELIVERED_ATTRIBUTE, nullptr, 0) < 0) (void)unlink(path);
}

void resume_note_delivered(FilenameArray array, int32_t k) {
    for (int32_t i = 0; i < k; ++i) (void)lsetxattr(array[i], DELIVERED_ATTRIBUTE, "1", 1, 0);
}

// Deletes what is on disk of an entry's files.
static void resume_unlink_files(const ResumeLink* files) {
    for (const ResumeFile* file = file_after(files, files); file != nullptr;
         file = file_after(files, file)) {
        if (file->state != RESUME_NO_DOWN) unlink_undelivered(file->path);
    }
}

// The same, sparing the first k entries of the array.
static void resume_unlink_stale(const ResumeLink* files, FilenameArray array, int32_t k) {
    for (const ResumeFile* file = file_after(files, files); file != nullptr;
         file = file_after(files, file)) {
        if (file->state == RESUME_NO_DOWN || filename_find(array, file->path, k) == 0) continue;
        http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->unlink in resume list", file->path);
        unlink_undelivered(file->path);
    }
}

static void drop(OwnedResumeApp app, FilenameArray array, int32_t k) {
    if (app == nullptr) return;
    resume_unlink_stale(&app->files, array, k);
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->free in resume list", app->name);
}

void resume_free_app(const char* name, FilenameArray array, int32_t k) {
    if (name != nullptr) drop(take_by_name(name), array, k);
}

namespace {
struct HeldFiles {
    FilenameArray array;
    int32_t count;
};
}  // namespace

// Held while an entry is given up, so that a hold either comes before or finds the
// deletions done; taken before resume_lock.
static Mutex s_hold_lock;
static HeldFiles s_held GUARDED_BY(s_hold_lock) = {nullptr, 0};

ResumeHold::ResumeHold(FilenameArray array, int32_t count) {
    MutexLock guard(s_hold_lock);
    s_held = {array, count};
}

ResumeHold::~ResumeHold() {
    MutexLock guard(s_hold_lock);
    s_held = {nullptr, 0};
}

void resume_free_first() {
    MutexLock guard(s_hold_lock);
    OwnedResumeApp app = take_first();
    if (app == nullptr) return;
    for (ResumeFile* file = file_after(&app->files, &app->files); file != nullptr;
         file = file_after(&app->files, file)) {
        if (filename_find(s_held.array, file->path, s_held.count) == 0) {
            file->state = RESUME_NO_DOWN;  // the other run's, not this entry's
        }
    }
    drop(std::move(app), nullptr, 0);
}

static int resume_add_file(ResumeLink* files, const char* path, ResumeState state) {
    auto* file = record_malloc<ResumeFile>();
    if (file == nullptr) return -1;
    (void)text_copy(file->path, path);  // array entries are of the same size
    file->state = state;
    list_insert_before(files, file);
    return 0;
}

static void log_added(const char* path, ResumeState state) {
    switch (state) {
        case RESUME_DOWN_SUCCESS:
            return http_client_debug_print(HTTPC_LOG_INFO,
                                           "[%s]<-->add to resume file [down success]", path);
        case RESUME_DOWN_FAIL:
            return http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->add to resume file [down fail]",
                                           path);
        case RESUME_NO_DOWN:
            return http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->add to resume file [no down]",
                                           path);
    }
}

// The number of files appended, or -1; the list may then hold some of them.
static int32_t resume_add_files(ResumeLink* files, FilenameArray array, int32_t count, int32_t n,
                                bool incremental) {
    const int32_t first = incremental ? n : 0;
    for (int32_t i = first; i < count; ++i) {
        ResumeState state = RESUME_DOWN_FAIL;
        if (i != n) state = i < n ? RESUME_DOWN_SUCCESS : RESUME_NO_DOWN;
        log_added(array[i], state);
        if (resume_add_file(files, array[i], state) < 0) return -1;
    }
    return count - first;
}

int resume_add(const char* name, FilenameArray array, int32_t count, int32_t n, bool incremental) {
    if (name == nullptr || array == nullptr || n < 0 || n >= count) return -1;
    resume_free_app(name, array, n + 1);
    OwnedResumeApp app(record_malloc<ResumeApp>());
    if (app == nullptr) return -1;
    list_init(&app->files);
    const int32_t added = resume_add_files(&app->files, array, count, n, incremental);
    if (added < 0) return -1;
    app->count = static_cast<uint32_t>(added);
    (void)text_copy(app->name, name);  // registered names are shorter
    {
        MutexLock guard(resume_lock);
        list_insert_before(ResumeList.next, app.release());
        resume_changed = true;
    }
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->add to resume count %d", name, added);
    return 0;
}

FilenameArray resume_get(const char* name, int32_t* count) {
    if (name == nullptr || count == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "invalid para in get resume file");
        return nullptr;
    }
    const OwnedResumeApp app = take_by_name(name);
    if (app == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "have no file in resume");
        return nullptr;
    }
    const auto files = static_cast<int32_t>(app->count);
    FilenameArray array = filename_malloc(files);
    if (array == nullptr) {
        resume_unlink_files(&app->files);
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->malloc fail for file in resume get",
                                name);
        return nullptr;
    }
    int32_t i = 0;
    for (const ResumeFile* file = file_after(&app->files, &app->files); file != nullptr;
         file = file_after(&app->files, file), ++i) {
        memcpy(array[i], file->path, FILENAME_SIZE);
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->get resume [%s]", name, file->path);
    }
    *count = files;
    return array;
}

// State of the app's (skip + 1)-th file of that path that has something on disk.
static bool find_fetched(const char* name, const char* path, int skip, ResumeState* state) {
    MutexLock guard(resume_lock);
    const ResumeApp* app = find_locked(name);
    if (app == nullptr) return false;
    for (const ResumeFile* file = resume_next_file(app, &app->files); file != nullptr;
         file = resume_next_file(app, file)) {
        if (file->state == RESUME_NO_DOWN || strcmp(file->path, path) != 0) continue;
        if (skip-- > 0) continue;
        *state = file->state;
        return true;
    }
    return false;
}

void resume_del_files(const char* name, FilenameArray array, int32_t k) {
    if (name == nullptr || array == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "invalid para in get resume file");
        return;
    }
    if (!is_listed(name)) return filename_unlink(array, k);
    for (int32_t i = 0; i < k; ++i) {
        if (array[i] == nullptr) continue;
        ResumeState state{};
        for (int seen = 0; find_fetched(name, array[i], seen, &state); ++seen) {
            http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->[%s] in resume for %d", name, array[i],
                                    state);
        }
        http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->[%s] del", name, array[i]);
        (void)unlink(array[i]);  // the failed one may not exist
    }
}
