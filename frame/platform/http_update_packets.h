// The packets between the update daemon and its apps: what the daemon, the packet
// library and the app SDK share, and all that an app needs which does without the
// SDK. Constants and layouts only, for C and C++.
//
// The daemon listens on a stream socket of the local family. Both sides send
// packets: a header, then the payload that belongs to its type. Integers are in
// the device's byte order. A text ends in a zero byte and zeroes fill the rest of
// its field; a field without a zero byte counts as cut to its last byte but one.
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

// Below the daemon's TMPDIR, of which 31 bytes count; /tmp when it is unset.
#define HTTP_UPDATE_SOCKET_PATH "/oam/http_client/.http_update"

struct http_update_packet_header {
    uint16_t version;      // HTTP_UPDATE_PACKET_VERSION; receivers accept anything
    uint16_t type;         // HTTP_MSG_TYPE_
    uint16_t length;       // of the payload
    uint16_t reserved[3];  // zero; receivers accept anything
};

#define HTTP_UPDATE_PACKET_HEADER_SIZE 12
#define HTTP_UPDATE_PACKET_VERSION 1
#define HTTP_UPDATE_PAYLOAD_MAX 65535     // what length can say
#define HTTP_UPDATE_APP_PAYLOAD_MAX 4096  // from an app; the daemon skips a longer packet

// Types: who sends it, and its payload. The daemon ends a connection after a
// registration of another size, and after the last of its apps has deregistered;
// it ignores other packets that make no sense.
#define HTTP_MSG_TYPE_REGIST 1      // app: http_msg_regist, answered with REGIST_RSP
#define HTTP_MSG_TYPE_REGIST_RSP 2  // daemon: http_msg_regist_rsp
#define HTTP_MSG_TYPE_UPDATE_REQ 3  // daemon: http_msg_update_req and what follows it
#define HTTP_MSG_TYPE_UPDATE_RSP 4  // app: http_msg_update_rsp
#define HTTP_MSG_TYPE_VERSION 5     // app: http_msg_version
#define HTTP_MSG_TYPE_DEREGIST 6    // app: the app's name, of any length
#define HTTP_MSG_TYPE_MODE 7        // app: http_msg_mode
#define HTTP_MSG_TYPE_SAVEPATH 9    // app: http_msg_savepath
#define HTTP_MSG_TYPE_MAX 10

#define HTTP_UPDATE_NAME_SIZE 32
#define HTTP_UPDATE_VERSION_SIZE 32
#define HTTP_UPDATE_SAVE_PATH_SIZE 128
#define HTTP_UPDATE_APP_MAX 20  // places in the daemon's table

// flags; other bits mean nothing
#define HTTP_UPDATE_FLAG_ONE_FILE 0x1u     // a run downloads the first listed file only
#define HTTP_UPDATE_FLAG_MANUAL 0x2u       // left out of the daily update
#define HTTP_UPDATE_FLAG_INCREMENTAL 0x4u  // takes the files fetched so far when a run fails

struct http_msg_regist {
    uint32_t flags;
    char name[HTTP_UPDATE_NAME_SIZE];
    char version[HTTP_UPDATE_VERSION_SIZE];
    char save_path[HTTP_UPDATE_SAVE_PATH_SIZE];  // empty: the app gives none
};

// result
#define HTTP_UPDATE_REGIST_OK 0
#define HTTP_UPDATE_REGIST_NO_MEMORY 2
#define HTTP_UPDATE_REGIST_TABLE_FULL 10  // or the save path was not stored
#define HTTP_UPDATE_REGIST_DUPLICATE 12   // the name is another connection's

struct http_msg_regist_rsp {
    int32_t result;
    char name[HTTP_UPDATE_NAME_SIZE];
};

// result; any other value is a failure
#define HTTP_UPDATE_RESULT_SUCCESS 0
#define HTTP_UPDATE_RESULT_UPDATING 1  // still going on: the app will answer once more

struct http_msg_update_rsp {
    int32_t result;
    char name[HTTP_UPDATE_NAME_SIZE];
    char version[HTTP_UPDATE_VERSION_SIZE];  // the new one on success; may be empty
};

struct http_msg_version {
    char name[HTTP_UPDATE_NAME_SIZE];
    char version[HTTP_UPDATE_VERSION_SIZE];
};

// mode; any other value is automatic, too
#define HTTP_UPDATE_MODE_AUTO 0
#define HTTP_UPDATE_MODE_MANUAL 1

struct http_msg_mode {
    char name[HTTP_UPDATE_NAME_SIZE];
    int32_t mode;
};

struct http_msg_savepath {
    char name[HTTP_UPDATE_NAME_SIZE];
    char save_path[HTTP_UPDATE_SAVE_PATH_SIZE];
};

// The update request begins with this record. The rest has no padding:
//   each file: its path's size (one byte, see below), the path, a zero byte
//   each fact that the update server gave: http_msg_fact, name, zero byte, text,
//   zero byte
//   HTTP_UPDATE_REQ_END_SIZE zeroes
// Facts are the children of the app's element that begin with a text, among the
// first fifty child nodes.
struct http_msg_update_req {
    char name[HTTP_UPDATE_NAME_SIZE];
    uint16_t file_count;
    uint16_t rest_length;  // bytes after this record
};

#define HTTP_UPDATE_REQ_END_SIZE 4

// Sizes here count the zero byte. That of a path is 1 to 256, and 256 travels as 0.
#define HTTP_UPDATE_PATH_SIZE 256
#define HTTP_UPDATE_FACT_SIZE 1024  // most of a name or text; longer ones are left out

struct http_msg_fact {
    uint16_t name_size;
    uint16_t text_size;
};

static inline uint8_t http_update_path_size_byte(size_t size) { return size & 0xff; }
static inline size_t http_update_path_size(uint8_t byte) {
    return byte == 0 ? HTTP_UPDATE_PATH_SIZE : byte;
}

#if defined(__cplusplus) || __STDC_VERSION__ >= 201112L
// The sizes of the fields add up: no padding, so every field is in its place.
static_assert(sizeof(struct http_update_packet_header) == HTTP_UPDATE_PACKET_HEADER_SIZE, "");
static_assert(sizeof(struct http_msg_regist) == 196, "flags 0, name 4, version 36, save_path 68");
static_assert(sizeof(struct http_msg_regist_rsp) == 36, "result 0, name 4");
static_assert(sizeof(struct http_msg_update_rsp) == 68, "result 0, name 4, version 36");
static_assert(sizeof(struct http_msg_version) == 64, "name 0, version 32");
static_assert(sizeof(struct http_msg_mode) == 36, "name 0, mode 32");
static_assert(sizeof(struct http_msg_savepath) == 160, "name 0, save_path 32");
static_assert(sizeof(struct http_msg_update_req) == 36, "name 0, file_count 32, rest_length 34");
static_assert(sizeof(struct http_msg_fact) == 4, "name_size 0, text_size 2");
#endif
