// Reading and writing of the resume file. A new file is written beside the old
// one, synced and renamed over it, and the directory synced: whenever power
// fails, one of the two is there whole. The file is believed only when nobody else
// can have written it: at an entry's end its files are deleted, as root.
#include "resume/resume_file.h"

#include <libxml/parserInternals.h>
#include <libxml/xmlstring.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/file.h"
#include "base/sync.h"
#include "base/text.h"
#include "frame/log.h"
#include "http/xml.h"
#include "registry/app_registry.h"
#include "resume/resume_list.h"

// Fifty times the apps that can be registered. A file with more is broken, and
// each entry would cost five resume runs before it is given up.
static constexpr uint32_t RESUME_APP_MAX = 1000;

static constexpr mode_t FILE_MODE = 0644;  // who could write it could have any file deleted

char resume_file_path[PATH_SIZE] = "";

// Only one new file at a time; taken before resume_lock.
static Mutex s_write_lock;

// The file is there and could not be read so far: the list lacks what it says.
static bool s_unread GUARDED_BY(s_write_lock) = false;

// What is no list costs itself and counts as none; anything else that kept it from being
// read (memory, descriptors, the disk) says nothing about it.
static bool could_not_read(int error) {
    for (const int settled : {0, ENOENT, ENOTDIR, EBADMSG, EINVAL, EPERM, ELOOP, EFBIG}) {
        if (error == settled) return false;
    }
    return true;
}

static bool is_shortage(int error) { return error == ENOMEM || error == EMFILE || error == ENFILE; }

// A crash may come when room was short, the old file gone and the new one not yet in
// its place; a power cut, before the new one was synced. 0, or why that can't be told.
static int take_up_unfinished() {
    if (access(resume_file_path, F_OK) == 0) return 0;
    if (errno != ENOENT) return errno;
    char beside[PATH_SIZE + 8];
    size_t length = 0;
    (void)text_appendf(beside, sizeof(beside), &length, "%s.new", resume_file_path);
    XmlDoc document;
    const int error = xml_doc_load(beside, &document);
    if (error == ENOENT) return 0;
    if (could_not_read(error)) return error;
    if (xml_root_get(document.get()) != nullptr) {
        return rename(beside, resume_file_path) == 0 ? 0 : errno;
    }
    (void)unlink(beside);  // the next save does so, too
    return 0;
}

static int load_apps(const char* path, ReadAppFn function);

// 0, or why the list could not be read; it is then empty.
static int load_locked() REQUIRES(s_write_lock) {
    int error = take_up_unfinished();
    if (error == 0) {
        errno = 0;
        if (http_client_file_size(resume_file_path) > 0) {
            error = load_apps(resume_file_path, resume_read_app);
        } else {
            error = errno;  // 0: it is empty
            http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->no exist", resume_file_path);
        }
    }
    s_unread = could_not_read(error);
    if (s_unread) resume_clear();
    const MutexLock guard(resume_lock);
    resume_changed = false;
    return s_unread ? error : 0;
}

void resume_init() {
    constexpr int tries = 3;
    constexpr useconds_t pause_us = 100'000;
    resume_retry_count = RESUME_RETRY_MAX;
    resume_clear();
    http_client_data_path(RESUME_FILE, &resume_file_path);
    const MutexLock writer(s_write_lock);
    int error = load_locked();
    for (int left = tries - 1; error != 0 && left > 0; --left) {
        (void)usleep(pause_us);
        error = load_locked();
    }
    if (error == 0) return;
    http_client_debug_dump("[%s %d]<-->[%s] read fail [%s], is tried again", __func__, __LINE__,
                           resume_file_path, strerror(error));
}

bool resume_read_again() {
    const MutexLock writer(s_write_lock);
    return s_unread && load_locked() == 0;
}

bool resume_settle() {
    const MutexLock writer(s_write_lock);
    const int error = s_unread ? load_locked() : 0;
    if (error == 0) return true;
    if (is_shortage(error)) return false;
    char aside[PATH_SIZE + 8];
    size_t length = 0;
    (void)text_appendf(aside, sizeof(aside), &length, "%s.unread", resume_file_path);
    const bool kept = rename(resume_file_path, aside) == 0;
    http_client_debug_dump("[%s %d]<-->[%s] read fail [%s], %s [%s]", __func__, __LINE__,
                           resume_file_path, strerror(error),
                           kept ? "is kept as" : "can't be kept as", aside);
    s_unread = false;
    return true;
}

