// An attempt to get something from a server: whether its operator still wants it, and
// what it failed of. It goes down through the calls of an exchange, which ask the one
// and fill in the other.
// Threads: the attempt's own.
#pragma once

#include "http/cancel.h"
#include "http/cause.h"

struct Attempt {
    Cancel cancel{};  // nobody can cancel, unless it is given an ask
    Cause cause{};    // reason None as long as nothing has failed
};

// The parts of an attempt that nobody may have an interest in.
[[nodiscard]] inline Cancel* cancel_of(Attempt* attempt) {
    return attempt == nullptr || !attempt->cancel.possible() ? nullptr : &attempt->cancel;
}
[[nodiscard]] inline Cause* cause_of(Attempt* attempt) {
    return attempt == nullptr ? nullptr : &attempt->cause;
}
