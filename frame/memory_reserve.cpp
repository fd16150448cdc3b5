// The reserve is given back by the new-handler, which operator new calls between two tries.
// Without a handler operator new throws; nobody catches here, so that ends in the terminate
// handler, except in new (std::nothrow), which turns it into a null pointer.
#include "frame/memory_reserve.h"

#include <cxxabi.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <typeinfo>

#include "frame/log.h"

// Many times what any single text or record of the daemon takes.
static constexpr size_t RESERVE_BYTES = 64 * 1024;

static std::atomic<void*> s_reserve{nullptr};

static void reserve_give_back() {
    (void)std::set_new_handler(nullptr);
    free(s_reserve.exchange(nullptr));
}

[[noreturn]] static void end_process() {
    const std::type_info* type = abi::__cxa_current_exception_type();
    const char* name = type == nullptr ? "no exception" : type->name();
    http_client_debug_dump_exit("%s: the process ends",
                                strcmp(name, "St9bad_alloc") == 0 ? "out of memory" : name);
}

void memory_reserve_init() {
    (void)std::set_terminate(end_process);
    memory_reserve_refill();
}

void memory_reserve_refill() {
    if (s_reserve.load(std::memory_order_relaxed) != nullptr) return;
    void* reserve = malloc(RESERVE_BYTES);
    if (reserve == nullptr) return;
    s_reserve.store(reserve);
    (void)std::set_new_handler(reserve_give_back);
}
