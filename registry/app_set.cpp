// A set is a plain record of fixed size, far beyond the table's, so that threads copy it
// whole; walks over all its words are the price.
#include "registry/app_set.h"

bool app_set_is_empty(const AppSet& set) {
    for (const uint64_t word : set.words) {
        if (word != 0) return false;
    }
    return true;
}

void app_set_and(const AppSet* first, const AppSet* second, AppSet* result) {
    if (first == nullptr || second == nullptr || result == nullptr) return;
    for (size_t i = 0; i < APP_SET_WORDS; ++i) {
        result->words[i] = first->words[i] & second->words[i];
    }
}
