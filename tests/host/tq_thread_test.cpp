// Event loops: order, one-shot tasks, cancelling, speed and the one call that
// other threads may make.
#include "host/tq_thread/tq_thread_host.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <string>
#include <thread>

#include "frame/sync.h"
#include "frame/unique_fd.h"

namespace {

struct Loop {
    explicit Loop(const char* speed = "1000") {
        setenv("TQ_THREAD_SPEED", speed, 1);
        master = tq_thread_master_create();
        unsetenv("TQ_THREAD_SPEED");
    }
    ~Loop() { tq_thread_master_finish(master); }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

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

struct SocketPair {
    SocketPair() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
        a.reset(fds[0]);
        b.reset(fds[1]);
    }
    UniqueFd a, b;
};

// Tasks note their name here, or do what their argument says.
std::string s_trace;
int note(tq_thread* task) {
    s_trace += task->name;
    return 0;
}
int run_function(tq_thread* task) {
    (*static_cast<std::function<void(tq_thread*)>*>(TQ_THREAD_ARG(task)))(task);
    return 0;
}

class TqThread : public testing::Test {
    void SetUp() override { s_trace.clear(); }
};

TEST_F(TqThread, TimersRunByDueTimeAndEqualsInOrderOfAdding) {
    Loop loop;
    const struct {
        long seconds;
        const char* name;
    } rows[] = {{40, "e"}, {20, "c"}, {0, "a"}, {20, "d"}, {-5, "b"}, {LONG_MAX, "never"}};
    for (const auto& row : rows) {
        ASSERT_NE(tq_thread_add_timer_withname(loop.master, note, nullptr, row.seconds, row.name),
                  nullptr);
    }
    // Many at once, within the clock's grain of each other.
    constexpr const char* LETTERS = "0123456789";
    std::string expected;
    for (int i = 0; i < 500; ++i) {
        const char* name = LETTERS + i % 10;
        tq_thread_add_timer_withname(loop.master, note, nullptr, 50, name);
        expected += name;
    }
    usleep(60'000);  // all are due when the loop first looks, so none wins by being early
    EXPECT_TRUE(loop.Run(505));
    EXPECT_EQ(s_trace, "abcde" + expected);
}

TEST_F(TqThread, ReadTaskFiresOnceAndKnowsItsLoop) {
    Loop loop;
    SocketPair pair;
    ASSERT_EQ(write(pair.b.get(), "x", 1), 1);
    int argument = 0;
    ASSERT_NE(tq_thread_add_read_withname(loop.master, note, &argument, pair.a.get(), "r"),
              nullptr);
    tq_thread record{};
    ASSERT_EQ(tq_thread_fetch(loop.master, &record), &record);
    EXPECT_EQ(record.master, loop.master);
    EXPECT_EQ(TQ_THREAD_ARG(&record), &argument);
    EXPECT_EQ(record.fd, pair.a.get());
    // Still readable, but the task is spent: without tasks the loop can't go on.
    EXPECT_EQ(tq_thread_fetch(loop.master, &record), nullptr);
    pair.b.reset();
    ASSERT_NE(tq_thread_add_read_withname(loop.master, note, nullptr, pair.a.get(), nullptr),
              nullptr);
    ASSERT_NE(tq_thread_fetch(loop.master, &record), nullptr) << "an end of stream is readable";
    EXPECT_STREQ(record.name, "");
    EXPECT_EQ(tq_thread_add_read_withname(loop.master, note, nullptr, -1, "bad"), nullptr);
    EXPECT_EQ(tq_thread_add_read_withname(loop.master, note, nullptr, 999, "bad"), nullptr);
}

TEST_F(TqThread, WriteTaskWaitsForRoomBesideReadTask) {
    Loop loop;
    SocketPair pair;
    const std::string block(65536, 'x');
    while (write(pair.a.get(), block.data(), block.size()) > 0) {
    }
    ASSERT_NE(tq_thread_add_write_withname(loop.master, note, nullptr, pair.a.get(), "w"), nullptr);
    ASSERT_NE(tq_thread_add_read_withname(loop.master, note, nullptr, pair.a.get(), "r"), nullptr);
    std::function<void(tq_thread*)> drain = [&](tq_thread*) {
        s_trace += "d";
        std::string sink(block.size(), 0);
        while (read(pair.b.get(), sink.data(), sink.size()) > 0) {
        }
    };
    tq_thread_add_timer(loop.master, run_function, &drain, 10);
    ASSERT_TRUE(loop.Run(2));
    ASSERT_EQ(write(pair.b.get(), "x", 1), 1);
    ASSERT_TRUE(loop.Run(1));
    EXPECT_EQ(s_trace, "dwr");
}

TEST_F(TqThread, BusyDescriptorAndDueTimersShareTheLoop) {
    Loop loop;
    SocketPair pair;
    ASSERT_EQ(write(pair.b.get(), "x", 1), 1);
    int reads = 0, timers = 0;
    std::function<void(tq_thread*)> read_again = [&](tq_thread* task) {
        ++reads;
        tq_thread_add_read_withname(task->master, run_function, task->arg, task->fd, "r");
    };
    std::function<void(tq_thread*)> timer_again = [&](tq_thread* task) {
        ++timers;
        tq_thread_add_timer(task->master, run_function, task->arg, 0);
    };
    tq_thread_add_read_withname(loop.master, run_function, &read_again, pair.a.get(), "r");
    tq_thread_add_timer(loop.master, run_function, &timer_again, 0);
    ASSERT_TRUE(loop.Run(200));
    EXPECT_GT(reads, 50);
    EXPECT_GT(timers, 50);
}

TEST_F(TqThread, CancelWorksWhileWaitingWhenReadyAndFromACallback) {
    Loop loop;
    SocketPair pair;
    ASSERT_EQ(write(pair.b.get(), "x", 1), 1);
    tq_thread_cancel(nullptr);
    tq_thread_cancel(tq_thread_add_timer_withname(loop.master, note, nullptr, 0, "waiting"));
    // All become ready in one turn; the first takes the middle and the last away.
    tq_thread *read_task = nullptr, *last = nullptr;
    std::function<void(tq_thread*)> cancel_others = [&](tq_thread*) {
        s_trace += "c";
        tq_thread_cancel(read_task);
        tq_thread_cancel(last);
        pair.a.reset();
    };
    SocketPair first;
    ASSERT_EQ(write(first.b.get(), "x", 1), 1);
    tq_thread_add_read_withname(loop.master, run_function, &cancel_others, first.a.get(), "c");
    read_task = tq_thread_add_read_withname(loop.master, note, nullptr, pair.a.get(), "read");
    tq_thread_add_timer_withname(loop.master, note, nullptr, 0, "k");
    last = tq_thread_add_timer_withname(loop.master, note, nullptr, 0, "last");
    usleep(1000);
    EXPECT_FALSE(loop.Run(3));
    EXPECT_EQ(s_trace, "ck");
    // The number of the closed descriptor comes back for another socket.
    SocketPair again;
    ASSERT_EQ(write(again.b.get(), "x", 1), 1);
    ASSERT_NE(tq_thread_add_read_withname(loop.master, note, nullptr, again.a.get(), "n"), nullptr);
    EXPECT_TRUE(loop.Run(1));
    EXPECT_EQ(s_trace, "ckn");
}

TEST_F(TqThread, RemainingTimeIsToldInTheCallersSeconds) {
    const struct {
        const char* speed;
        unsigned long least, most;
        const char* name;
    } rows[] = {{"1000", 1, 7200, "fast"},
                {"", 7199, 7200, "empty"},
                {"0", 7199, 7200, "zero"},
                {"-3", 7199, 7200, "negative"},
                {"10x", 7199, 7200, "not a number"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Loop loop(row.speed);
        const tq_thread* timer = tq_thread_add_timer(loop.master, note, nullptr, 7200);
        usleep(2000);
        const unsigned long remain = tq_thread_timer_remain_second(timer);
        EXPECT_GE(remain, row.least);
        EXPECT_LE(remain, row.most);
        EXPECT_TRUE(row.least > 1 || remain <= 7198) << "2 ms are 2 of the caller's seconds";
    }
    const Loop loop("1000");
    const tq_thread* timer = tq_thread_add_timer(loop.master, note, nullptr, 2);
    usleep(4000);
    EXPECT_EQ(tq_thread_timer_remain_second(timer), 0U);
}

long sleeps_of_thread() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

TEST_F(TqThread, WaitingSleepsAndLongTimersShareWakeUps) {
    Loop loop("300");
    int shared = 0;
    for (int round = 0; round < 5; ++round) {
        tq_thread_add_timer(loop.master, note, nullptr, 30);
        usleep(200);
        tq_thread_add_timer(loop.master, note, nullptr, 30);
        const long before = sleeps_of_thread();
        ASSERT_TRUE(loop.Run(1));
        const long first = sleeps_of_thread();
        ASSERT_TRUE(loop.Run(1));
        EXPECT_LE(first - before, 3);
        if (sleeps_of_thread() == first) ++shared;
    }
    EXPECT_GT(shared, 0);
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

TEST_F(TqThread, AnotherThreadMayAskForTheRemainingTime) {
    std::thread runner([] {
        Loop loop("10000");
        {
            const MutexLock lock(s_handle_lock);
            s_handle = tq_thread_add_timer(loop.master, rearm, nullptr, 1);
        }
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
