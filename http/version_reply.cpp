// Every way out closes the connection, and a cancel outweighs what came after it: the
// caller sees one status, whichever step was interrupted.
#include "http/version_reply.h"

#include <unistd.h>

#include "buffer/memory.h"
#include "frame/log.h"
#include "http/connection.h"
#include "http/exchange.h"
#include "http/version_query.h"
#include "registry/app_registry.h"

static void disconnect(UpdateServer* server) {
    (void)close(server->socket);  // everything that matters has been read
    server->socket = -1;
}

static XmlDoc exchange(const AppSet& asked, UpdateStatus* status, AppSet* updated,
                       UpdateServer* server, Attempt* attempt) {
    cause_begin(cause_of(attempt), server->host, static_cast<uint16_t>(server->port));
    *status = url_connect(server, attempt);
    if (*status != UPDATE_OK) {
        http_client_debug_print(HTTPC_LOG_CONNECT, "connect to %s failed.", server->host);
        return nullptr;
    }
    AppSet sent;
    *status = http_update_version_send(server, asked, &sent, attempt);
    if (*status != UPDATE_OK) {
        http_client_debug_print(HTTPC_LOG_ERROR, "send version error");
        disconnect(server);
        return nullptr;
    }
    XmlDoc document = http_update_version_recv(server->socket, status, attempt);
    disconnect(server);
    if (document == nullptr) {
        http_client_debug_print(HTTPC_LOG_CONNECT, "receive response from %s failed.",
                                server->host);
        return nullptr;
    }
    http_client_debug_print(HTTPC_LOG_CONNECT, "receive response from %s success.", server->host);
    const AppSet needed = version_xmldoc_parse_app(document.get());
    app_set_and(&sent, &needed, updated);
    return document;
}

XmlDoc http_update_version_query(const AppSet& asked, UpdateStatus* status, AppSet* updated,
                                 UpdateServer* server, Attempt* attempt) {
    XmlDoc document = exchange(asked, status, updated, server, attempt);
    if (attempt == nullptr || !attempt->cancel.requested()) return document;
    *status = UPDATE_CANCELLED;
    cause_set(&attempt->cause, attempt->cause.phase, CauseReason::Cancelled);
    return nullptr;
}

XmlDoc http_update_version_recv(int fd, UpdateStatus* status, Attempt* attempt) {
    *status = UPDATE_OK;
    OwnedCommBuf body;
    if (pkg_recv(fd, &body, attempt) != 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "sock %d<-->recv response fail %d", fd,
                                static_cast<int>(*status));
        *status = UPDATE_RECEIVE_FAIL;
        return nullptr;
    }
    XmlDoc document = comm_to_buf(&body);
    if (document != nullptr) return document;
    *status = UPDATE_BAD_REPLY;
    cause_set_unusable(cause_of(attempt), CausePhase::Reply, "it is no list of updates");
    return nullptr;
}

// The buffer's whole content as a zero-terminated text; null when it is empty or
// memory is short.
static MemPtr<char> take_text(CommBuf* buffer) {
    const uint32_t length = comm_buf_len(buffer);
    if (length == 0 || length >= INT32_MAX) return nullptr;
    MemPtr<char> text(static_cast<char*>(mem_zalloc(static_cast<int32_t>(length + 1))));
    if (text == nullptr) return nullptr;
    if (comm_buf_read(buffer, text.get(), length) != static_cast<int32_t>(length)) return nullptr;
    return text;
}

XmlDoc comm_to_buf(CommBuf* buffer) {
    if (buffer == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "invalid cbuf in comm to doc");
        return nullptr;
    }
    MemPtr<char> text = take_text(buffer);
    if (text == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "malloc fail in comm to doc");
        return nullptr;
    }
    XmlDoc document(xml_doc_read_mem(text.get()));
    text.reset();
    if (document == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "comm_to_buf<-->get xml doc fail");
        return nullptr;
    }
    if (xml_root_get(document.get()) == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "comm_to_buf<-->check xml doc fail");
        return nullptr;
    }
    return document;
}

AppSet version_xmldoc_parse_app(xmlDocPtr document) {
    AppSet needed{};
    xmlNodePtr root = xml_root_get(document);
    if (root == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "[version_xmldoc_parse_app]<-->check doc fail");
        return needed;
    }
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry app;
        if (reg_app_get(slot, &app) != 0) continue;
        if (xml_child_find_by_name(root, "app", app.name) == nullptr) continue;
        app_set_insert(&needed, slot);
        http_client_debug_print(HTTPC_LOG_INFO, "%s<-->need update in server", app.name);
    }
    return needed;
}
