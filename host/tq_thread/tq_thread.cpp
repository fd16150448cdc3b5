// Event loops over libevent's core, one event base a loop.
//
// libevent only tells that a task became ready: its callback moves the task to
// the loop's queue, and tq_thread_fetch hands the queue out one task at a time.
// The base is asked again only when the queue is empty. A task that adds itself
// again therefore waits behind everything that was ready before it, and neither
// a busy descriptor nor a row of due timers can keep the others away.
//
// A task that adds itself again can't fail: it gets its own record back, and a
// descriptor stays with the kernel until it is clear that it did not.
#include "host/tq_thread/tq_thread_host.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <pthread.h>

#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include "base/clock.h"

namespace {

constexpr int64_t US_PER_SECOND = 1'000'000;
// Longer delays are cut to this, so that no sum of times overflows.
constexpr long DELAY_MAX_S = 3'153'600'000;  // 100 years
constexpr long SPEED_MAX = 1'000'000;
// Timers of at least this delay wake the processor on a common grid, at most one
// grain late: the minute timers of an idle daemon then share one wake-up.
constexpr long GRID_DELAY_S = 30;
constexpr int64_t GRID_GRAIN_NS = 250'000'000;

// A task on its loop. The record comes first: its address is the handle.
struct Task {
    tq_thread record;
    event wait;
    int64_t due_ns;  // timers: monotonic; others: 0
    long speed;      // of the loop; another thread may ask for the remaining time
    bool ready;      // in which of the loop's two lists it is
    Task* previous;
    Task* next;
};

struct TaskList {
    Task* head;
    Task* tail;
};

#ifdef __SANITIZE_THREAD__
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
void race_checks_pause() { AnnotateIgnoreReadsBegin(__FILE__, __LINE__); }
void race_checks_resume() { AnnotateIgnoreReadsEnd(__FILE__, __LINE__); }
#else
void race_checks_pause() {}
void race_checks_resume() {}
#endif

struct BaseDeleter {
    void operator()(event_base* base) const { event_base_free(base); }
};

// The callback may have closed its descriptor, and another thread have got the number since.
// The kernel then finds nothing to take away, for a base holds files, not numbers; the
// thread sanitizer would see two threads at one descriptor.
struct TaskDeleter {
    void operator()(Task* task) const {
        race_checks_pause();
        (void)event_del(&task->wait);  // fails only for an event that was never set up
        race_checks_resume();
        delete task;
    }
};
using OwnedTask = std::unique_ptr<Task, TaskDeleter>;

bool is_timer(const Task* task) { return task->record.fd < 0; }

void list_insert_after(TaskList* list, Task* place, Task* task) {
    task->previous = place;
    task->next = place == nullptr ? list->head : place->next;
    (task->next == nullptr ? list->tail : task->next->previous) = task;
    (place == nullptr ? list->head : place->next) = task;
}

void list_remove(TaskList* list, Task* task) {
    (task->previous == nullptr ? list->head : task->previous->next) = task->next;
    (task->next == nullptr ? list->tail : task->next->previous) = task->previous;
}

int64_t wake_time_ns(int64_t due_ns, long delay_s, long speed) {
    if (delay_s < GRID_DELAY_S) return due_ns;
    const int64_t grain_ns = GRID_GRAIN_NS / speed;
    return (due_ns + grain_ns - 1) / grain_ns * grain_ns;
}

// Anything but a positive number means the plain clock.
long speed_from_environment() {
    const char* text = getenv("TQ_THREAD_SPEED");
    if (text == nullptr) return 1;
    char* end = nullptr;
    const long speed = strtol(text, &end, 10);
    if (end == text || *end != '\0' || speed < 1) return 1;
    return speed < SPEED_MAX ? speed : SPEED_MAX;
}

Task* task_of(tq_thread* handle) { return reinterpret_cast<Task*>(handle); }
const Task* task_of(const tq_thread* handle) { return reinterpret_cast<const Task*>(handle); }

}  // namespace

struct tq_thread_master {
    std::unique_ptr<event_base, BaseDeleter> base;
    pthread_t owner;
    long speed;
    TaskList waiting;
    TaskList ready;
    // The task fetched last, unless it has added itself again. Its memory stays until
    // the next fetch, when its callback has returned: another thread may be reading its
    // due time.
    OwnedTask fetched;
};

static_assert(offsetof(Task, record) == 0);

