// One server's version exchange: the query, and its reply, an XML document that
// lists the apps to update with their files. The server decides what needs an
// update by listing it; no versions are compared here.
// Threads: any; works on its arguments and copies of the registered apps.
#pragma once

#include "buffer/comm_buf.h"
#include "config/server_list.h"
#include "http/attempt.h"
#include "http/status.h"
#include "http/xml.h"
#include "registry/app_set.h"

// Asks the server about the apps of asked. The reply with status UPDATE_OK, and
// in updated the apps that were asked about and are listed; or none, with status
// UPDATE_CONNECT_FAIL, UPDATE_SEND_FAIL, UPDATE_NO_MEMORY, UPDATE_ALL_BUSY,
// UPDATE_RECEIVE_FAIL or UPDATE_BAD_REPLY, and updated untouched. Once a cancel was
// requested: none, with UPDATE_CANCELLED, within a second. The attempt's cause says why
// there is none. The server's connection is opened and closed here.
[[nodiscard]] XmlDoc http_update_version_query(const AppSet& asked, UpdateStatus* status,
                                               AppSet* updated, UpdateServer* server,
                                               Attempt* attempt = nullptr);

// Receives the reply: with UPDATE_OK; or none, with UPDATE_RECEIVE_FAIL or
// UPDATE_BAD_REPLY.
[[nodiscard]] XmlDoc http_update_version_recv(int fd, UpdateStatus* status,
                                              Attempt* attempt = nullptr);

// Consumes the buffer's content and parses it. None when it is empty, not XML, or
// has another root than "filelist".
[[nodiscard]] XmlDoc comm_to_buf(CommBuf* buffer);

// The registered apps that the reply lists, asked about or not.
[[nodiscard]] AppSet version_xmldoc_parse_app(xmlDocPtr document);
