// A call that may block for long, on a thread of its own, so that its caller can go on
// asking whether anybody still wants the result. Who gives up leaves the call behind:
// whichever of the two sides comes last releases the record.
// Header only.
// Threads: one starts, waits and gives up; the work runs on another.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "base/clock.h"
#include "base/sync.h"

// Work holds arguments and results and is called once: work(). It owns what it uses.
template <typename Work>
class SideCall {
  public:
    SideCall() = default;
    SideCall(const SideCall&) = delete;
    SideCall& operator=(const SideCall&) = delete;
    ~SideCall() { Abandon(); }

    // False when there is no memory; nothing runs then. Where no thread can be had, or
    // none is wanted, the work is done before this returns.
    [[nodiscard]] bool Start(Work work, bool with_thread = true) {
        Abandon();
        record_ = new (std::nothrow) Record(std::move(work));
        if (record_ == nullptr) return false;
        pthread_t thread{};
        if (with_thread && pthread_create(&thread, nullptr, Run, record_) == 0) {
            (void)pthread_detach(thread);
        } else {
            record_->work();
            const MutexLock guard(record_->lock);
            record_->done = record_->left = true;
        }
        return true;
    }

    [[nodiscard]] bool started() const { return record_ != nullptr; }

    // The finished work, or null when it is not done within wait_ms. It belongs to this
    // object until the next Start().
    [[nodiscard]] Work* Wait(int wait_ms) {
        const MutexLock guard(record_->lock);
        const timespec until = Deadline(wait_ms).At();
        int error = 0;
        while (!record_->done && error == 0) {
            error = pthread_cond_clockwait(&record_->changed, record_->lock.Native(),
                                           CLOCK_MONOTONIC, &until);
        }
        return record_->done ? &record_->work : nullptr;
    }

    // Forgets the call; if it still runs, its thread clears up.
    void Abandon() {
        std::unique_ptr<Record> record(std::exchange(record_, nullptr));
        if (record && !record->Leave()) (void)record.release();
    }

  private:
    struct Record {
        explicit Record(Work given) : work(std::move(given)) {}

        // Called by each side when it needs the record no more. True for the second,
        // which then releases it.
        [[nodiscard]] bool Leave() {
            const MutexLock guard(lock);
            return std::exchange(left, true);
        }

        Work work;  // the thread's until done
        Mutex lock;
        pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
        bool done GUARDED_BY(lock) = false;
        bool left GUARDED_BY(lock) = false;
    };

    static void* Run(void* argument) {
        std::unique_ptr<Record> record(static_cast<Record*>(argument));
        record->work();
        {
            const MutexLock guard(record->lock);
            record->done = true;
            (void)pthread_cond_signal(&record->changed);
        }
        if (!record->Leave()) (void)record.release();
        return nullptr;
    }

    Record* record_ = nullptr;
};
