// The version query: a form that identifies the device, signs that with a
// register key, and names each app with its version.
// Threads: any; works on its arguments, the device's identity and copies of the
// registered apps.
#pragma once

#include "buffer/comm_buf.h"
#include "config/server_list.h"
#include "http/attempt.h"
#include "http/status.h"
#include "registry/app_set.h"

// Sends the query for the apps of asked on the server's connection. An app that
// is busy or has no version is left out; sent becomes the apps that were put in.
// UPDATE_OK; UPDATE_SEND_FAIL for no server or a failed send, UPDATE_NO_MEMORY
// when the form can't be built, UPDATE_ALL_BUSY when no app was left (nothing is
// sent). The connection stays open; sent counts for UPDATE_OK only.
[[nodiscard]] UpdateStatus http_update_version_send(const UpdateServer* server, const AppSet& asked,
                                                    AppSet* sent, Attempt* attempt = nullptr);

// Appends the form to body. 0 with sent filled; else -1, body and sent then hold
// a part.
[[nodiscard]] int http_update_version_pack(const UpdateServer* server, CommBuf* body,
                                           const AppSet& asked, AppSet* sent);
