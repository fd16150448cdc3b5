// A look-up may take seconds and can't be interrupted. It runs on a thread of its
// own, detached; whichever of the two sides comes last releases the record.

#include "host/http_util/resolve.h"

#include <arpa/inet.h>
#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <time.h>

#include <memory>
#include <new>

#include "base/sync.h"
#include "base/text.h"
#include "frame/platform/dnsclient.h"
#include "host/http_util/engine.h"

namespace {

constexpr long TICK_NS = 200 * 1000000L;

struct Lookup {
    DnsRequest request{};  // the look-up's own until done
    int result = -1;
    Mutex lock;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    bool done GUARDED_BY(lock) = false;
    bool abandoned GUARDED_BY(lock) = false;
};

void* lookup_run(void* argument) {
    std::unique_ptr<Lookup> lookup(static_cast<Lookup*>(argument));
    const int result = dns_domain_to_ip(&lookup->request);
    {
        const MutexLock guard(lookup->lock);
        lookup->result = result;
        lookup->done = true;
        (void)pthread_cond_signal(&lookup->changed);
        if (!lookup->abandoned) (void)lookup.release();
    }
    return nullptr;
}

// False when the caller wants to stop; the thread then owns the record.
bool lookup_wait(Lookup* lookup, Progress* progress) {
    for (;;) {
        {
            const MutexLock guard(lookup->lock);
            timespec until{};
            (void)clock_gettime(CLOCK_MONOTONIC, &until);
            until.tv_nsec += TICK_NS;
            if (until.tv_nsec >= 1000000000L) {
                until.tv_nsec -= 1000000000L;
                ++until.tv_sec;
            }
            int error = 0;
            while (!lookup->done && error == 0) {
                error = pthread_cond_clockwait(&lookup->changed, lookup->lock.Native(),
                                               CLOCK_MONOTONIC, &until);
            }
            if (lookup->done) return true;
        }
        if (progress->Tick()) continue;
        const MutexLock guard(lookup->lock);
        if (lookup->done) return true;
        lookup->abandoned = true;
        return false;
    }
}

}  // namespace

int host_resolve(const char* host, uint32_t source, Progress* progress, uint32_t* address) {
    in_addr literal{};
    if (inet_pton(AF_INET, host, &literal) == 1) {
        *address = literal.s_addr;
        return 0;
    }
    if (dns_client_agent_init() != 0 || !hostname_verify(host)) return DOWNLOAD_NO_ADDRESS;
    std::unique_ptr<Lookup> lookup(new (std::nothrow) Lookup);
    if (!lookup) return HTTP_DOWNLOAD_NO_MEMORY;
    DnsRequest& request = lookup->request;
    if (!text_copy(request.name, host)) return DOWNLOAD_NO_ADDRESS;
    request.constant_260 = 1;
    request.constant_408 = 2;
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = source;
    memcpy(request.source, &from, sizeof from);

    pthread_t thread{};
    if (pthread_create(&thread, nullptr, lookup_run, lookup.get()) != 0) {
        return HTTP_DOWNLOAD_NO_MEMORY;
    }
    (void)pthread_detach(thread);
    if (!lookup_wait(lookup.get(), progress)) {
        (void)lookup.release();
        return HTTP_DOWNLOAD_CANCELLED;
    }
    if (progress->cancelled()) return HTTP_DOWNLOAD_CANCELLED;
    if (lookup->result < 0 || request.result != DNS_RESULT_RESOLVED || request.family != AF_INET) {
        return DOWNLOAD_NO_ADDRESS;
    }
    *address = request.address;
    return 0;
}
