// What the models share. A lock is a bit. Whoever waits for it can go on once it is free; one that nobody gives back shows
// as a state in which nothing can go on, and that fails the run.
#define LOCK(m) atomic { !m -> m = true }
#define UNLOCK(m) m = false

// A reader-writer lock, as shared_mutex.pml shows it to be: readers keep away from a writer that waits.
#define SHARED_LOCK(m) atomic { !m.writer -> m.readers++ }
#define SHARED_UNLOCK(m) m.readers--
#define EXCLUSIVE_LOCK(m)              \
    atomic { !m.writer -> m.writer = true } \
    (m.readers == 0)
#define EXCLUSIVE_UNLOCK(m) m.writer = false

typedef Shared {
    byte readers;
    bool writer
}
