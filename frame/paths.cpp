// A path is at most 127 bytes wherever it comes from, so that it can be joined on the
// stack. Directories are made open to all, under a creation mask of 0: apps of other users
// reach the socket and their files there.
#include "frame/paths.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/file.h"
#include "frame/log.h"

static constexpr int PATH_COMPONENTS_MAX = 10;

static void prefix_read(const DirPrefix& otherwise, DirPrefix* prefix) {
    *prefix = otherwise;
    if (!dir_prefix_read(prefix)) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->getenv fail [%s]", prefix->variable,
                                strerror(errno));
    }
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->[%s]", prefix->variable, prefix->text);
}

void http_client_get_env_dir() {
    prefix_read(TMP_DIR, &process_tmp_dir);
    prefix_read(DATA_DIR, &process_data_dir);
}

void http_client_tmp_path(const char* relative, char (*path)[PATH_SIZE]) {
    if (relative != nullptr && path != nullptr) dir_prefix_join(process_tmp_dir, relative, *path);
}

void http_client_data_path(const char* relative, char (*path)[PATH_SIZE]) {
    if (relative != nullptr && path != nullptr) dir_prefix_join(process_data_dir, relative, *path);
}

int http_client_path_check(const char* path) {
    const size_t length = strlen(path);
    if (length >= PATH_SIZE) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->too long", path);
        return -1;
    }
    int components = 0;
    for (size_t i = 0; i < length; ++i) {
        if (path[i] == '/' || i == length - 1) components++;
    }
    if (components > PATH_COMPONENTS_MAX) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->have too rank %d", path, components);
        return -1;
    }
    return 0;
}

// 0, or an errno value. A directory that may not outlive a power cut is no place for what is
// said to be safe on disk, so it goes again, and the next try makes and syncs it anew.
static int make_directory(char (&path)[PATH_SIZE]) {
    if (mkdir(path, 0777) != 0) return errno == EEXIST ? 0 : errno;
    const size_t length = strlen(path);
    if (path[length - 1] == '/') path[length - 1] = '\0';
    const int error = file_sync_directory(path);
    if (error == 0 || error == EACCES) return 0;  // one that we can't read is not ours to sync
    (void)rmdir(path);
    return error;
}

int http_client_make_path(const char* path) {
    if (path == nullptr || path[0] == '\0') {
        http_client_debug_print(HTTPC_LOG_ERROR, "dir is invalid");
        return -1;
    }
    if (http_client_path_check(path) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->check fail", path);
        return -1;
    }
    if (http_client_file_size(path) >= 0) return 0;

    const size_t length = strlen(path);  // below PATH_SIZE, as checked
    for (size_t i = 1; i < length; ++i) {
        if (path[i] != '/' && i != length - 1) continue;
        char parent[PATH_SIZE] = {};
        memcpy(parent, path, i + 1);
        const int error = make_directory(parent);
        if (error != 0) {
            http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->mkdir [%d %d %s]", parent, -1, error,
                                    strerror(error));
            errno = error;
            return -1;
        }
    }
    return 0;
}

int http_client_make_data_dir(const char* relative) {
    char path[PATH_SIZE] = {};
    http_client_data_path(relative, &path);
    return http_client_make_path(path);
}

int http_client_file_size(const char* path) {
    struct stat status {};
    if (path == nullptr || stat(path, &status) != 0) return -1;
    constexpr off_t largest = std::numeric_limits<int32_t>::max();
    return static_cast<int>(status.st_size < largest ? status.st_size : largest);
}

void http_client_vsd_make_dir() {
    (void)umask(0);
    char path[PATH_SIZE];
    http_client_tmp_path(WORKING_DIR, &path);
    if (http_client_make_path(path) != 0) {
        http_client_debug_dump_exit("[%s %d]<-->[%s] mkdir fail [%s %d]", __func__, __LINE__, path,
                                    strerror(errno), errno);
    }
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->create", path);

    http_client_data_path(WORKING_DIR, &path);
    if (http_client_make_data_dir(WORKING_DIR) != 0) {
        http_client_debug_dump("[%s %d]<-->[%s] mkdir fail [%s %d]", __func__, __LINE__, path,
                               strerror(errno), errno);
        return;
    }
    http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->create", path);
}
