// The update request: tells an app which of its files are ready and what the
// update server said about it, and marks it busy until it reports its result.
//
// Threads: an update thread; one run exists at a time.
//
// Payload of the message (integers 16 bits, device byte order, no padding):
//   0   32  app name, at most 31 characters, rest zero
//   32  2   number of files
//   34  2   payload size minus 36
//   36      per file: 1 byte path length plus 1, the path, a zero byte
//           per qualifying child element: its name's and its text's length, 2
//           bytes each, then both, every length and text with its terminator
//       4   zeroes
// The length byte of a path of 255 characters is 0; no other path's is.
#pragma once

#include <libxml/tree.h>

#include <cstdint>

// Sends the request for the files at paths, and the children of the app's
// element of the version reply: elements that begin with a text shorter than
// 1024 characters, among the first 50 child nodes. 0, or -1 when it was not
// sent: the app is then not busy, or was removed with its connection because
// that failed.
[[nodiscard]] int reg_update_req(xmlNodePtr app, const char* name, char** paths, int32_t count);
