#ifndef TARVO_BASE_SHAREDMUTEX_H
#define TARVO_BASE_SHAREDMUTEX_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include "base/Mutex.h"

// A reader-writer lock for what every message reads, and what is written only when a pipe or the process comes or goes.
// A reader comes and goes with one addition each, compiled into its caller: a message takes the shared side five times,
// and the C library's lock needs two calls and some hundred instructions for each.
// Owns: nothing. Threads: any; readers that come while a writer works or waits for it to work wait for the writer, so
// a thread that has the lock shared must not ask for it again. Locks: writers, then idleMutex. Ends: when nobody is
// inside a member any more.
class CAPABILITY("shared_mutex") SharedMutex {
public:
    SharedMutex() = default;
    SharedMutex(const SharedMutex &) = delete;
    SharedMutex &operator=(const SharedMutex &) = delete;

    void lock() ACQUIRE();
    void unlock() RELEASE();

    void lock_shared() ACQUIRE_SHARED() {
        if (users.fetch_add(1, std::memory_order_acquire) < 0) {
            AwaitWriter();
        }
    }

    void unlock_shared() RELEASE_SHARED() {
        if (users.fetch_sub(1, std::memory_order_release) == 1 - WRITER) {
            WakeWriter();
        }
    }

private:
    static constexpr int32_t WRITER = 1 << 30;

    // For a reader that has come while there was a writer: leaves again, and returns as one that came without.
    void AwaitWriter();
    void AwaitReaders();
    void WakeWriter();

    // The readers inside, less WRITER while there is a writer.
    std::atomic<int32_t> users{0};
    // Held by the writer.
    std::mutex writers;
    // What a writer sleeps on until the readers have gone.
    std::mutex idleMutex;
    std::condition_variable idle;
};

// Holds the exclusive side for its own lifetime. Owns, Threads, Locks, Ends: as MutexLock.
class SCOPED_CAPABILITY WriteLock {
public:
    explicit WriteLock(SharedMutex &mutex) ACQUIRE(mutex) : lock_(mutex) {}
    ~WriteLock() RELEASE() = default;
    WriteLock(const WriteLock &) = delete;
    WriteLock &operator=(const WriteLock &) = delete;

    void Unlock() RELEASE() { lock_.unlock(); }

private:
    std::unique_lock<SharedMutex> lock_;
};

// Holds the shared side for its own lifetime. Owns, Threads, Locks, Ends: as MutexLock.
class SCOPED_CAPABILITY ReadLock {
public:
    explicit ReadLock(SharedMutex &mutex) ACQUIRE_SHARED(mutex) : lock_(mutex) {}
    ~ReadLock() RELEASE_GENERIC() = default;
    ReadLock(const ReadLock &) = delete;
    ReadLock &operator=(const ReadLock &) = delete;

private:
    std::shared_lock<SharedMutex> lock_;
};

#endif // TARVO_BASE_SHAREDMUTEX_H
