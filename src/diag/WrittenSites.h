#ifndef TARVO_DIAG_WRITTENSITES_H
#define TARVO_DIAG_WRITTENSITES_H

#include <cstdint>

// Which call sites have lately written a restrained line in the calling thread. A sender whose FIFO is full asks with
// every refused write, and the answer of the limiter, which knows all threads, takes several times as long.
//
// Only for refusing a line: the limiter never lowers the second of a line that counts, and one that is gone lets
// nothing through. A forked child has a limiter of its own and starts anew.
//
// Owns: two sites a thread. Threads: any, also in a signal handler. Locks: none. Ends: never.
class WrittenSites {
public:
    // Whether the site is known to have written later than in `second` of the wall clock.
    static bool WroteSince(int line, const char *file, int64_t second);
    // The site writes, in `second` or later.
    static void Remember(int line, const char *file, int64_t second);
    // In a forked child, while it has one thread.
    static void ForgetParents();
};

#endif // TARVO_DIAG_WRITTENSITES_H
