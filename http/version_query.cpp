// The form is built in pieces, each checked for its room: servers check the register key
// over the same texts, so a piece that was cut would be refused without a reason.
// MD5 goes through the calls that every libcrypto since 1.0 has.
#define OPENSSL_API_COMPAT 0x10100000L
#include "http/version_query.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/md5.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "base/clock.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "buffer/url_escape.h"
#include "frame/identity.h"
#include "frame/log.h"
#include "http/exchange.h"
#include "registry/app_registry.h"

static constexpr char REGISTER_KEY[] = "3f6a2d9e81c47b05e9d2a6c4f01b738e";
static constexpr size_t FORM_SIZE = 1024;       // of the form and of each app's pair
static constexpr size_t KEY_SOURCE_SIZE = 256;  // of what the register key is made from
static constexpr size_t KEY_HEX_SIZE = 2 * MD5_DIGEST_LENGTH + 1;
static constexpr size_t LOCAL_IP_SIZE = 56;

// clang-format off
static constexpr char FORM_FORMAT[] =
    "bin=%s&product=%s&sn=%s&mac=%s&hardware=%s&chset=1&timestamp=%d&randomCode=%d&registerKey=%s&localIp=%s&dataType=component";
// clang-format on

// serial, software version and product, the time twice (11 characters at most),
// and the key: they always fit.
static_assert(sizeof(DeviceIdentity::serial_number) + sizeof(DeviceIdentity::software_version) +
                  sizeof(DeviceIdentity::product_name) + 22 + sizeof(REGISTER_KEY) <=
              KEY_SOURCE_SIZE);

namespace {
using EscapedText = MemPtr<char>;

// The identity as it goes into the form.
struct EscapedIdentity {
    EscapedText bin;
    EscapedText product;
    EscapedText serial;
    EscapedText mac;
    EscapedText hardware;
};
}  // namespace

static bool escape(const char* value, EscapedText* escaped, const char* failure) {
    escaped->reset(url_escape_value(value));
    if (*escaped != nullptr) return true;
    http_client_debug_print(HTTPC_LOG_ERROR, "%s", failure);
    return false;
}

static bool escape_identity(const DeviceIdentity& identity, EscapedIdentity* escaped) {
    return escape(identity.software_version, &escaped->bin, "escape bin<-->fail") &&
           escape(identity.product_name, &escaped->product, "escape name<-->fail") &&
           escape(identity.serial_number, &escaped->serial, "escape serial<-->fail") &&
           escape(identity.mac_address, &escaped->mac, "escape mac<-->fail") &&
           escape(identity.hardware_version, &escaped->hardware, "escape hardware<-->fail");
}

// Seconds since the device started: the register key changes with them, and they
// are there before the wall clock is set.
static int32_t uptime_s() { return static_cast<int32_t>(monotonic_s()); }

static bool md5_fail(const char* text) {
    http_client_debug_print(HTTPC_LOG_ERROR, "%s", text);
    return false;
}

static bool make_register_key(const DeviceIdentity& identity, int32_t time_s,
                              char (&hex)[KEY_HEX_SIZE]) {
    char source[KEY_SOURCE_SIZE];
    (void)snprintf(source, sizeof(source), "%s%s%s%d%d%s", identity.serial_number,
                   identity.software_version, identity.product_name, time_s, time_s, REGISTER_KEY);
    MD5_CTX context{};
    uint8_t digest[MD5_DIGEST_LENGTH];
    if (MD5_Init(&context) != 1) return md5_fail("MD5 init fail");
    if (MD5_Update(&context, source, strlen(source)) != 1) return md5_fail("MD5 update fail");
    if (MD5_Final(digest, &context) != 1) return md5_fail("MD5 final fail");
    size_t length = 0;
    for (const uint8_t byte : digest) {
        (void)text_appendf(hex, sizeof(hex), &length, "%02x", byte);
    }
    http_client_debug_print(HTTPC_LOG_INFO, "md5 data:%s", source);
    http_client_debug_print(HTTPC_LOG_INFO, "md5     :%s", hex);
    return true;
}

