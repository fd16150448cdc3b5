// The daemon's allocation wrappers.
// Threads: any.
#pragma once

#include <cstdint>
#include <memory>

// size bytes (positive), zero-filled; null when memory is short.
[[nodiscard]] void* mem_zalloc(int32_t size);

// Releases what mem_zalloc gave. Null is ignored.
void mem_free(void* memory);

// Gives free heap back to the system, for the end of whatever held a reply's
// document: that can take tens of megabytes, which the heap would keep until it
// happens to shrink.
void mem_trim();

// Owns what mem_zalloc gave.
struct MemFree {
    void operator()(void* memory) const { mem_free(memory); }
};
template <typename T>
using MemPtr = std::unique_ptr<T, MemFree>;

// A zero-filled record; null when memory is short.
template <typename Record>
[[nodiscard]] MemPtr<Record> mem_make() {
    return MemPtr<Record>(static_cast<Record*>(mem_zalloc(static_cast<int32_t>(sizeof(Record)))));
}
