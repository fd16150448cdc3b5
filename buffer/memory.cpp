#include "buffer/memory.h"

#include <cstdlib>

void* mem_zalloc(int32_t size) { return size < 0 ? nullptr : calloc(1, static_cast<size_t>(size)); }

void mem_free(void* memory) { free(memory); }
