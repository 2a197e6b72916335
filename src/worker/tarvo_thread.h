#ifndef TARVO_WORKER_TARVO_THREAD_H
#define TARVO_WORKER_TARVO_THREAD_H

#include <atomic>
#include <thread>
#include <utility>

#include "base/HasSymbol.h"
#include "tarvo.h"

// Holds one thread of the library and maps a TarvoPriority onto its scheduling.
// Owns: the thread. Threads: any, one at a time. Locks: none; the owner serialises Create, Join and SetRTType. Ends:
// joined by the owner, since the destruction of a running std::thread ends the process.
class TarvoThread {
public:
    explicit TarvoThread(TarvoPriority priority = TARVO_PRIORITY_NORMAL) : curPriority(priority) {}
    TarvoThread(const TarvoThread &) = delete;
    TarvoThread &operator=(const TarvoThread &) = delete;

    // Starts a thread that calls `memberFunction` on `object`, at normal priority. Throws std::system_error when it
    // cannot be started. The previous thread must have been joined.
    template <typename Function, typename Object>
    HAS_SYMBOL void Create(Function &&memberFunction, Object &&object) {
        thread = std::thread(std::forward<Function>(memberFunction), std::forward<Object>(object));
        StartAtNormal();
    }

    // Whether there is a thread to join; true also for one whose routine has returned.
    bool Joinable() const;

    // Throws std::system_error, as std::thread::join does.
    void Join();

    // Applies `priority` to the thread; may be called while it runs. 0, also when the system refuses (no right to
    // real-time scheduling: logged, tried again by the next call) and when there is no thread; -EINVAL for a priority
    // other than normal and urgent.
    int SetRTType(const TarvoPriority &priority);

    // Whether SetRTType would have nothing to do. Any thread.
    bool Reflects(TarvoPriority priority) const { return curPriority.load(std::memory_order_relaxed) == priority; }

private:
    void StartAtNormal();

    // What the scheduling of the thread reflects now.
    std::atomic<TarvoPriority> curPriority;
    std::thread thread;
};

#endif // TARVO_WORKER_TARVO_THREAD_H
