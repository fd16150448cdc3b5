// Messages between the daemon and its apps: types, payload layouts, and the
// handling of those that apps send. Integers are in the device's byte order;
// text fields are zero-padded, and a field filled to its last byte has no
// terminator.
//
// Threads: reg_msg_dispatch on the main loop only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "registry/app_registry.h"

constexpr uint16_t HTTP_MSG_TYPE_REGIST = 1;      // app to daemon; answered with REGIST_RSP
constexpr uint16_t HTTP_MSG_TYPE_REGIST_RSP = 2;  // daemon to app
constexpr uint16_t HTTP_MSG_TYPE_UPDATE_REQ = 3;  // daemon to app, see update_request.h
constexpr uint16_t HTTP_MSG_TYPE_UPDATE_RSP = 4;  // app to daemon, like all below
constexpr uint16_t HTTP_MSG_TYPE_VERSION = 5;
constexpr uint16_t HTTP_MSG_TYPE_DEREGIST = 6;  // payload: the app's name, of any length
constexpr uint16_t HTTP_MSG_TYPE_MODE = 7;
constexpr uint16_t HTTP_MSG_TYPE_SAVEPATH = 9;
constexpr uint16_t HTTP_MSG_TYPE_MAX = 10;

struct RegistMessage {
    uint32_t flags;  // APP_FLAG_ bits
    char name[APP_NAME_SIZE];
    char version[APP_VERSION_SIZE];
    char save_path[APP_SAVE_PATH_SIZE];  // empty: the app gives none
};
static_assert(sizeof(RegistMessage) == 196 && offsetof(RegistMessage, name) == 4 &&
              offsetof(RegistMessage, version) == 36 && offsetof(RegistMessage, save_path) == 68);

struct RegistReply {
    int32_t result;  // REG_OK, REG_NO_MEMORY, REG_TABLE_FULL or REG_DUPLICATE
    char name[APP_NAME_SIZE];
};
static_assert(sizeof(RegistReply) == 36 && offsetof(RegistReply, name) == 4);

struct UpdateResultMessage {
    int32_t result;  // 0 success, UPDATE_RESULT_UPDATING, any other value failure
    char name[APP_NAME_SIZE];
    char text[APP_VERSION_SIZE];  // new version on success; may be empty
};
static_assert(sizeof(UpdateResultMessage) == 68 && offsetof(UpdateResultMessage, name) == 4 &&
              offsetof(UpdateResultMessage, text) == 36);

struct VersionMessage {
    char name[APP_NAME_SIZE];
    char version[APP_VERSION_SIZE];
};
static_assert(sizeof(VersionMessage) == 64 && offsetof(VersionMessage, version) == 32);

struct ModeMessage {
    char name[APP_NAME_SIZE];
    int32_t mode;  // APP_MODE_MANUAL; any other value: auto
};
static_assert(sizeof(ModeMessage) == 36 && offsetof(ModeMessage, mode) == 32);

struct SavePathMessage {
    char name[APP_NAME_SIZE];
    char save_path[APP_SAVE_PATH_SIZE];
};
static_assert(sizeof(SavePathMessage) == 160 && offsetof(SavePathMessage, save_path) == 32);

// Handles one message received on the connection sock. Negative: the connection
// is to be ended. Messages that make no sense are logged and ignored.
[[nodiscard]] int reg_msg_dispatch(int sock, uint16_t type, std::span<const uint8_t> payload);