namespace {

void assert_owner([[maybe_unused]] const tq_thread_master* master) {
    assert(pthread_equal(master->owner, pthread_self()));
}

// The queue holds only what one turn of the base found: descriptors, then the
// timers in the order of their due times. libevent's own order of timers is
// that of a heap, in which equals change places.
void task_becomes_ready(evutil_socket_t, short, void* argument) {
    auto* task = static_cast<Task*>(argument);
    tq_thread_master* master = task->record.master;
    list_remove(&master->waiting, task);
    Task* place = master->ready.tail;
    if (is_timer(task)) {
        while (place != nullptr && is_timer(place) && place->due_ns > task->due_ns) {
            place = place->previous;
        }
    }
    list_insert_after(&master->ready, place, task);
    task->ready = true;
}

OwnedTask task_make(tq_thread_master* master, const tq_thread& record, short what) {
    auto* task = new (std::nothrow) Task{};
    if (task == nullptr) return nullptr;
    (void)event_assign(&task->wait, master->base.get(), record.fd, what, task_becomes_ready,
                       task);  // fails only for a combination of flags that isn't used here
    return OwnedTask(task);
}

// The fetched task when that is what is added again, else null.
OwnedTask task_take_back(tq_thread_master* master, const tq_thread& record, short what) {
    Task* task = master->fetched.get();
    if (task == nullptr || task->record.fd != record.fd) return nullptr;
    const bool same = task->record.func == record.func && task->record.arg == record.arg &&
                      event_get_events(&task->wait) == what;
    if (same) return std::move(master->fetched);
    // Another task on the same number, which may be another file's by now: what the base
    // knows of it must not be taken for that one.
    if (record.fd >= 0) (void)event_del(&task->wait);
    return nullptr;
}

tq_thread* task_add(tq_thread_master* master, const tq_thread& record, short what,
                    const timeval* delay, int64_t due_ns) {
    assert_owner(master);
    OwnedTask task = task_take_back(master, record, what);
    if (task == nullptr) task = task_make(master, record, what);
    if (task == nullptr) return nullptr;
    task->record = record;
    task->due_ns = due_ns;
    task->speed = master->speed;
    task->ready = false;
    // Nothing to do for a descriptor that was taken back.
    if (event_pending(&task->wait, what, nullptr) == 0 && event_add(&task->wait, delay) != 0) {
        return nullptr;
    }
    list_insert_after(&master->waiting, master->waiting.tail, task.get());
    return &task.release()->record;
}

tq_thread* descriptor_add(tq_thread_master* master, tq_thread_func func, void* arg, int fd,
                          const char* name, short what) {
    if (master == nullptr || func == nullptr || fd < 0) return nullptr;
    return task_add(master, {master, func, arg, fd, name == nullptr ? "" : name}, what, nullptr, 0);
}

void list_clear(TaskList* list) {
    while (list->head != nullptr) {
        // The analyzer does not see that the head is another task each time.
        const OwnedTask task(list->head);  // NOLINT(clang-analyzer-cplusplus.NewDelete)
        list_remove(list, task.get());
    }
}

}  // namespace

tq_thread_master* tq_thread_master_create() {
    std::unique_ptr<event_config, decltype(&event_config_free)> config(event_config_new(),
                                                                       event_config_free);
    // The coarse clock that libevent prefers would fire timers early by a tick.
    if (config == nullptr ||
        event_config_set_flag(config.get(), EVENT_BASE_FLAG_PRECISE_TIMER) != 0) {
        return nullptr;
    }
    std::unique_ptr<tq_thread_master> master(new (std::nothrow) tq_thread_master{});
    if (master == nullptr) return nullptr;
    master->base.reset(event_base_new_with_config(config.get()));
    if (master->base == nullptr) return nullptr;
    master->owner = pthread_self();
    master->speed = speed_from_environment();
    return master.release();
}

void tq_thread_master_finish(tq_thread_master* master) {
    if (master == nullptr) return;
    const std::unique_ptr<tq_thread_master> owned(master);
    list_clear(&master->waiting);
    list_clear(&master->ready);
}

tq_thread* tq_thread_add_read_withname(tq_thread_master* master, tq_thread_func func, void* arg,
                                       int fd, const char* name) {
    return descriptor_add(master, func, arg, fd, name, EV_READ | EV_PERSIST);
}

tq_thread* tq_thread_add_write_withname(tq_thread_master* master, tq_thread_func func, void* arg,
                                        int fd, const char* name) {
    return descriptor_add(master, func, arg, fd, name, EV_WRITE | EV_PERSIST);
}

tq_thread* tq_thread_add_timer(tq_thread_master* master, tq_thread_func func, void* arg,
                               long seconds) {
    return tq_thread_add_timer_withname(master, func, arg, seconds, nullptr);
}

// A negative delay counts as 0: a caller whose sum came out wrong keeps its
// timer.
tq_thread* tq_thread_add_timer_withname(tq_thread_master* master, tq_thread_func func, void* arg,
                                        long seconds, const char* name) {
    if (master == nullptr || func == nullptr) return nullptr;
    const long delay_s = seconds < 0 ? 0 : (seconds < DELAY_MAX_S ? seconds : DELAY_MAX_S);
    const int64_t now_ns = monotonic_ns();
    const int64_t due_ns = now_ns + delay_s * NS_PER_S / master->speed;
    const int64_t wait_ns = wake_time_ns(due_ns, delay_s, master->speed) - now_ns;
    const int64_t wait_us = (wait_ns + 999) / 1000;  // never before the due time
    const timeval delay{wait_us / US_PER_SECOND, wait_us % US_PER_SECOND};
    return task_add(master, {master, func, arg, -1, name == nullptr ? "" : name}, EV_TIMEOUT,
                    &delay, due_ns);
}

// Null when the base fails and also when no task is left: tasks come from this
// thread alone, so nothing could ever become ready again.
tq_thread* tq_thread_fetch(tq_thread_master* master, tq_thread* task) {
    assert_owner(master);
    master->fetched.reset();
    while (master->ready.head == nullptr) {
        if (event_base_loop(master->base.get(), EVLOOP_ONCE) != 0) return nullptr;
    }
    Task* first = master->ready.head;
    list_remove(&master->ready, first);
    master->fetched.reset(first);
    *task = first->record;
    return task;
}

void tq_thread_call(tq_thread* task) { (void)task->func(task); }  // results carry no meaning here

void tq_thread_cancel(tq_thread* task) {
    if (task == nullptr) return;
    tq_thread_master* master = task->master;
    assert_owner(master);
    const OwnedTask owned(task_of(task));
    list_remove(owned->ready ? &master->ready : &master->waiting, owned.get());
}

// Rounded up, so that 0 says that the timer is due. At a higher speed these are
// the seconds that the caller asked for, which pass faster.
unsigned long tq_thread_timer_remain_second(const tq_thread* timer) {
    const Task* task = task_of(timer);
    const int64_t left_ns = task->due_ns - monotonic_ns();
    if (left_ns <= 0) return 0;
    return static_cast<unsigned long>((left_ns * task->speed + NS_PER_S - 1) / NS_PER_S);
}