// --- reading

namespace {
struct Reading {
    ReadAppFn function;
    bool short_of_memory;
};
}  // namespace

// A damaged app costs itself only.
static int read_app(xmlNodePtr app, int, void* argument) {
    auto* reading = static_cast<Reading*>(argument);
    errno = 0;
    if (reading->function(app) < 0 && errno == ENOMEM) reading->short_of_memory = true;
    return 0;
}

// 0, or why not all of it was read; EBADMSG: it is something else.
static int load_apps(const char* path, ReadAppFn function) {
    XmlDoc document;
    const int error = xml_doc_load(path, &document);
    if (error != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "read_apps-->[%s] read fail", path);
        return error;
    }
    xmlNodePtr root = xml_root_get(document.get());
    if (root == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "read_apps-->[%s] root node fail", path);
        return EBADMSG;
    }
    Reading reading{function, false};
    xml_child_foreach(root, "app", &reading, read_app);
    return reading.short_of_memory ? ENOMEM : 0;
}

int read_apps(const char* path, ReadAppFn function) {
    return load_apps(path, function) == 0 ? 0 : -1;
}

int resume_read_app(xmlNodePtr app) {
    if (app == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "app_xml is empty in resume read app");
        return -1;
    }
    char name[APP_NAME_SIZE];
    xml_node_name_get(app, name, sizeof(name));
    if (name[0] == '\0') {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->have no app_name", RESUME_FILE);
        return -1;
    }
    http_client_debug_print(HTTPC_LOG_INFO, "resume_read_app-->[%s] app_name [%s]", RESUME_FILE,
                            name);
    OwnedFilenames files;
    if (filename_count(app, &files.count, &files.array) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->have no file", name);
        return -1;
    }
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->filecnt %d in resume read app", name,
                            files.count);
    if (files.count == 0) return 0;
    if (resume_app_count() >= RESUME_APP_MAX) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->over %u apps in resume file", name,
                                RESUME_APP_MAX);
        return -1;
    }
    // Without memory nothing is deleted either: which of the files were fetched for the app
    // and which it has installed is not known.
    return resume_add(name, files.array, files.count, 0, false);
}

// --- building the document

xmlNodePtr xml_new_child(xmlNodePtr parent, const char* name, const char* text,
                         const char* attribute) {
    if (parent == nullptr || name == nullptr) return nullptr;
    xmlNodePtr child = xmlNewTextChild(parent, nullptr, xml_text(name), xml_text(text));
    if (child == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->xmlNewNode fail", name);
        return nullptr;
    }
    if (attribute == nullptr) return child;
    if (xmlNewProp(child, xml_text("name"), xml_text(attribute)) == nullptr) {
        xmlUnlinkNode(child);
        xmlFreeNode(child);
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->xmlNewProp fail", attribute);
        return nullptr;
    }
    return child;
}

// Whether a document may hold the text. Save paths come from apps as bytes; one
// that is no text would make the file unreadable for all.
static bool xml_can_carry(std::string_view text) {
    while (!text.empty()) {
        int length = static_cast<int>(text.size());
        const int character = xmlGetUTF8Char(xml_text(text.data()), &length);
        if (character < 0 || xmlIsCharQ(static_cast<unsigned>(character)) == 0) return false;
        text.remove_prefix(static_cast<size_t>(length));
    }
    return true;
}

static bool app_can_carry_locked(const ResumeApp* app) REQUIRES(resume_lock) {
    bool fits = xml_can_carry(app->name);
    for (const ResumeFile* file = resume_next_file(app, &app->files); fits && file != nullptr;
         file = resume_next_file(app, file)) {
        fits = xml_can_carry(file->path);
    }
    return fits;
}

static int write_file(xmlNodePtr app_element, const char* path) {
    if (xml_new_child(app_element, "file", nullptr, path) != nullptr) return 0;
    http_client_debug_print(HTTPC_LOG_ERROR, "[resume_write_apps]<-->create [%s] for [%s] fail",
                            "file", path);
    return -1;
}

