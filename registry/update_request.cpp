// Building and sending of the update request. The request is complete before the
// app is looked up, so that every failure but that of the send itself leaves the
// registry untouched.

#include "registry/update_request.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "base/text.h"
#include "buffer/comm_buf.h"
#include "buffer/memory.h"
#include "frame/log.h"
#include "frame/platform/http_update.h"
#include "http/xml.h"
#include "registry/app_registry.h"
#include "registry/reg_server.h"

namespace {

constexpr int NODE_MAX = 50;

struct NodeContext {
    OwnedCommBuf records;
    bool failed = false;
};

using Paths = std::span<char* const>;

// Bytes of all file entries, or -1 for a path that is too long.
ptrdiff_t entries_size(const char* name, Paths paths) {
    size_t size = 0;
    for (const char* path : paths) {
        const size_t path_size = strlen(path) + 1;
        if (path_size > HTTP_UPDATE_PATH_SIZE) {
            http_client_debug_dump("[%s]<-->[%s] is large than %d", name, path,
                                   HTTP_UPDATE_PATH_SIZE);
            return -1;
        }
        size += 1 + path_size;
    }
    return static_cast<ptrdiff_t>(size);
}

// The text that a child element begins with; null when it does not.
const char* leading_text(const xmlNode* node) {
    if (node->type != XML_ELEMENT_NODE || node->name == nullptr) return nullptr;
    const xmlNode* first = node->children;
    if (first == nullptr || first->type != XML_TEXT_NODE) return nullptr;
    return xml_text(first->content);
}

// A short append counts as failed: half a record would spoil the request.
bool record_append(CommBuf* records, const void* bytes, size_t size) {
    const auto count = static_cast<int32_t>(size);
    return comm_buf_append(records, bytes, count) == count;
}

int reg_update_node(xmlNodePtr node, int position, void* argument) {
    if (node == nullptr) {
        http_client_debug_print(HTTPC_LOG_INFO, "null node");
        return 0;
    }
    if (position > NODE_MAX) {
        http_client_debug_dump("number of nodes exceed");
        return -1;
    }
    const char* text = leading_text(node);
    if (text == nullptr) {
        http_client_debug_print(HTTPC_LOG_INFO, "name or content is null");
        return 0;
    }
    const char* name = xml_text(node->name);
    const size_t name_size = strnlen(name, HTTP_UPDATE_FACT_SIZE) + 1;
    const size_t text_size = strnlen(text, HTTP_UPDATE_FACT_SIZE) + 1;
    http_client_debug_print(HTTPC_LOG_INFO, "node: %s\n len:%d", name, static_cast<int>(name_size));
    http_client_debug_print(HTTPC_LOG_INFO, "content: %s\n len:%d", text,
                            static_cast<int>(text_size));
    if (name_size > HTTP_UPDATE_FACT_SIZE || text_size > HTTP_UPDATE_FACT_SIZE) {
        http_client_debug_print(HTTPC_LOG_INFO, "node %s: content too long", name);
        return 0;
    }
    auto* context = static_cast<NodeContext*>(argument);
    const http_msg_fact head{static_cast<uint16_t>(name_size), static_cast<uint16_t>(text_size)};
    if (!record_append(&context->records, &head, sizeof(head)) ||
        !record_append(&context->records, name, name_size) ||
        !record_append(&context->records, text, text_size)) {
        http_client_debug_dump("node %s: failed to write buf", name);
        context->failed = true;
        return -1;
    }
    return 0;
}

// Writes one entry; returns the place after it.
uint8_t* entry_write(uint8_t* entry, std::string_view path) {
    *entry++ = http_update_path_size_byte(path.size() + 1);
    memcpy(entry, path.data(), path.size());
    return entry + path.size() + 1;  // the terminator is there already
}

// payload is zero-filled. The records are consumed.
void payload_write(uint8_t* payload, size_t size, const char* name, Paths paths, CommBuf* records) {
    http_msg_update_req head{};
    (void)text_copy(head.name, name);
    head.file_count = static_cast<uint16_t>(paths.size());
    head.rest_length = static_cast<uint16_t>(size - sizeof(head));
    memcpy(payload, &head, sizeof(head));
    uint8_t* place = payload + sizeof(head);
    for (const char* path : paths) place = entry_write(place, path);
    const uint32_t length = comm_buf_len(records);
    if (length > 0) (void)comm_buf_read(records, place, length);
}

// The app that a request is sent to.
struct Target {
    int fd = -1;
    RegClientHold hold;  // keeps fd this app's while the request is sent
};

// Marks the app busy. The hold is taken under the registry's lock: an app's entry
// goes before its connection is closed, so fd is still the app's there.
bool target_take(const char* name, Target* target) {
    const WriteLock guard(app_registry_lock);
    AppEntry* app = reg_app_find_mutable(name);
    if (app == nullptr) return false;
    app->flags |= APP_FLAG_BUSY;
    target->fd = app->fd;
    target->hold = reg_client_hold(app->fd);
    return true;
}

int request_send(const char* name, int file_count, const uint8_t* payload, size_t size) {
    Target target;
    if (!target_take(name, &target)) {
        http_client_debug_dump("[%s]<-->have no find in reg", name);
        return -1;
    }
    http_client_debug_dump("[%s]<-->update req send filenum [%d]", name, file_count);
    if (http_update_reg_send_normal(target.fd, HTTP_MSG_TYPE_UPDATE_REQ, payload,
                                    static_cast<int>(size)) < 0) {
        http_client_debug_dump("[%s]<-->update req send fail", name);
        reg_client_disconnect_fd(target.fd);
        return -1;
    }
    return 0;
}

}  // namespace

int reg_update_req(xmlNodePtr app, const char* name, char** paths, int32_t count) {
    if (app == nullptr || name == nullptr) {
        http_client_debug_dump("invalid para in reg update");
        return -1;
    }
    const Paths files(paths, static_cast<size_t>(std::max(count, 0)));
    const ptrdiff_t files_size = entries_size(name, files);
    if (files_size < 0) return -1;

    NodeContext context;
    xml_child_foreach(app, nullptr, &context, reg_update_node);
    if (context.failed) {
        http_client_debug_dump("[%s]<-->parse xml info failed", name);
        return -1;
    }
    const size_t size = sizeof(http_msg_update_req) + static_cast<size_t>(files_size) +
                        comm_buf_len(&context.records) + HTTP_UPDATE_REQ_END_SIZE;
    if (size > HTTP_UPDATE_PAYLOAD_MAX) {
        http_client_debug_dump("[%s]<-->update req send fail", name);
        return -1;
    }
    const MemPtr<uint8_t[]> payload(static_cast<uint8_t*>(mem_zalloc(static_cast<int32_t>(size))));
    if (payload == nullptr) {
        http_client_debug_dump("[%s]<-->update req malloc fail", name);
        return -1;
    }
    payload_write(payload.get(), size, name, files, &context.records);
    return request_send(name, count, payload.get(), size);
}
