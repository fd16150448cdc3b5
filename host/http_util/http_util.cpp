// Entry points of the download library. This file stays small and free of libcurl:
// it is mapped for as long as the daemon lives.

#include "frame/platform/http_util.h"

#include <dlfcn.h>
#include <string.h>

#include "base/sync.h"
#include "base/text.h"
#include "frame/platform/syslog_new.h"
#include "host/http_util/engine.h"

namespace {

using EngineDownload = int (*)(const DownloadJob*);

std::atomic<bool> s_debug{false};

#ifdef HTTP_UTIL_ENGINE_LINKED
EngineDownload engine_load() { return http_util_engine_download; }
#else
constexpr const char* ENGINE_FILE = "libhttp_util_engine.so";

Mutex s_lock;  // held while the engine is loaded
EngineDownload s_engine GUARDED_BY(s_lock) = nullptr;

// The engine beside this library. By its full path: under a sanitizer dlopen() is
// called by its run-time library, whose own search path counts then.
void* engine_open() {
    Dl_info self{};
    if (dladdr(&s_debug, &self) == 0 || self.dli_fname == nullptr) return nullptr;
    const char* slash = strrchr(self.dli_fname, '/');
    const size_t directory = slash == nullptr ? 0 : static_cast<size_t>(slash - self.dli_fname) + 1;
    char path[1024] = "";
    size_t length = 0;
    if (!text_appendf(path, sizeof path, &length, "%.*s%s", static_cast<int>(directory),
                      self.dli_fname, ENGINE_FILE)) {
        return nullptr;
    }
    return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

// Null when the engine can't be loaded; the next download tries again. It is never
// unloaded: libcurl's own libraries do not all survive that.
EngineDownload engine_load() {
    const MutexLock guard(s_lock);
    if (s_engine != nullptr) return s_engine;
    void* engine = engine_open();
    void* symbol = engine == nullptr ? nullptr : dlsym(engine, "http_util_engine_download");
    if (symbol == nullptr) {
        const char* reason = dlerror();
        (void)printk_syslog_ext(3, "HTTPC", "ERROR", 2, "download library: %s\n",
                                reason == nullptr ? "engine can't be loaded" : reason);
        return nullptr;
    }
    s_engine = reinterpret_cast<EngineDownload>(symbol);
    return s_engine;
}
#endif

}  // namespace

int http_download_file_progress(DownloadCtx* context, const char* url, const char* path,
                                unsigned int flag) {
    return http_download_file_progress_tlv(context, url, path, flag, nullptr);
}

int http_download_file_progress_tlv(DownloadCtx* context, const char* url, const char* path,
                                    unsigned int flag, const http_util_tlv* source) {
    if (context == nullptr || url == nullptr || path == nullptr) return DOWNLOAD_BAD_CALL;
    if (source != nullptr && (source->type != 1 || source->length != 4)) return DOWNLOAD_BAD_CALL;
    const EngineDownload engine = engine_load();
    if (engine == nullptr) return DOWNLOAD_NO_ENGINE;
    DownloadJob job;
    job.context = context;
    job.url = url;
    job.path = path;
    job.resume = flag == 1;
    job.source = source == nullptr ? 0 : source->address;
    job.debug = &s_debug;
    return engine(&job);
}

void http_open_debug() { s_debug.store(true, std::memory_order_relaxed); }

void http_close_debug() { s_debug.store(false, std::memory_order_relaxed); }
