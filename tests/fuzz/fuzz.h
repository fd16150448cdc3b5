// What every target has: it defines Prepare() and Try(). Nothing that an input names outside
// the target's own directory is made or deleted, and while one is tried no thread starts, so
// that the same input always takes the same way.
#pragma once

#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "frame/log.h"
#include "frame/paths.h"

static void Prepare();
static void Try(std::string_view input);

// Prefix of all that the daemon reads and writes; removed at the end.
static char s_directory[] = "/dev/shm/fuzz-XXXXXX";
static bool s_trying;

static bool IsOwn(const char* path) {
    return strncmp(path, s_directory, strlen(s_directory)) == 0 && strstr(path, "..") == nullptr;
}

extern "C" {
int unlink(const char* path) noexcept {
    return IsOwn(path) ? static_cast<int>(syscall(SYS_unlink, path)) : 0;
}
int mkdir(const char* path, mode_t mode) noexcept {
    return IsOwn(path) ? static_cast<int>(syscall(SYS_mkdir, path, mode)) : 0;
}

int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    return s_trying ? EAGAIN : __interceptor_pthread_create(thread, attributes, body, argument);
}

int LLVMFuzzerInitialize(int*, char***) {
    if (mkdtemp(s_directory) == nullptr) abort();
    setenv("TMPDIR", s_directory, 1);
    setenv("DATA_VEMO_DIR", s_directory, 1);
    setenv("PRINTK_SYSLOG_FILE", "/dev/null", 1);
    http_client_get_env_dir();
    http_client_vsd_make_dir();
    (void)umask(022);  // what others could have written would not be believed
    Prepare();
    return atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(s_directory, ignored);
    });
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    DebugMask = size % 8 == 0 ? DEBUG_ALL : 0;  // debugging costs half the speed
    s_trying = true;
    Try({reinterpret_cast<const char*>(data), size});
    s_trying = false;
    return 0;
}
}

static void Require(bool fact) {
    if (!fact) abort();
}

static inline void WriteFile(const std::string& path, std::string_view text) {
    std::ofstream(path) << text;
}

// Cuts the text up to the mark off the front, and the mark; all of it where there is none.
static inline std::string_view Take(std::string_view* rest, std::string_view mark) {
    const size_t end = std::min(rest->find(mark), rest->size());
    const std::string_view taken = rest->substr(0, end);
    rest->remove_prefix(std::min(end + mark.size(), rest->size()));
    return taken;
}
