// The C library's heap behind calls that zero and refuse negative sizes: sizes are
// computed from counts that servers send.
#include "buffer/memory.h"

#include <malloc.h>

#include <cstdlib>

void* mem_zalloc(int32_t size) { return size < 0 ? nullptr : calloc(1, static_cast<size_t>(size)); }

void mem_free(void* memory) { free(memory); }

void mem_trim() {
    (void)malloc_trim(0);  // says only whether there was anything to give back
}
