// A task is owed to the loop of the thread that could not add it, so each thread keeps its
// own few and nothing is locked.
#include "frame/loop.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/clock.h"
#include "frame/log.h"

static constexpr useconds_t PAUSE_US = 100'000;
static constexpr int TRIES_MAX = 50;
static constexpr size_t OWED_MAX = 8;  // more than there are such tasks

// A loop is heard of once a minute, and in a run at every wait. The longest of those that a
// run makes are a name look-up (5 s), a wait for a server (5 s), the sync of some megabytes
// on a bad day of a flash memory and the parsing of a large reply: all under a minute.
static constexpr int64_t SILENCE_MAX_S = 600;

namespace {
struct Owed {
    LoopArm arm;
    void* argument;
};
}  // namespace

static thread_local Owed t_owed[OWED_MAX];
static thread_local size_t t_owed_count = 0;

// When each was last heard of, monotonic; zero: there is none.
static std::atomic<int64_t> s_loop_turned_s{0};
static std::atomic<int64_t> s_run_turned_s{0};

// Which of them the thread tells of, or null.
static thread_local std::atomic<int64_t>* t_turned_s = nullptr;

bool loop_run(tq_thread_master* master) {
    bool has_run = false;
    tq_thread task{};
    loop_settle();
    while (tq_thread_fetch(master, &task) != nullptr) {
        has_run = true;
        loop_turned();
        tq_thread_call(&task);
        loop_settle();
    }
    return has_run;
}

void loop_owe(LoopArm arm, void* argument) {
    Owed* end = t_owed + t_owed_count;
    const bool known = std::any_of(t_owed, end, [&](const Owed& owed) {
        return owed.arm == arm && owed.argument == argument;
    });
    if (known || t_owed_count == OWED_MAX) return;
    *end = {arm, argument};
    ++t_owed_count;
}

void loop_settle() {
    for (int tries = 0; t_owed_count > 0; ++tries) {
        if (tries == TRIES_MAX) {
            http_client_debug_dump_exit("[%s %d]<-->no task can be added: the process ends",
                                        __func__, __LINE__);
        }
        if (tries > 0) (void)usleep(PAUSE_US);  // a shorter pause is fine, too
        const Owed* end = std::remove_if(t_owed, t_owed + t_owed_count,
                                         [](const Owed& owed) { return owed.arm(owed.argument); });
        t_owed_count = static_cast<size_t>(end - t_owed);
    }
}

void loop_watch() {
    t_turned_s = &s_loop_turned_s;
    loop_turned();
}

LoopRunWatch::LoopRunWatch() : own_loop_(t_turned_s != nullptr) {
    if (!own_loop_) t_turned_s = &s_run_turned_s;
    loop_turned();
}

LoopRunWatch::~LoopRunWatch() {
    if (own_loop_) return;
    t_turned_s = nullptr;
    s_run_turned_s.store(0, std::memory_order_relaxed);
}

void loop_turned() {
    if (t_turned_s != nullptr) t_turned_s->store(monotonic_s(), std::memory_order_relaxed);
}

static bool is_recent(const std::atomic<int64_t>& stamp_s) {
    const int64_t turned_s = stamp_s.load(std::memory_order_relaxed);
    return turned_s == 0 || monotonic_s() - turned_s <= SILENCE_MAX_S;
}

bool loop_turns() { return is_recent(s_loop_turned_s) && is_recent(s_run_turned_s); }
