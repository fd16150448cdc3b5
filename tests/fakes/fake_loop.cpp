// Event loops in virtual time.
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "frame/sync.h"
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

static Mutex s_lock;  // leaf: no callback runs under it
static std::vector<tq_thread_master*> s_loops GUARDED_BY(s_lock);
static std::atomic<bool> s_fail_timers;

void FailTimers(bool fail) { s_fail_timers = fail; }

static tq_thread* AddTask(const tq_thread& record, long seconds) {
    MutexLock guard(s_lock);
    tq_thread_master* loop = record.master;
    if (loop == nullptr || (record.fd < 0 && s_fail_timers)) return nullptr;
    loop->pending.push_back(std::make_unique<FakeTask>(FakeTask{record, loop->now + seconds}));
    return loop->pending.back().get();
}

// Takes the task off its loop and makes it the running one.
static bool StartLocked(tq_thread_master* loop, const FakeTask* task, tq_thread* record)
    REQUIRES(s_lock) {
    const auto found = std::find_if(loop->pending.begin(), loop->pending.end(),
                                    [&](const auto& entry) { return entry.get() == task; });
    if (found == loop->pending.end()) return false;
    *record = **found;
    loop->running = std::move(*found);
    loop->pending.erase(found);
    return true;
}

static bool StartTimer(tq_thread_master* loop, long until, tq_thread* record) {
    MutexLock guard(s_lock);
    const FakeTask* first = nullptr;
    for (const auto& task : loop->pending) {
        if (task->fd >= 0 || task->due > until) continue;
        if (first == nullptr || task->due < first->due) first = task.get();
    }
    if (first == nullptr) return false;
    loop->now = std::max(loop->now, first->due);
    return StartLocked(loop, first, record);
}

static std::vector<const FakeTask*> ReadableTasks(tq_thread_master* loop, int timeout_ms) {
    std::vector<const FakeTask*> tasks;
    std::vector<pollfd> polled;
    {
        MutexLock guard(s_lock);
        for (const auto& task : loop->pending) {
            if (task->fd < 0) continue;
            tasks.push_back(task.get());
            polled.push_back({task->fd, POLLIN, 0});
        }
    }
    (void)poll(polled.data(), polled.size(), timeout_ms);
    std::vector<const FakeTask*> readable;
    for (size_t i = 0; i < tasks.size(); i++)
        if (polled[i].revents != 0) readable.push_back(tasks[i]);
    return readable;
}

void Advance(tq_thread_master* loop, long seconds) {
    const long until = loop->now + seconds;
    tq_thread record{};
    while (StartTimer(loop, until, &record)) tq_thread_call(&record);
    MutexLock guard(s_lock);
    loop->now = until;
}

int RunReadable(tq_thread_master* loop, int timeout_ms) {
    int count = 0;
    for (const FakeTask* task : ReadableTasks(loop, timeout_ms)) {
        tq_thread record{};
        {
            MutexLock guard(s_lock);
            if (!StartLocked(loop, task, &record)) continue;  // an earlier one cancelled it
        }
        tq_thread_call(&record);
        count++;
    }
    return count;
}

std::vector<long> Timers(tq_thread_master* loop) {
    MutexLock guard(s_lock);
    std::vector<long> timers;
    for (const auto& task : loop->pending)
        if (task->fd < 0) timers.push_back(task->due - loop->now);
    return timers;
}

}  // namespace fakes

using namespace fakes;

[[noreturn]] static void NotPending(const char* call) {
    (void)fprintf(stderr, "%s: the handle is not pending\n", call);
    abort();
}

extern "C" {

tq_thread_master* tq_thread_master_create() {
    MutexLock guard(s_lock);
    return s_loops.emplace_back(new tq_thread_master);
}

void tq_thread_master_finish(tq_thread_master* master) {
    MutexLock guard(s_lock);
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

tq_thread* tq_thread_fetch(tq_thread_master* master, tq_thread* task) {
    if (StartTimer(master, master->now, task)) return task;
    const auto readable = ReadableTasks(master, 0);
    MutexLock guard(s_lock);
    return !readable.empty() && StartLocked(master, readable.front(), task) ? task : nullptr;
}

void tq_thread_call(tq_thread* task) {
    (void)task->func(task);
    MutexLock guard(s_lock);
    task->master->running.reset();
}

void tq_thread_cancel(tq_thread* task) {
    if (task == nullptr) return;
    MutexLock guard(s_lock);
    for (tq_thread_master* loop : s_loops)
        if (std::erase_if(loop->pending, [&](const auto& entry) { return entry.get() == task; }))
            return;
    NotPending("tq_thread_cancel");
}

unsigned long tq_thread_timer_remain_second(const tq_thread* timer) {
    MutexLock guard(s_lock);
    for (const tq_thread_master* loop : s_loops) {
        if (loop->running.get() == timer) return 0;
        for (const auto& task : loop->pending)
            if (task.get() == timer) return static_cast<unsigned long>(task->due - loop->now);
    }
    NotPending("tq_thread_timer_remain_second");
}
}
