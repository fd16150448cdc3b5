// Mutex, reader-writer lock and their guards over pthreads, with the
// annotations that clang's -Wthread-safety checks (the standard library's own
// types carry none). Header only; the libraries of host/ use it too.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define THREAD_ANNOTATION(x) __attribute__((x))
#else
#define THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) THREAD_ANNOTATION(guarded_by(lock))
#define PT_GUARDED_BY(lock) THREAD_ANNOTATION(pt_guarded_by(lock))
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// Locking and unlocking can only fail on a programming error, so their results
// are ignored throughout.
class CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() ACQUIRE() { (void)pthread_mutex_lock(&mutex_); }
    void Unlock() RELEASE() { (void)pthread_mutex_unlock(&mutex_); }
    // For condition variables and timed locks.
    pthread_mutex_t* Native() { return &mutex_; }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() RELEASE() { mutex_.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

class CAPABILITY("rwlock") RwLock {
  public:
    RwLock() = default;
    RwLock(const RwLock&) = delete;
    RwLock& operator=(const RwLock&) = delete;

    void LockRead() ACQUIRE_SHARED() { (void)pthread_rwlock_rdlock(&lock_); }
    void LockWrite() ACQUIRE() { (void)pthread_rwlock_wrlock(&lock_); }
    void Unlock() RELEASE_GENERIC() { (void)pthread_rwlock_unlock(&lock_); }

  private:
    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;
};

class SCOPED_CAPABILITY ReadLock {
  public:
    explicit ReadLock(RwLock& lock) ACQUIRE_SHARED(lock) : lock_(lock) { lock_.LockRead(); }
    ~ReadLock() RELEASE_GENERIC() { lock_.Unlock(); }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

  private:
    RwLock& lock_;
};

class SCOPED_CAPABILITY WriteLock {
  public:
    explicit WriteLock(RwLock& lock) ACQUIRE(lock) : lock_(lock) { lock_.LockWrite(); }
    ~WriteLock() RELEASE_GENERIC() { lock_.Unlock(); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

  private:
    RwLock& lock_;
};
