// Event-loop library (libtq-thread.so): loops that run one-shot tasks.
//
// A thread creates a loop, adds tasks and then fetches and calls ready tasks
// for ever. Every task is one-shot: a callback that wants to go on adds a new
// one. A task's handle is valid from its add until its callback has started or
// it was cancelled.
// Threads: a loop belongs to the thread that created it; every call on it or on
// its tasks comes from that thread, before or while it runs the loop. The one
// exception is tq_thread_timer_remain_second, which any thread may call on a
// handle that it knows to be valid.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

struct tq_thread_master;
struct tq_thread;

// Result 0 or -1; the library does nothing with it.
typedef int (*tq_thread_func)(struct tq_thread* task);

// A fetched task. The caller of tq_thread_fetch provides the record.
struct tq_thread {
    struct tq_thread_master* master;  // loop that runs it
    tq_thread_func func;
    void* arg;
    int fd;            // read task: the descriptor; timer: -1
    const char* name;  // "" when it was added without one
};

#define TQ_THREAD_ARG(task) ((task)->arg)

// A new loop, or null when memory or descriptors are short.
struct tq_thread_master* tq_thread_master_create(void);

// Releases the loop and its pending tasks.
void tq_thread_master_finish(struct tq_thread_master* master);

// Runs func once when fd is readable (end of stream and errors count). name is
// kept by address. Returns the task's handle, or null.
struct tq_thread* tq_thread_add_read_withname(struct tq_thread_master* master, tq_thread_func func,
                                              void* arg, int fd, const char* name);

// Runs func once, seconds (0 or more, monotonic) from now. Returns the task's
// handle, or null.
struct tq_thread* tq_thread_add_timer(struct tq_thread_master* master, tq_thread_func func,
                                      void* arg, long seconds);
struct tq_thread* tq_thread_add_timer_withname(struct tq_thread_master* master, tq_thread_func func,
                                               void* arg, long seconds, const char* name);

// Waits until a task is ready, takes it off the loop and copies it into *task.
// Returns task, or null when the loop can't go on.
struct tq_thread* tq_thread_fetch(struct tq_thread_master* master, struct tq_thread* task);

// Runs the callback of a fetched task.
void tq_thread_call(struct tq_thread* task);

// Takes a pending task off its loop. Null is ignored.
void tq_thread_cancel(struct tq_thread* task);

// Whole seconds until a pending timer fires; 0 when it is due. A timer that has
// been fetched stays readable until its callback has returned, so a holder that
// clears its handle as the callback starts, under the lock it queries under, is
// safe.
unsigned long tq_thread_timer_remain_second(const struct tq_thread* timer);

#ifdef __cplusplus
}
#endif
