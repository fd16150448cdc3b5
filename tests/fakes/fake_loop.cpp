// Event loops in virtual time.
#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "tests/fakes/fake_state.h"
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

static std::vector<tq_thread_master*> s_loops GUARDED_BY(fake_lock);
static bool s_fail_timers GUARDED_BY(fake_lock) = false;
static bool s_fail_reads GUARDED_BY(fake_lock) = false;

void ResetLoops() {
    s_fail_timers = false;
    s_fail_reads = false;
}

static tq_thread* AddTask(tq_thread_master* loop, const tq_thread& record, long seconds) {
    MutexLock guard(fake_lock);
    const bool fail = record.fd < 0 ? s_fail_timers : s_fail_reads;
    if (fail || loop == nullptr) return nullptr;
    auto task = std::make_unique<FakeTask>();
    static_cast<tq_thread&>(*task) = record;
    task->due = loop->now + seconds;
    loop->pending.push_back(std::move(task));
    return loop->pending.back().get();
}

[[noreturn]] static void NotPending(const char* call) {
    (void)fprintf(stderr, "%s: the handle is not pending\n", call);
    abort();
}

// Takes the task off its loop and makes it the running one.
static bool StartLocked(tq_thread_master* loop, const FakeTask* task, tq_thread* record)
    REQUIRES(fake_lock) {
    const auto found = std::find_if(loop->pending.begin(), loop->pending.end(),
                                    [&](const auto& entry) { return entry.get() == task; });
    if (found == loop->pending.end()) return false;
    *record = **found;
    loop->running = std::move(*found);
    loop->pending.erase(found);
    return true;
}

static bool StartTimer(tq_thread_master* loop, long until, tq_thread* record) {
    MutexLock guard(fake_lock);
    const FakeTask* first = nullptr;
    for (const auto& task : loop->pending) {
        if (task->fd >= 0 || task->due > until) continue;
        if (first == nullptr || task->due < first->due) first = task.get();
    }
    if (first == nullptr) return false;
    loop->now = std::max(loop->now, first->due);
    return StartLocked(loop, first, record);
}

static void Run(tq_thread_master* loop, tq_thread* record) {
    (void)record->func(record);
    MutexLock guard(fake_lock);
    loop->running.reset();
}

static std::vector<const FakeTask*> ReadableTasks(tq_thread_master* loop, int timeout_ms) {
    std::vector<const FakeTask*> tasks;
    std::vector<pollfd> polled;
    {
        MutexLock guard(fake_lock);
        for (const auto& task : loop->pending) {
            if (task->fd < 0) continue;
            tasks.push_back(task.get());
            polled.push_back({task->fd, POLLIN, 0});
        }
    }
    (void)poll(polled.data(), polled.size(), timeout_ms);
    std::vector<const FakeTask*> readable;
    for (size_t i = 0; i < tasks.size(); i++) {
        if (polled[i].revents != 0) readable.push_back(tasks[i]);
    }
    return readable;
}

void Advance(tq_thread_master* loop, long seconds) {
    const long until = loop->now + seconds;
    tq_thread record{};
    while (StartTimer(loop, until, &record)) Run(loop, &record);
    MutexLock guard(fake_lock);
    loop->now = until;
}

int RunReadable(tq_thread_master* loop, int timeout_ms) {
    int count = 0;
    for (const FakeTask* task : ReadableTasks(loop, timeout_ms)) {
        tq_thread record{};
        {
            MutexLock guard(fake_lock);
            if (!StartLocked(loop, task, &record)) continue;  // an earlier one cancelled it
        }
        Run(loop, &record);
        count++;
    }
    return count;
}

std::vector<std::pair<long, std::string>> Timers(tq_thread_master* loop) {
    MutexLock guard(fake_lock);
    std::vector<std::pair<long, std::string>> timers;
    for (const auto& task : loop->pending) {
        if (task->fd < 0) timers.emplace_back(task->due - loop->now, task->name);
    }
    return timers;
}

void FailTimers(bool fail) {
    MutexLock guard(fake_lock);
    s_fail_timers = fail;
}

void FailReads(bool fail) {
    MutexLock guard(fake_lock);
    s_fail_reads = fail;
}

}  // namespace fakes

using namespace fakes;

extern "C" {

tq_thread_master* tq_thread_master_create() {
    MutexLock guard(fake_lock);
    return s_loops.emplace_back(new tq_thread_master);
}

void tq_thread_master_finish(tq_thread_master* master) {
    MutexLock guard(fake_lock);
    std::erase(s_loops, master);
    delete master;
}

tq_thread* tq_thread_add_read_withname(tq_thread_master* master, tq_thread_func func, void* arg,
                                       int fd, const char* name) {
    return AddTask(master, {master, func, arg, fd, name}, 0);
}

tq_thread* tq_thread_add_timer(tq_thread_master* master, tq_thread_func func, void* arg,
                               long seconds) {
    return tq_thread_add_timer_withname(master, func, arg, seconds, "");
}

tq_thread* tq_thread_add_timer_withname(tq_thread_master* master, tq_thread_func func, void* arg,
                                        long seconds, const char* name) {
    return AddTask(master, {master, func, arg, -1, name}, seconds);
}

tq_thread* tq_thread_fetch(tq_thread_master* master, tq_thread* task) {
    if (StartTimer(master, master->now, task)) return task;
    const auto readable = ReadableTasks(master, 0);
    MutexLock guard(fake_lock);
    return !readable.empty() && StartLocked(master, readable.front(), task) ? task : nullptr;
}

void tq_thread_call(tq_thread* task) { Run(task->master, task); }

void tq_thread_cancel(tq_thread* task) {
    if (task == nullptr) return;
    MutexLock guard(fake_lock);
    for (tq_thread_master* loop : s_loops) {
        if (std::erase_if(loop->pending, [&](const auto& entry) { return entry.get() == task; }) >
            0)
            return;
    }
    NotPending("tq_thread_cancel");
}

unsigned long tq_thread_timer_remain_second(const tq_thread* timer) {
    MutexLock guard(fake_lock);
    for (const tq_thread_master* loop : s_loops) {
        if (loop->running.get() == timer) return 0;
        for (const auto& task : loop->pending) {
            if (task.get() == timer) return static_cast<unsigned long>(task->due - loop->now);
        }
    }
    NotPending("tq_thread_timer_remain_second");
}
}
