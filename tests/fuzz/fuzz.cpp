// Entry of the fuzz program: FUZZ_TARGET names the try_ function. Nothing that an input names
// outside the private directory is made or deleted, and no thread starts, so that the same
// input always takes the same way.
#include "tests/fuzz/fuzz.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "frame/log.h"
#include "frame/paths.h"

static void (*s_attempt)(std::string_view input);
static bool s_trying;

static bool IsOwn(std::string_view path) {
    return path.starts_with(Directory()) && path.find("..") == path.npos;
}

void WriteFile(const std::string& path, std::string_view text) { std::ofstream(path) << text; }

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
    http_client_get_env_dir();
    http_client_vsd_make_dir();
    (void)umask(022);  // what others could have written would not be believed
    const std::string name = std::string("try_") + getenv("FUZZ_TARGET");
    s_attempt = reinterpret_cast<decltype(s_attempt)>(dlsym(RTLD_DEFAULT, name.c_str()));
    Require(s_attempt != nullptr);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    s_trying = true;
    DebugMask = size % 8 == 0 ? DEBUG_ALL : 0;  // debugging costs half the speed
    s_attempt({reinterpret_cast<const char*>(data), size});
    return 0;
}
}
