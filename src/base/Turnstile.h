#ifndef TARVO_BASE_TURNSTILE_H
#define TARVO_BASE_TURNSTILE_H

#include <atomic>
#include <condition_variable>

#include "base/LockOrder.h"
#include "base/Mutex.h"

// Counts the threads inside, and can be shut for good so that somebody may wait until they have left. Unlike the shared
// side of a lock it never makes anybody wait at the entrance: who comes too late is told so, which matters when those
// inside can leave only after the late-comer has gone on.
// Owns: nothing. Threads: any. Locks: its own, when the last one leaves. Ends: when nobody is inside a member.
class Turnstile {
public:
    Turnstile() = default;
    Turnstile(const Turnstile &) = delete;
    Turnstile &operator=(const Turnstile &) = delete;

    void Shut() { shut = true; }
    bool IsShut() const { return shut; }
    // Returns once nobody is inside; to be shut before.
    void AwaitEmpty() EXCLUDES(mutex);

    // A thread's way through; false when the turnstile is shut, and the thread is then not inside.
    class Passage {
    public:
        explicit Passage(Turnstile &way) : turnstile(way), entered(way.Enter()) {}
        ~Passage() {
            if (entered) {
                turnstile.Leave();
            }
        }
        Passage(const Passage &) = delete;
        Passage &operator=(const Passage &) = delete;

        explicit operator bool() const { return entered; }

    private:
        Turnstile &turnstile;
        const bool entered;
    };

private:
    // Counted first and looked at then, while AwaitEmpty looks at the count after the shutting: in the one order of
    // these four either the thread sees that it comes too late, or it is waited for.
    bool Enter() EXCLUDES(mutex) {
        ++inside;
        if (!shut) {
            return true;
        }
        Leave();
        return false;
    }
    void Leave() EXCLUDES(mutex) {
        if (--inside == 0 && shut) {
            ReportEmpty();
        }
    }
    void ReportEmpty() EXCLUDES(mutex);

    std::atomic<int> inside{0};
    std::atomic<bool> shut{false};
    Mutex mutex ACQUIRED_AFTER(lock_order::leaves) ACQUIRED_BEFORE(lock_order::logging);
    std::condition_variable empty;
};

#endif // TARVO_BASE_TURNSTILE_H
