// The daemon's allocation wrappers.
// Threads: any.
#pragma once

#include <cstdint>

// size bytes (positive), zero-filled; null when memory is short.
[[nodiscard]] void* mem_zalloc(int32_t size);

// Releases what mem_zalloc gave. Null is ignored.
void mem_free(void* memory);

// Gives free heap back to the system, for the end of whatever held a reply's
// document: that can take tens of megabytes, which the heap would keep until it
// happens to shrink.
void mem_trim();

// For std::unique_ptr.
struct MemFree {
    void operator()(void* memory) const { mem_free(memory); }
};
