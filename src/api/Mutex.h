// The standard mutexes with clang's capability attributes, so that a build with -Wthread-safety proves that every
// guarded field is only touched under its lock. Elsewhere the attributes vanish.
#ifndef TARVO_API_MUTEX_H
#define TARVO_API_MUTEX_H

#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define TARVO_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TARVO_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) TARVO_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY TARVO_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) TARVO_THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) TARVO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) TARVO_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) TARVO_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) TARVO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) TARVO_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) TARVO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) TARVO_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) TARVO_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) TARVO_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define RETURN_CAPABILITY(x) TARVO_THREAD_ATTRIBUTE(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS TARVO_THREAD_ATTRIBUTE(no_thread_safety_analysis)

class CAPABILITY("mutex") Mutex : public std::mutex {
public:
    void lock() ACQUIRE() { std::mutex::lock(); }
    void unlock() RELEASE() { std::mutex::unlock(); }
};

class CAPABILITY("shared_mutex") SharedMutex : public std::shared_mutex {
public:
    void lock() ACQUIRE() { std::shared_mutex::lock(); }
    void unlock() RELEASE() { std::shared_mutex::unlock(); }
    void lock_shared() ACQUIRE_SHARED() { std::shared_mutex::lock_shared(); }
    void unlock_shared() RELEASE_SHARED() { std::shared_mutex::unlock_shared(); }
};

// Holds a Mutex for its own lifetime. The underlying std::unique_lock is there for condition variables, which release
// and retake the mutex behind the analysis's back and leave it held as before.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex &mutex) ACQUIRE(mutex) : lock_(mutex) {}
    ~MutexLock() RELEASE() = default;
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

    void Unlock() RELEASE() { lock_.unlock(); }
    void Lock() ACQUIRE() { lock_.lock(); }
    std::unique_lock<std::mutex> &Native() { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};

class SCOPED_CAPABILITY WriteLock {
public:
    explicit WriteLock(SharedMutex &mutex) ACQUIRE(mutex) : lock_(mutex) {}
    ~WriteLock() RELEASE() = default;
    WriteLock(const WriteLock &) = delete;
    WriteLock &operator=(const WriteLock &) = delete;

    void Unlock() RELEASE() { lock_.unlock(); }

private:
    std::unique_lock<std::shared_mutex> lock_;
};

class SCOPED_CAPABILITY ReadLock {
public:
    explicit ReadLock(SharedMutex &mutex) ACQUIRE_SHARED(mutex) : lock_(mutex) {}
    ~ReadLock() RELEASE_GENERIC() = default;
    ReadLock(const ReadLock &) = delete;
    ReadLock &operator=(const ReadLock &) = delete;

private:
    std::shared_lock<std::shared_mutex> lock_;
};

#endif // TARVO_API_MUTEX_H
