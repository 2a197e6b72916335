#include "base/SharedMutex.h"

#include <pthread.h>

void SharedMutex::lock() NO_THREAD_SAFETY_ANALYSIS {
    writers.lock();
    if (users.fetch_sub(WRITER, std::memory_order_acq_rel) != 0) {
        AwaitReaders();
    }
}

void SharedMutex::unlock() NO_THREAD_SAFETY_ANALYSIS {
    users.fetch_add(WRITER, std::memory_order_release);
    writers.unlock();
}

void SharedMutex::AwaitReaders() {
    // The sleep is a cancellation point (pthreads(7)), where a thread that is cancelled would leave the lock taken.
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    {
        std::unique_lock<std::mutex> wait(idleMutex);
        idle.wait(wait, [this] { return users.load(std::memory_order_acquire) == -WRITER; });
    }
    pthread_setcancelstate(previous, nullptr);
}

void SharedMutex::AwaitWriter() NO_THREAD_SAFETY_ANALYSIS {
    do {
        unlock_shared();
        const std::lock_guard<std::mutex> writerGone(writers);
    } while (users.fetch_add(1, std::memory_order_acquire) < 0);
}

void SharedMutex::WakeWriter() {
    // Not between the writer's look at the count and its sleep.
    const std::lock_guard<std::mutex> lock(idleMutex);
    idle.notify_one();
}
