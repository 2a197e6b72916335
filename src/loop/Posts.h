#ifndef TARVO_LOOP_POSTS_H
#define TARVO_LOOP_POSTS_H

#include <atomic>
#include <cstddef>
#include <vector>

#include "base/Mutex.h"
#include "base/UniqueFd.h"
#include "loop/Work.h"

struct TarvoLoop;

// The functions that threads have posted to a loop, and the eventfd that makes its descriptor readable.
// Owns: both. Threads: any may post and wake; the rest is the loop's. Locks: mutex, a leaf. Ends: no thread posts.
class Posts final : public Work {
public:
    explicit Posts(TarvoLoop &owner) : loop(owner) {}

    // 0 or a negated errno.
    int Init();
    int Fd() const { return fd.Get(); }

    // The loop's thread, in a round: nobody has to be woken. 0 or -ENOMEM.
    int Add(void (*function)(void *), void *context) EXCLUDES(mutex);
    // Any thread. 0 or a negated errno.
    int Post(void (*function)(void *), void *context) EXCLUDES(mutex);

    // Makes the eventfd readable, unless it is. Any thread, and signal handlers. 0 or a negated errno.
    int Wake();

    // The eventfd is readable: clears it. What was done before a Wake() is seen by whoever looks after this.
    void Clear();

    // Whether functions wait to be run.
    bool HasAny() EXCLUDES(mutex);

    bool Serve(int share, int &ran) override EXCLUDES(mutex);

private:
    struct Posted {
        void (*function)(void *);
        void *context;
    };

    bool Refill() EXCLUDES(mutex);

    TarvoLoop &loop;
    UniqueFd fd;
    std::atomic<bool> signalled{false};
    Mutex mutex;
    std::vector<Posted> incoming GUARDED_BY(mutex);
    // The loop's: those that it runs now, from `position` on.
    std::vector<Posted> taken;
    std::size_t position = 0;
};

#endif // TARVO_LOOP_POSTS_H