// Dotted text of the connection's own address; empty when it can't be told.
static void local_ip(int fd, char (&text)[LOCAL_IP_SIZE]) {
    text[0] = '\0';
    sockaddr_in local{};
    socklen_t size = sizeof(local);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0) return;
    if (inet_ntop(AF_INET, &local.sin_addr, text, sizeof(text)) == nullptr) return;
    http_client_debug_print(HTTPC_LOG_INFO, "socket addr: %s.", text);
}

static bool append_text(CommBuf* body, const char* text) {
    const auto length = static_cast<int32_t>(strlen(text));
    if (comm_buf_append(body, text, length) == length) return true;
    http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->write fail", text);
    return false;
}

static bool append_identity(const UpdateServer* server, CommBuf* body) {
    const DeviceIdentity identity = device_identity_copy();
    EscapedIdentity escaped;
    if (!escape_identity(identity, &escaped)) return false;
    const int32_t time_s = uptime_s();
    char key[KEY_HEX_SIZE];
    if (!make_register_key(identity, time_s, key)) return false;
    char ip[LOCAL_IP_SIZE];
    local_ip(server->socket, ip);
    char form[FORM_SIZE];
    const int length = snprintf(form, sizeof(form), FORM_FORMAT, escaped.bin.get(),
                                escaped.product.get(), escaped.serial.get(), escaped.mac.get(),
                                escaped.hardware.get(), time_s, time_s, key, ip);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(form)) {
        http_client_debug_dump("[%s][%d]: post data too long", "http_update_version_pack",
                               __LINE__);
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->not enough buff", form);
        return false;
    }
    return append_text(body, form);
}

// Adds one app's pair unless the app can't be asked about now.
static bool append_app(int slot, const AppEntry& app, CommBuf* body, AppSet* sent) {
    if ((app.flags & APP_FLAG_BUSY) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->%d is busy now, try again later",
                                app.name, slot);
        return true;
    }
    if (app.version[0] == '\0') {
        http_client_debug_print(HTTPC_LOG_ERROR, "[%s]<-->%d have no version", app.name, slot);
        return true;
    }
    app_set_insert(sent, slot);
    EscapedText version;
    if (!escape(app.version, &version, "escape version<-->fail")) return false;
    char pair[FORM_SIZE];
    (void)snprintf(pair, sizeof(pair), "&%s=%s", app.name, version.get());
    return append_text(body, pair);
}

UpdateStatus http_update_version_send(const UpdateServer* server, const AppSet& asked, AppSet* sent,
                                      Attempt* attempt) {
    if (server == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "url model path is empty");
        return UPDATE_SEND_FAIL;
    }
    HttpRequest request{};
    request.method = HTTP_METHOD_POST;
    request.port = static_cast<uint16_t>(server->port);
    text_copy(request.host, text_view(server->host));
    text_copy(request.path, text_view(server->uri));
    if (http_update_version_pack(server, &request.body, asked, sent) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "build request data failed");
        cause_set(cause_of(attempt), CausePhase::Query, CauseReason::NoMemory);
        return UPDATE_NO_MEMORY;
    }
    if (app_set_is_empty(*sent)) {
        http_client_debug_print(HTTPC_LOG_ERROR, "send mask empty");
        return UPDATE_ALL_BUSY;
    }
    if (pkg_send(server->socket, &request, attempt) != 0) {
        http_client_debug_print(HTTPC_LOG_CONNECT, "send request failed");
        return UPDATE_SEND_FAIL;
    }
    return UPDATE_OK;
}

int http_update_version_pack(const UpdateServer* server, CommBuf* body, const AppSet& asked,
                             AppSet* sent) {
    if (!append_identity(server, body)) return -1;
    *sent = AppSet{};
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry app;
        if (!app_set_contains(asked, slot) || reg_app_get(slot, &app) != 0) continue;
        if (!append_app(slot, app, body, sent)) return -1;
    }
    return 0;
}
