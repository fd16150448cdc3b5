// Event loops: order, one-shot tasks, cancelling, speed and the one call that
// other threads may make.
#include "frame/platform/tq_thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <string>
#include <thread>

#include "base/sync.h"
#include "base/unique_fd.h"

namespace {

struct Loop {
    explicit Loop(const char* speed = "1000") {
        setenv("TQ_THREAD_SPEED", speed, 1);
        master = tq_thread_master_create();
        unsetenv("TQ_THREAD_SPEED");
    }
    ~Loop() { tq_thread_master_finish(master); }

    // Runs up to count tasks; false when the loop had nothing left to wait for.
    bool Run(int count) {
        tq_thread record{};
        for (int i = 0; i < count; ++i) {
            if (tq_thread_fetch(master, &record) != &record) return false;
            tq_thread_call(&record);
        }
        return true;
    }
    tq_thread_master* master;
};

// The reading end of a pipe at its end: always readable.
UniqueFd readable() {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    (void)close(fds[1]);
    return UniqueFd(fds[0]);
}

// Tasks note their name here and do what their argument, a function, says.
std::string s_trace;
using Function = std::function<void()>;
int note(tq_thread* task) {
    s_trace += task->name;
    if (TQ_THREAD_ARG(task) != nullptr) (*static_cast<Function*>(TQ_THREAD_ARG(task)))();
    return 0;
}

TEST(TqThread, TimersRunByDueTimeAndEqualsInOrderOfAdding) {
    Loop loop;
    s_trace.clear();
    for (const auto& [seconds, name] : {std::pair(40L, "g"),
                                        {20, "c"},
                                        {0, "a"},
                                        {20, "d"},
                                        {20, "e"},
                                        {-5, "b"},
                                        {LONG_MAX, "never"},
                                        {20, "f"}}) {
        tq_thread_add_timer_withname(loop.master, note, nullptr, seconds, name);
    }
    usleep(50'000);  // all are due when the loop first looks, so none wins by being early
    EXPECT_TRUE(loop.Run(7));
    EXPECT_EQ(s_trace, "abcdefg");
}

TEST(TqThread, CancelWorksWhileWaitingWhenReadyAndFromACallback) {
    Loop loop;
    s_trace.clear();
    UniqueFd first = readable(), second = readable();
    tq_thread_cancel(nullptr);
    tq_thread_cancel(tq_thread_add_timer_withname(loop.master, note, nullptr, 0, "waiting"));
    // All become ready in one turn; the first takes the middle and the last away.
    tq_thread *read_task = nullptr, *last = nullptr;
    Function cancel_others = [&] {
        tq_thread_cancel(read_task);
        tq_thread_cancel(last);
        second.reset();
    };
    tq_thread_add_read_withname(loop.master, note, &cancel_others, first.get(), "c");
    read_task = tq_thread_add_read_withname(loop.master, note, nullptr, second.get(), "read");
    tq_thread_add_timer_withname(loop.master, note, nullptr, 0, "k");
    last = tq_thread_add_timer_withname(loop.master, note, nullptr, 0, "last");
    EXPECT_EQ(tq_thread_add_read_withname(loop.master, note, nullptr, 999, "bad"), nullptr);
    usleep(1000);
    // The first is readable still, but its task is spent.
    EXPECT_FALSE(loop.Run(3));
    EXPECT_EQ(s_trace, "ck");
}

TEST(TqThread, NumberOfAClosedDescriptorMayBecomeAnotherFile) {
    Loop loop;
    s_trace.clear();
    const UniqueFd first = readable(), second = readable();
    Function replace = [&] {
        EXPECT_EQ(dup2(second.get(), first.get()), first.get());
        tq_thread_add_read_withname(loop.master, note, nullptr, first.get(), "b");
    };
    tq_thread_add_read_withname(loop.master, note, &replace, first.get(), "a");
    tq_thread_add_timer_withname(loop.master, note, nullptr, 5000, "late");
    EXPECT_TRUE(loop.Run(2));
    EXPECT_EQ(s_trace, "ab");
}

TEST(TqThread, RemainingTimeIsToldInTheCallersSeconds) {
    for (const char* speed : {"1000", "0", "10x"}) {
        SCOPED_TRACE(speed);
        const Loop loop(speed);
        const bool fast = std::string_view(speed) == "1000";
        const tq_thread* timer = tq_thread_add_timer(loop.master, note, nullptr, 7200);
        usleep(4000);
        EXPECT_EQ(tq_thread_timer_remain_second(timer) <= 7196, fast);
    }
}

// The resume report's use: the handle is set, cleared and asked under one lock,
// and the timer fires all the time. ThreadSanitizer and AddressSanitizer judge.
Mutex s_handle_lock;
tq_thread* s_handle GUARDED_BY(s_handle_lock);
int s_rounds GUARDED_BY(s_handle_lock);

int rearm(tq_thread* task) {
    const MutexLock lock(s_handle_lock);
    s_handle = nullptr;
    if (++s_rounds < 300) s_handle = tq_thread_add_timer(task->master, rearm, nullptr, 1);
    return 0;
}

TEST(TqThread, AnotherThreadMayAskForTheRemainingTime) {
    std::thread runner([] {
        Loop loop("10000");
        tq_thread_add_timer(loop.master, rearm, nullptr, 1);
        EXPECT_FALSE(loop.Run(1000));
    });
    for (bool done = false; !done;) {
        const MutexLock lock(s_handle_lock);
        EXPECT_TRUE(s_handle == nullptr || tq_thread_timer_remain_second(s_handle) <= 1);
        done = s_rounds == 300;
    }
    runner.join();
}

}  // namespace
