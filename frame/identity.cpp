// Device identity. Readers fill a field under the lock; everybody else takes a
// copy of the whole record.
#include "frame/identity.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/sync.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "frame/log.h"
#include "frame/platform/dnsclient.h"
#include "frame/platform/tqsys.h"

static Mutex s_lock;  // leaf
static DeviceIdentity s_identity GUARDED_BY(s_lock);

std::atomic<bool> dns_ready{false};

namespace {
struct FreeText {
    void operator()(char* text) const { free(text); }
};
using SystemText = std::unique_ptr<char, FreeText>;
}  // namespace

DeviceIdentity device_identity_copy() {
    MutexLock lock(s_lock);
    return s_identity;
}

template <size_t N>
static void field_set(char (DeviceIdentity::*field)[N], const char* text) {
    MutexLock lock(s_lock);
    (void)text_copy(s_identity.*field, text);  // longer texts are cut to their field
}

static int device_file_open(const char* path) {
    if (tqsys_open_device_file != nullptr) return tqsys_open_device_file(path);
    return open(path, O_RDONLY | O_CLOEXEC);
}

namespace {
// A file of the device, which is tried again each minute while it is missing.
struct DeviceFile {
    const char* path;
    bool missed = false;  // the system log has been told
};
}  // namespace

static void device_file_missed(DeviceFile* file) {
    http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->open fail [%s]", file->path, strerror(errno));
    if (file->missed) return;
    file->missed = true;
    http_client_warning("%s: %s; servers are not told what stands there", file->path,
                        strerror(errno));
}

// The file's first 31 bytes as they stand, a line end included. False, and an
// empty text, when it can't be opened.
static bool device_file_read(DeviceFile* device, char (&text)[32]) {
    memset(text, 0, sizeof(text));
    const UniqueFd file(device_file_open(device->path));
    if (!file.valid()) {
        device_file_missed(device);
        return false;
    }
    if (read(file.get(), text, sizeof(text) - 1) < 0) memset(text, 0, sizeof(text));
    return true;
}

void http_client_get_serial() {
    static DeviceFile s_file{"/proc/setmac/SerialNO"};
    char text[32];
    (void)device_file_read(&s_file, text);
    field_set(&DeviceIdentity::serial_number, text);
}

void http_client_get_product() {
    static DeviceFile s_file{"/proc/setmac/projectid"};
    char text[32];
    (void)device_file_read(&s_file, text);
    field_set(&DeviceIdentity::product_name, text);
}

void http_client_get_mac() {
    static DeviceFile s_file{"/proc/macaddr"};
    char text[32];
    if (!device_file_read(&s_file, text)) return;
    char word[32] = {};
    if (sscanf(text, "%31s", word) != 1) {
        http_client_debug_dump("get mac failed. content: %s.", text);
        return;
    }
    field_set(&DeviceIdentity::mac_address, word);
}

void http_client_get_hw_version() {
    const SystemText text(tqsys_get_hw_version());
    field_set(&DeviceIdentity::hardware_version, text ? text.get() : "");
}

void http_client_get_sw_version() {
    struct Piece {
        char* (*get)();
        const char* before;
        const char* after;
        const char* failure;
    };
    static constexpr Piece pieces[] = {
        {tqsys_get_os_name, "", "", "tqsys get os name fail"},
        {tqsys_get_project, "", "", "tqsys get project fail"},
        {tqsys_get_release_type, " ", "", "tqsys get release type fail"},
        {tqsys_get_release, "(", ")", "tqsys get release fail"},
    };
    field_set(&DeviceIdentity::software_version, "");
    char version[sizeof(DeviceIdentity::software_version)] = {};
    size_t length = 0;
    for (const Piece& piece : pieces) {
        const SystemText text(piece.get());
        if (!text) {
            http_client_debug_print(HTTPC_LOG_ERROR, "%s", piece.failure);
            return;
        }
        (void)text_appendf(version, sizeof(version), &length, "%s%s%s", piece.before, text.get(),
                           piece.after);
    }
    field_set(&DeviceIdentity::software_version, version);
}

void http_client_get_device_info() {
    http_client_get_serial();
    http_client_get_product();
    http_client_get_sw_version();
    http_client_get_mac();
    http_client_get_hw_version();
    if (dns_client_agent_init() != 0) {
        http_client_debug_dump("Dns client init fail");
        return;
    }
    dns_ready.store(true, std::memory_order_relaxed);
}
