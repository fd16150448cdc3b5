// What the fakes share: the lock of all recorders, and the reset of each part.
#pragma once

#include <cstdarg>
#include <string>
#include <utility>

#include "frame/sync.h"

namespace fakes {

extern Mutex fake_lock;  // leaf: no callback and no script runs under it

void ResetLoops() REQUIRES(fake_lock);
void ResetTerminal() REQUIRES(fake_lock);
void ResetNetwork() REQUIRES(fake_lock);
void ResetSystem() REQUIRES(fake_lock);

// Appends formatted text of any length.
[[gnu::format(printf, 2, 0)]] void Append(std::string* text, const char* format, va_list args);

template <typename T>
T Take(T* recorded) REQUIRES(fake_lock) {
    return std::exchange(*recorded, T{});
}

}  // namespace fakes
