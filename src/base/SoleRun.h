#ifndef TARVO_BASE_SOLERUN_H
#define TARVO_BASE_SOLERUN_H

#include <condition_variable>
#include <thread>

#include "base/LockOrder.h"
#include "base/Mutex.h"

// Lets one thread at a time through a piece of work that destroys objects of the program on its way. No lock is held
// meanwhile: what the program does in a destructor may be to ask for the same work, which would wait for itself.
// Owns: nothing. Threads: any. Locks: its own, for a look at who is inside. Ends: when nobody is inside.
class SoleRun {
public:
    SoleRun() = default;
    SoleRun(const SoleRun &) = delete;
    SoleRun &operator=(const SoleRun &) = delete;

    // The caller's turn, once all others have ended; false when the calling thread is in the middle of one already.
    class Turn {
    public:
        explicit Turn(SoleRun &sole) : run(sole), own(sole.Begin()) {}
        ~Turn() {
            if (own) {
                run.End();
            }
        }
        Turn(const Turn &) = delete;
        Turn &operator=(const Turn &) = delete;

        explicit operator bool() const { return own; }

    private:
        SoleRun &run;
        const bool own;
    };

private:
    bool Begin() EXCLUDES(mutex);
    void End() EXCLUDES(mutex);

    Mutex mutex ACQUIRED_AFTER(lock_order::leaves) ACQUIRED_BEFORE(lock_order::logging);
    std::condition_variable ended;
    // No thread's while nobody is inside.
    std::thread::id inside GUARDED_BY(mutex);
};

#endif // TARVO_BASE_SOLERUN_H
