// The update request: tells an app which of its files are ready and what the
// update server said about it, and marks it busy until it reports its result.
//
// Threads: an update thread; one run exists at a time.
#pragma once

#include <libxml/tree.h>

#include <cstdint>

// Sends the request for the files at paths, and the children of the app's
// element of the version reply: elements that begin with a text shorter than
// 1024 characters, among the first 50 child nodes. 0, or -1 when it was not
// sent: the app is then not busy, or was removed with its connection because
// that failed.
[[nodiscard]] int reg_update_req(xmlNodePtr app, const char* name, char** paths, int32_t count);
