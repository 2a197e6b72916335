// The standard mutexes with clang's capability attributes, so that a build with -Wthread-safety proves that every
// guarded field is only touched under its lock. Elsewhere the attributes vanish.
#ifndef TARVO_BASE_MUTEX_H
#define TARVO_BASE_MUTEX_H

#include <mutex>

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
#define ACQUIRED_AFTER(...) TARVO_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) TARVO_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define RETURN_CAPABILITY(x) TARVO_THREAD_ATTRIBUTE(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS TARVO_THREAD_ATTRIBUTE(no_thread_safety_analysis)

// std::mutex that the analysis knows. Owns: nothing. Threads: any. Locks: itself. Ends: when nobody holds it.
class CAPABILITY("mutex") Mutex : public std::mutex {
public:
    void lock() ACQUIRE() { std::mutex::lock(); }
    void unlock() RELEASE() { std::mutex::unlock(); }
};

// Holds a Mutex for its own lifetime. The underlying std::unique_lock is there for condition variables, which release
// and retake the mutex behind the analysis's back and leave it held as before.
// Owns: the locked state of the mutex. Threads: its own. Locks: the given one. Ends: by unlocking.
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

#endif // TARVO_BASE_MUTEX_H
