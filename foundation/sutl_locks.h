// Locks, conditions and threads: the pthread types with the attributes that clang checks, and scoped owners.
//
// Lock order of the whole server, where two are held at once:
//   bucket-set lock, for reading -> recovery mutex (writer): a record is marked as shipped
//   query gate                   -> key-index lock, released before -> bucket-set lock: one search
// Every other lock is taken alone, and none is held across a socket call.
#pragma once

#include <pthread.h>

#include <chrono>

#if defined(__clang__)
#define SUTL_ATTRIBUTE(x) __attribute__((x))
#else
#define SUTL_ATTRIBUTE(x)
#endif
#define SUTL_CAPABILITY(name) SUTL_ATTRIBUTE(capability(name))
#define SUTL_SCOPED_CAPABILITY SUTL_ATTRIBUTE(scoped_lockable)
#define SUTL_GUARDED_BY(lock) SUTL_ATTRIBUTE(guarded_by(lock))
#define SUTL_REQUIRES(...) SUTL_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define SUTL_REQUIRES_SHARED(...) SUTL_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define SUTL_EXCLUDES(...) SUTL_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define SUTL_ACQUIRE(...) SUTL_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define SUTL_ACQUIRE_SHARED(...) SUTL_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define SUTL_RELEASE(...) SUTL_ATTRIBUTE(release_capability(__VA_ARGS__))
#define SUTL_RELEASE_GENERIC(...) SUTL_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define SUTL_RETURN_CAPABILITY(lock) SUTL_ATTRIBUTE(lock_returned(lock))
#define SUTL_NO_THREAD_SAFETY_ANALYSIS SUTL_ATTRIBUTE(no_thread_safety_analysis)

// Default attributes: not recursive. Taken by sutl_MutexLock alone.
class SUTL_CAPABILITY("mutex") sutl_Mutex {
 public:
    sutl_Mutex() = default;
    sutl_Mutex(sutl_Mutex const&) = delete;
    sutl_Mutex& operator=(sutl_Mutex const&) = delete;
    ~sutl_Mutex() { pthread_mutex_destroy(&mutex_); }

 private:
    friend class sutl_MutexLock;
    friend class sutl_Condition;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class SUTL_SCOPED_CAPABILITY sutl_MutexLock {
 public:
    explicit sutl_MutexLock(sutl_Mutex& mutex) SUTL_ACQUIRE(mutex) : mutex_(mutex) {
        pthread_mutex_lock(&mutex_.mutex_);
    }
    sutl_MutexLock(sutl_MutexLock const&) = delete;
    sutl_MutexLock& operator=(sutl_MutexLock const&) = delete;
    ~sutl_MutexLock() SUTL_RELEASE() { pthread_mutex_unlock(&mutex_.mutex_); }

 private:
    sutl_Mutex& mutex_;
};

// Waits and signals under the mutex that guards the state waited for.
class sutl_Condition {
 public:
    sutl_Condition() = default;
    sutl_Condition(sutl_Condition const&) = delete;
    sutl_Condition& operator=(sutl_Condition const&) = delete;
    ~sutl_Condition() { pthread_cond_destroy(&condition_); }

    void Wait(sutl_Mutex& mutex) SUTL_REQUIRES(mutex) { pthread_cond_wait(&condition_, &mutex.mutex_); }
    // The same, but false at the deadline.
    [[nodiscard]] bool WaitBefore(std::chrono::steady_clock::time_point deadline, sutl_Mutex& mutex)
        SUTL_REQUIRES(mutex);
    void Signal() { pthread_cond_signal(&condition_); }

 private:
    pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

// Default attributes. Taken by sutl_ReadLock and sutl_WriteLock alone.
class SUTL_CAPABILITY("rwlock") sutl_RwLock {
 public:
    sutl_RwLock() = default;
    sutl_RwLock(sutl_RwLock const&) = delete;
    sutl_RwLock& operator=(sutl_RwLock const&) = delete;
    ~sutl_RwLock() { pthread_rwlock_destroy(&lock_); }

 private:
    friend class sutl_ReadLock;
    friend class sutl_WriteLock;
    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;
};

class SUTL_SCOPED_CAPABILITY sutl_ReadLock {
 public:
    explicit sutl_ReadLock(sutl_RwLock& lock) SUTL_ACQUIRE_SHARED(lock) : lock_(lock) {
        pthread_rwlock_rdlock(&lock_.lock_);
    }
    sutl_ReadLock(sutl_ReadLock const&) = delete;
    sutl_ReadLock& operator=(sutl_ReadLock const&) = delete;
    ~sutl_ReadLock() SUTL_RELEASE_GENERIC() { pthread_rwlock_unlock(&lock_.lock_); }

 private:
    sutl_RwLock& lock_;
};

class SUTL_SCOPED_CAPABILITY sutl_WriteLock {
 public:
    explicit sutl_WriteLock(sutl_RwLock& lock) SUTL_ACQUIRE(lock) : lock_(lock) { pthread_rwlock_wrlock(&lock_.lock_); }
    sutl_WriteLock(sutl_WriteLock const&) = delete;
    sutl_WriteLock& operator=(sutl_WriteLock const&) = delete;
    ~sutl_WriteLock() SUTL_RELEASE() { pthread_rwlock_unlock(&lock_.lock_); }

 private:
    sutl_RwLock& lock_;
};

// A thread that is started once and joined at most once. Whoever owns it calls Start and Join from one thread at a
// time.
class sutl_Thread {
 public:
    // Starts body(argument) under a name of at most 15 characters, which the system's tools show. The thread holds
    // SIGTERM back, for the main thread to handle. False, with errno set, when the system has no room for it.
    [[nodiscard]] bool Start(void* (*body)(void*), void* argument, char const* name);
    void Join();    // waits for its end; nothing when it does not run or was joined
    void Detach();  // lets it end by itself; nothing to join any more

 private:
    pthread_t thread_ = {};
    bool joinable_ = false;
};
