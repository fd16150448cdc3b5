// The update servers: two configured lists, each with a default list that is
// used while it is empty.
//
// Threads: hu_serv_config_init before other threads start. The configured lists
// are changed on the main thread and copied by runs, each under its own mutex;
// a run works on its private copy. The other list operations take no lock: they
// are for lists that one thread owns.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

constexpr size_t SERVER_HOST_SIZE = 128;
constexpr size_t SERVER_URI_SIZE = 256;
constexpr uint32_t HU_SERV_DEFAULT_PORT = 80;
constexpr char HU_SERV_DEFAULT_URI[] = "/qb/11.x/update.asp";
constexpr uint32_t HU_SERV_MAX = 3;  // on the second list

struct ServerLink {
    ServerLink* next;
    ServerLink* prev;
};

struct UpdateServer : ServerLink {
    char host[SERVER_HOST_SIZE];  // name or dotted IPv4 text
    char uri[SERVER_URI_SIZE];
    int32_t socket;  // connection of the exchange in progress; -1: none
    uint32_t port;
};

// Circular, newest server first.
struct hu_serv_list {
    ServerLink links;
    uint32_t count;
};

// Selectors of hu_serv_list_copy.
constexpr unsigned SERVERS_FIRST = 1;
constexpr unsigned SERVERS_SECOND = 2;
constexpr unsigned SERVERS_BOTH = 3;

// Results of the configuration.
constexpr int HU_SERV_OK = 0;
constexpr int HU_SERV_NOT_FOUND = 1;
constexpr int HU_SERV_NO_MEMORY = 2;
constexpr int HU_SERV_FULL = 3;

// Sets up the lists, with the default server on the first default list, and the
// source address. Called again it discards what was configured.
void hu_serv_config_init();

void hu_serv_list_init(hu_serv_list* list);

// Puts a server at the front; host and uri are cut to their fields. -1 when
// memory is short.
[[nodiscard]] int hu_serv_list_add(hu_serv_list* list, const char* host, uint32_t port,
                                   const char* uri);
// First server equal in host, port and URI, or null.
[[nodiscard]] UpdateServer* hu_serv_list_find(const hu_serv_list* list, const char* host,
                                              uint32_t port, const char* uri);
// -1 when none is equal.
[[nodiscard]] int hu_serv_list_del(hu_serv_list* list, const char* host, uint32_t port,
                                   const char* uri);
void hu_serv_list_clear(hu_serv_list* list);
[[nodiscard]] bool hu_serv_list_empty(const hu_serv_list* list);

// A list that clears itself.
struct OwnedServerList : hu_serv_list {
    OwnedServerList() { hu_serv_list_init(this); }
    ~OwnedServerList() { hu_serv_list_clear(this); }
    OwnedServerList(const OwnedServerList&) = delete;
    OwnedServerList& operator=(const OwnedServerList&) = delete;
};

// For walks: first server, the one after it; null at the end.
[[nodiscard]] UpdateServer* hu_serv_list_first(const hu_serv_list* list);
[[nodiscard]] UpdateServer* hu_serv_list_next(const hu_serv_list* list, const UpdateServer* server);

// Makes copy a private copy of the selected lists, each in the order in which
// its servers were configured, the second list's before the first's. The caller
// clears it. -1 when memory is short; the copy is then empty.
[[nodiscard]] int hu_serv_list_copy(hu_serv_list* copy, unsigned selector);

// Configures or removes a server; port 0 and a null or empty uri mean the
// defaults. Add: HU_SERV_OK, HU_SERV_NO_MEMORY, HU_SERV_FULL, or -1 for an empty
// host. Remove: HU_SERV_OK or HU_SERV_NOT_FOUND; an empty host empties the list.
[[nodiscard]] int hu_serv_config_add(const char* host, uint32_t port, const char* uri, bool second);
[[nodiscard]] int hu_serv_config_del(const char* host, uint32_t port, const char* uri, bool second);

// Text of a configuration result.
[[nodiscard]] const char* hu_serv_errstr(int code);

// Calls reader with the first configured list, under its lock; reader may call
// this module.
void hu_serv_config_read_first(void (*reader)(const hu_serv_list& list, void* argument),
                               void* argument);

// Makes a mutex of the kind that its thread may lock again. -1 when any step
// fails.
[[nodiscard]] int hu_serv_mutex_init(pthread_mutex_t* mutex);