static int write_app_locked(xmlNodePtr root, const ResumeApp* app) REQUIRES(resume_lock) {
    xmlNodePtr app_element = xml_new_child(root, "app", nullptr, app->name);
    if (app_element == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[resume_write_apps]<-->create [%s] for [%s] fail",
                                "app", app->name);
        return -1;
    }
    char count[16];
    size_t length = 0;
    (void)text_appendf(count, sizeof(count), &length, "%u", app->count);
    if (xml_new_child(app_element, "filecnt", count, nullptr) == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[resume_write_apps]<-->create [%s] for [%d] fail",
                                "filecnt", static_cast<int32_t>(app->count));
        return -1;
    }
    for (const ResumeFile* file = resume_next_file(app, &app->files); file != nullptr;
         file = resume_next_file(app, file)) {
        if (write_file(app_element, file->path) != 0) return -1;
    }
    return 0;
}

int resume_write_apps(xmlNodePtr root) {
    if (root == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[resume_write_apps]<-->root xml empty");
        return -1;
    }
    MutexLock guard(resume_lock);
    for (const ResumeApp* app = resume_next_app(&ResumeList); app != nullptr;
         app = resume_next_app(app)) {
        if (!app_can_carry_locked(app)) {
            http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->not fit for the resume file",
                                    app->name);
            continue;
        }
        if (write_app_locked(root, app) != 0) return -1;
    }
    return 0;
}

// --- saving

static int save_once(const char* path, xmlDocPtr document) {
    xmlChar* bytes = nullptr;
    int size = 0;
    xmlDocDumpMemory(document, &bytes, &size);
    const XmlText owned(bytes);
    if (bytes == nullptr || size <= 0) return ENOMEM;
    return file_replace(path, {xml_text(bytes), static_cast<size_t>(size)}, FILE_MODE);
}

static bool is_full(int error) { return error == ENOSPC || error == EDQUOT || error == EFBIG; }

// 0, or the error's number. The old file, which would bring back what is settled, is
// gone in any case, which also makes room. Where that is not room enough, as many
// entries are kept as fit, newest first: they are part of the truth, unlike the old file.
static int save(const char* path, xmlDocPtr document) {
    const int error = save_once(path, document);
    if (error == 0) return 0;
    (void)unlink(path);
    int result = is_full(error) ? save_once(path, document) : error;
    if (result == 0) return 0;
    xmlNodePtr root = xmlDocGetRootElement(document);
    for (int kept = result; is_full(kept) && xmlGetLastChild(root) != nullptr;) {
        xmlNodePtr oldest = xmlGetLastChild(root);
        xmlUnlinkNode(oldest);
        xmlFreeNode(oldest);
        kept = root->children == nullptr ? result : save_once(path, document);
    }
    return result;
}

int write_apps(const char* path, WriteAppsFn function) {
    const XmlDoc document = xml_doc_new();
    if (document == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "write_apps-->[%s] xmlNewDoc fail", path);
        return -1;
    }
    xmlNodePtr root = xmlNewNode(nullptr, xml_text("filelist"));
    if (root == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "write_apps-->[%s] creat root fail", path);
        return -1;
    }
    (void)xmlDocSetRootElement(document.get(), root);  // there was none before
    if (function(root) < 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]-->app_write fail in write apps", path);
        return -1;
    }
    const int error = save(path, document.get());
    if (error != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "write_apps-->[%s] write fail [%s]", path,
                                strerror(error));
        return -1;
    }
    return 0;
}

// Takes the mark off before the list is read, so that a change made while the
// file is written is not lost.
static bool take_changed() {
    MutexLock guard(resume_lock);
    const bool changed = resume_changed;
    resume_changed = false;
    return changed;
}

void resume_write() {
    if (http_client_make_data_dir(WORKING_DIR) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[resume_write]<-->[%s] mkdir fail [%s %d]",
                                WORKING_DIR, strerror(errno), errno);
        return;
    }
    MutexLock writer(s_write_lock);
    if (s_unread) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[resume_write]<-->[%s] not read yet",
                                resume_file_path);
        return;
    }
    if (!take_changed()) {
        http_client_debug_print(HTTPC_LOG_INFO, "[resume_write]<-->resume list not changed");
        return;
    }
    if (write_apps(resume_file_path, resume_write_apps) == 0) return;
    MutexLock guard(resume_lock);
    resume_changed = true;
}

bool resume_is_saved() {
    MutexLock guard(resume_lock);
    return !resume_changed;
}
