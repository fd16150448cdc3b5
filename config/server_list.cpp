// Circular lists with their head inside, so that a server is linked and unlinked
// without a special case. A new server goes to the front; copying walks from the
// front and so turns the order round, into that of configuration.

#include "config/server_list.h"

#include <string_view>

#include "base/sync.h"
#include "base/text.h"
#include "buffer/memory.h"
#include "config/settings.h"
#include "frame/log.h"

#ifndef HTTP_CLIENT_DEFAULT_SERVER
#error "the build must name the default update server"
#endif

namespace {

// Recursive, so that whoever reads the list under its lock may call this module.
// clang's analysis follows it like any other mutex.
class CAPABILITY("mutex") ListMutex {
  public:
    // Fails only where mutexes need memory of their own, which they don't here.
    ListMutex() { (void)hu_serv_mutex_init(&mutex_); }
    ListMutex(const ListMutex&) = delete;
    ListMutex& operator=(const ListMutex&) = delete;

    void Lock() ACQUIRE() { (void)pthread_mutex_lock(&mutex_); }
    void Unlock() RELEASE() { (void)pthread_mutex_unlock(&mutex_); }

  private:
    pthread_mutex_t mutex_;
};

class SCOPED_CAPABILITY ListLock {
  public:
    explicit ListLock(ListMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~ListLock() RELEASE() { mutex_.Unlock(); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

  private:
    ListMutex& mutex_;
};

struct ConfiguredList {
    ListMutex lock;
    hu_serv_list list GUARDED_BY(lock){};
};

// A configured list and the one that stands in for it while it is empty. The
// defaults are written at start only and read without a lock.
struct ServerLists {
    hu_serv_list defaults{};
    ConfiguredList configured;
};

ServerLists hu_serv_lists[2];  // first, second

ServerLists& lists_of(bool second) { return hu_serv_lists[second ? 1 : 0]; }

const char* uri_or_default(const char* uri) {
    return uri == nullptr || *uri == '\0' ? HU_SERV_DEFAULT_URI : uri;
}

uint32_t port_or_default(uint32_t port) { return port == 0 ? HU_SERV_DEFAULT_PORT : port; }

bool host_is_empty(const char* host) { return host == nullptr || *host == '\0'; }

void server_free(hu_serv_list* list, UpdateServer* server) {
    server->prev->next = server->next;
    server->next->prev = server->prev;
    --list->count;
    mem_free(server);
}

// Drops what an earlier call left.
void list_restart(hu_serv_list* list) {
    if (list->links.next != nullptr) hu_serv_list_clear(list);
    hu_serv_list_init(list);
}

int servers_copy(hu_serv_list* copy, const hu_serv_list& source) {
    for (const UpdateServer* server = hu_serv_list_first(&source); server != nullptr;
         server = hu_serv_list_next(&source, server)) {
        if (hu_serv_list_add(copy, server->host, server->port, server->uri) != 0) return -1;
    }
    return 0;
}

int lists_copy(hu_serv_list* copy, ServerLists& source) {
    {
        const ListLock guard(source.configured.lock);
        if (!hu_serv_list_empty(&source.configured.list)) {
            return servers_copy(copy, source.configured.list);
        }
    }
    return servers_copy(copy, source.defaults);
}

}  // namespace

int hu_serv_mutex_init(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) return -1;
    const bool ready = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                       pthread_mutex_init(mutex, &attributes) == 0;
    const bool destroyed = pthread_mutexattr_destroy(&attributes) == 0;
    return ready && destroyed ? 0 : -1;
}

void hu_serv_config_init() {
    src_ip_set(SRC_IP_NONE);
    for (ServerLists& lists : hu_serv_lists) {
        list_restart(&lists.defaults);
        const ListLock guard(lists.configured.lock);
        list_restart(&lists.configured.list);
    }
    // A failure is logged; there is then no server until one is configured.
    (void)hu_serv_list_add(&lists_of(false).defaults, HTTP_CLIENT_DEFAULT_SERVER,
                           HU_SERV_DEFAULT_PORT, HU_SERV_DEFAULT_URI);
}

void hu_serv_list_init(hu_serv_list* list) {
    list->links = {&list->links, &list->links};
    list->count = 0;
}

int hu_serv_list_add(hu_serv_list* list, const char* host, uint32_t port, const char* uri) {
    UpdateServer* server = mem_make<UpdateServer>().release();
    if (server == nullptr) {
        http_client_debug_dump("hu_serv_list_add failed.");
        return -1;
    }
    (void)text_copy(server->host, host);
    (void)text_copy(server->uri, uri);
    server->socket = -1;
    server->port = port;
    server->prev = &list->links;
    server->next = list->links.next;
    server->next->prev = server;
    list->links.next = server;
    ++list->count;
    return 0;
}

UpdateServer* hu_serv_list_find(const hu_serv_list* list, const char* host, uint32_t port,
                                const char* uri) {
    for (UpdateServer* server = hu_serv_list_first(list); server != nullptr;
         server = hu_serv_list_next(list, server)) {
        if (server->port == port && std::string_view(server->host) == host &&
            std::string_view(server->uri) == uri) {
            return server;
        }
    }
    return nullptr;
}

int hu_serv_list_del(hu_serv_list* list, const char* host, uint32_t port, const char* uri) {
    UpdateServer* server = hu_serv_list_find(list, host, port, uri);
    if (server == nullptr) return -1;
    server_free(list, server);
    return 0;
}

void hu_serv_list_clear(hu_serv_list* list) {
    while (!hu_serv_list_empty(list)) server_free(list, hu_serv_list_first(list));
}

bool hu_serv_list_empty(const hu_serv_list* list) { return list->links.next == &list->links; }

UpdateServer* hu_serv_list_first(const hu_serv_list* list) {
    return hu_serv_list_empty(list) ? nullptr : static_cast<UpdateServer*>(list->links.next);
}

UpdateServer* hu_serv_list_next(const hu_serv_list* list, const UpdateServer* server) {
    return server->next == &list->links ? nullptr : static_cast<UpdateServer*>(server->next);
}

int hu_serv_list_copy(hu_serv_list* copy, unsigned selector) {
    hu_serv_list_init(copy);
    if (((selector & SERVERS_FIRST) != 0 && lists_copy(copy, lists_of(false)) != 0) ||
        ((selector & SERVERS_SECOND) != 0 && lists_copy(copy, lists_of(true)) != 0)) {
        hu_serv_list_clear(copy);
        return -1;
    }
    return 0;
}

int hu_serv_config_add(const char* host, uint32_t port, const char* uri, bool second) {
    if (host_is_empty(host)) return -1;
    port = port_or_default(port);
    uri = uri_or_default(uri);
    ConfiguredList& configured = lists_of(second).configured;
    const ListLock guard(configured.lock);
    if (hu_serv_list_find(&configured.list, host, port, uri) != nullptr) return HU_SERV_OK;
    if (second && configured.list.count >= HU_SERV_MAX) return HU_SERV_FULL;
    if (hu_serv_list_add(&configured.list, host, port, uri) != 0) return HU_SERV_NO_MEMORY;
    // The new server takes the old one's place on the first list; only now, so that
    // a failure loses neither.
    if (!second && configured.list.count > 1) {
        server_free(&configured.list, static_cast<UpdateServer*>(configured.list.links.prev));
    }
    return HU_SERV_OK;
}

int hu_serv_config_del(const char* host, uint32_t port, const char* uri, bool second) {
    ConfiguredList& configured = lists_of(second).configured;
    const ListLock guard(configured.lock);
    if (host_is_empty(host)) {
        hu_serv_list_clear(&configured.list);
        return HU_SERV_OK;
    }
    port = port_or_default(port);
    uri = uri_or_default(uri);
    if (hu_serv_list_del(&configured.list, host, port, uri) != 0) return HU_SERV_NOT_FOUND;
    http_client_debug_print(HTTPC_LOG_INFO, "delete %s:%d%s success", host, static_cast<int>(port),
                            uri);
    return HU_SERV_OK;
}

const char* hu_serv_errstr(int code) {
    switch (code) {
        case HU_SERV_NOT_FOUND:
            return "The configuration not founded";
        case HU_SERV_NO_MEMORY:
            return "Failed to alloc memory for the configuration";
        case HU_SERV_FULL:
            return "The number of update server can't exceed 3";
        default:
            return "Internal error";
    }
}

void hu_serv_config_read_first(void (*reader)(const hu_serv_list& list, void* argument),
                               void* argument) {
    ConfiguredList& configured = lists_of(false).configured;
    const ListLock guard(configured.lock);
    reader(configured.list, argument);
}
