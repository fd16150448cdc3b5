// Event loops in virtual time.
#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/sync.h"
#include "tests/fakes/fakes.h"

struct FakeTask : tq_thread {
    long due;  // virtual seconds; timers only
};

struct tq_thread_master {
    long now = 0;
    std::vector<std::unique_ptr<FakeTask>> pending;
    std::unique_ptr<FakeTask> running;  // stays readable until its callback has returned
};

namespace fakes {

static Mutex s_loops_lock;  // leaf: no callback runs under it
static std::vector<tq_thread_master*> s_loops GUARDED_BY(s_loops_lock);

static tq_thread* AddTask(const tq_thread& record, long seconds) {
    MutexLock guard(s_loops_lock);
    tq_thread_master* loop = record.master;
    if (loop == nullptr) return nullptr;
    loop->pending.push_back(std::make_unique<FakeTask>(FakeTask{record, loop->now + seconds}));
    return loop->pending.back().get();
}

// False: another one has cancelled the task meanwhile.
static bool Run(tq_thread_master* loop, const FakeTask* task) {
    tq_thread record{};
    {
        MutexLock guard(s_loops_lock);
        const auto found = std::find_if(loop->pending.begin(), loop->pending.end(),
                                        [&](const auto& entry) { return entry.get() == task; });
        if (found == loop->pending.end()) return false;
        record = **found;
        loop->running = std::move(*found);
        loop->pending.erase(found);
    }
    tq_thread_call(&record);
    MutexLock guard(s_loops_lock);
    loop->running.reset();
    return true;
}

// The next timer that is due until then; null: none. Time goes on to it.
static const FakeTask* NextTimer(tq_thread_master* loop, long until) {
    MutexLock guard(s_loops_lock);
    const FakeTask* first = nullptr;
    for (const auto& task : loop->pending) {
        if (task->fd >= 0 || task->due > until) continue;
        if (first == nullptr || task->due < first->due) first = task.get();
    }
    loop->now = first != nullptr ? std::max(loop->now, first->due) : until;
    return first;
}

void Advance(tq_thread_master* loop, long seconds) {
    const long until = loop->now + seconds;
    while (const FakeTask* timer = NextTimer(loop, until)) (void)Run(loop, timer);
}

int RunReadable(tq_thread_master* loop) {
    std::vector<const FakeTask*> tasks;
    std::vector<pollfd> polled;
    {
        MutexLock guard(s_loops_lock);
        for (const auto& task : loop->pending) {
            if (task->fd < 0) continue;
            tasks.push_back(task.get());
            polled.push_back({task->fd, POLLIN, 0});
        }
    }
    (void)poll(polled.data(), polled.size(), 0);
    int count = 0;
    for (size_t i = 0; i < tasks.size(); ++i)
        if (polled[i].revents != 0 && Run(loop, tasks[i])) count++;
    return count;
}

size_t Timers(tq_thread_master* loop) {
    MutexLock guard(s_loops_lock);
    return static_cast<size_t>(std::count_if(loop->pending.begin(), loop->pending.end(),
                                             [](const auto& task) { return task->fd < 0; }));
}

}  // namespace fakes

using namespace fakes;

[[noreturn]] static void NotPending(const char* call) {
    (void)fprintf(stderr, "%s: the handle is not pending\n", call);
    abort();
}

extern "C" {

tq_thread_master* tq_thread_master_create() {
    MutexLock guard(s_loops_lock);
    return s_loops.emplace_back(new tq_thread_master);
}

void tq_thread_master_finish(tq_thread_master* master) {
    MutexLock guard(s_loops_lock);
    std::erase(s_loops, master);
    delete master;
}

tq_thread* tq_thread_add_read_withname(tq_thread_master* master, tq_thread_func func, void* arg,
                                       int fd, const char* name) {
    return AddTask({master, func, arg, fd, name}, 0);
}

tq_thread* tq_thread_add_timer(tq_thread_master* master, tq_thread_func func, void* arg,
                               long seconds) {
    return AddTask({master, func, arg, -1, ""}, seconds);
}

tq_thread* tq_thread_add_timer_withname(tq_thread_master* master, tq_thread_func func, void* arg,
                                        long seconds, const char* name) {
    return AddTask({master, func, arg, -1, name}, seconds);
}

tq_thread* tq_thread_fetch(tq_thread_master*, tq_thread*) { return nullptr; }

void tq_thread_call(tq_thread* task) { (void)task->func(task); }

void tq_thread_cancel(tq_thread* task) {
    if (task == nullptr) return;
    MutexLock guard(s_loops_lock);
    for (tq_thread_master* loop : s_loops)
        if (std::erase_if(loop->pending, [&](const auto& entry) { return entry.get() == task; }))
            return;
    NotPending("tq_thread_cancel");
}

unsigned long tq_thread_timer_remain_second(const tq_thread* timer) {
    MutexLock guard(s_loops_lock);
    for (const tq_thread_master* loop : s_loops) {
        if (loop->running.get() == timer) return 0;
        for (const auto& task : loop->pending)
            if (task.get() == timer) return static_cast<unsigned long>(task->due - loop->now);
    }
    NotPending("tq_thread_timer_remain_second");
}
}
