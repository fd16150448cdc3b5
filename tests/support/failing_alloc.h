// Takes the place of the daemon's allocation wrappers, so that a test can run out
// of memory at a chosen call. Include it in one source file of a test program.
// Threads: any.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "buffer/memory.h"

// Allocations that still succeed.
static std::atomic<int> s_allocations_left{INT32_MAX};

class MemoryEndsAfter {
  public:
    explicit MemoryEndsAfter(int allocations) { s_allocations_left = allocations; }
    ~MemoryEndsAfter() { s_allocations_left = INT32_MAX; }
};

void* mem_zalloc(int32_t size) {
    if (s_allocations_left.fetch_sub(1) <= 0) size = -1;
    return calloc(1, static_cast<size_t>(size));  // fails with ENOMEM for a negative one
}

void mem_free(void* memory) { free(memory); }
