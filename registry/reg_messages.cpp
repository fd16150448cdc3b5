// Handlers of the messages that apps send. An app is addressed by its name,
// whichever connection registered it: only registration and deregistration look
// at the connection.

#include "registry/reg_messages.h"

#include <poll.h>

#include <cstring>
#include <string_view>

#include "base/text.h"
#include "frame/log.h"
#include "frame/platform/http_update.h"
#include "registry/app_registry.h"
#include "update/history.h"

namespace {

// A longer name could not be registered, and a log line takes no more.
constexpr size_t LOGGED_NAME_SIZE = 1024;

// Names are registered cut to their first 31 characters, so a field without a
// terminator means the app of that cut name.
std::string_view name_view(const char (&field)[APP_NAME_SIZE]) {
    return text_view(field).substr(0, APP_NAME_SIZE - 1);
}

// Copies a payload of exactly the message's size; false for any other size. The
// copy also gives the fields their alignment.
template <typename Message>
bool message_read(std::span<const uint8_t> payload, Message* message) {
    if (payload.size() != sizeof(*message)) return false;
    memcpy(message, payload.data(), sizeof(*message));
    return true;
}

template <typename Message>
bool message_read_logged(std::span<const uint8_t> payload, Message* message) {
    if (message_read(payload, message)) return true;
    http_client_debug_dump("pkt length %d is not equal %d", static_cast<int>(payload.size()),
                           static_cast<int>(sizeof(*message)));
    return false;
}

// Sends without waiting for an app that does not read. Negative: could not.
int reply_send(int sock, uint16_t type, const void* payload, int length) {
    if (http_update_reg_send_now != nullptr) {
        return http_update_reg_send_now(sock, type, payload, length);
    }
    // The nearest to it: a socket that says so takes a packet as small as a reply.
    pollfd entry{sock, POLLOUT, 0};
    if (poll(&entry, 1, 0) != 1 || (entry.revents & POLLOUT) == 0) return -1;
    return http_update_reg_send_normal(sock, type, payload, length);
}

int regist_handle(int sock, std::span<const uint8_t> payload) {
    http_msg_regist message{};
    // An app whose idea of the message differs would wait for its answer for ever.
    if (!message_read_logged(payload, &message)) return -1;

    const std::string_view name = name_view(message.name);
    http_msg_regist_rsp reply{};
    (void)text_copy(reply.name, name);
    reply.result = reg_app_add(sock, name, text_view(message.version), message.flags);
    const std::string_view save_path = text_view(message.save_path);
    if (reply.result == REG_OK && !save_path.empty() &&
        reg_app_set_savepath(name, save_path) != 0) {
        reply.result = REG_TABLE_FULL;
    }
    if (reply_send(sock, HTTP_MSG_TYPE_REGIST_RSP, &reply, sizeof(reply)) < 0) {
        http_client_debug_dump("send HTTP_MSG_TYPE_REGIST_RSP fail");
        return -1;
    }
    return 0;
}

int update_result_handle(int, std::span<const uint8_t> payload) {
    http_msg_update_rsp message{};
    if (message_read(payload, &message)) {
        const std::string_view name = name_view(message.name);
        const std::string_view version = text_view(message.version);
        reg_app_update_result(name, version, message.result);
        history_answer(name, version, message.result);
    } else {
        http_client_debug_dump("invalid packet in update-result");
    }
    return 0;
}

int version_handle(int, std::span<const uint8_t> payload) {
    http_msg_version message{};
    if (message_read_logged(payload, &message)) {
        reg_app_set_version(name_view(message.name), text_view(message.version));
    }
    return 0;
}

int deregist_handle(int sock, std::span<const uint8_t> payload) {
    char name[LOGGED_NAME_SIZE];
    (void)text_copy(name, {reinterpret_cast<const char*>(payload.data()), payload.size()});
    if (reg_app_del_by_name(name) == 0) {
        http_client_debug_dump("[%d]<-->deregist [%s] success", sock, name);
    } else {
        http_client_debug_dump("[%d]<-->deregist [%s] invalid", sock, name);
    }
    if (reg_app_fd_in_use(sock)) return 0;
    http_client_debug_dump("[%d]<-->deregist all and disconnect", sock);
    return -1;
}

int mode_handle(int, std::span<const uint8_t> payload) {
    http_msg_mode message{};
    if (message_read(payload, &message)) {
        reg_app_set_mode(name_view(message.name), message.mode);
    } else {
        http_client_debug_dump("len %d is not equal %d", static_cast<int>(payload.size()),
                               static_cast<int>(sizeof(message)));
    }
    return 0;
}

int save_path_handle(int, std::span<const uint8_t> payload) {
    http_msg_savepath message{};
    if (message_read_logged(payload, &message)) {
        // An app that is not registered is ignored: this message has no answer.
        (void)reg_app_set_savepath(name_view(message.name), text_view(message.save_path));
    }
    return 0;
}

using MessageHandler = int (*)(int sock, std::span<const uint8_t> payload);

// Null for a type that apps don't send.
MessageHandler handler_find(uint16_t type) {
    switch (type) {
        case HTTP_MSG_TYPE_REGIST:
            return regist_handle;
        case HTTP_MSG_TYPE_UPDATE_RSP:
            return update_result_handle;
        case HTTP_MSG_TYPE_VERSION:
            return version_handle;
        case HTTP_MSG_TYPE_DEREGIST:
            return deregist_handle;
        case HTTP_MSG_TYPE_MODE:
            return mode_handle;
        case HTTP_MSG_TYPE_SAVEPATH:
            return save_path_handle;
        default:
            return nullptr;
    }
}

}  // namespace

int reg_msg_dispatch(int sock, uint16_t type, std::span<const uint8_t> payload) {
    if (type == 0 || type >= HTTP_MSG_TYPE_MAX) {
        http_client_debug_dump("type >= HTTP_MSG_TYPE_MAX");
        return 0;
    }
    const MessageHandler handler = handler_find(type);
    if (handler == nullptr) {
        http_client_debug_dump("[%d]<-->deal invalid type %d", sock, type);
        return 0;
    }
    const int result = handler(sock, payload);
    if (result < 0) {
        http_client_debug_dump("[%d]<-->type execute fail", sock);
    } else {
        http_client_debug_dump("[%d]<-->deal type %d success", sock, type);
    }
    return result;
}
