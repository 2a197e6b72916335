#include "support/Interpose.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace tarvo_test {

thread_local int RealTime::depth = 0;
thread_local int OwnMemory::depth = 0;

namespace detail {

std::atomic<unsigned> armed[static_cast<std::size_t>(Call::Count)] = {};

namespace {

// A signal handler that resolves a function, too, would wait for ever for the locks below dlopen.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    BlockedSignals(const BlockedSignals &) = delete;
    BlockedSignals &operator=(const BlockedSignals &) = delete;

private:
    sigset_t before{};
};

std::atomic_flag resolving = ATOMIC_FLAG_INIT;
thread_local int resolvingDepth = 0;

// One thread at a time resolves, and none while the process forks: the child would find the locks below dlopen taken
// for good. A spin lock, since the functions of a mutex are among those to be resolved.
class Resolving {
public:
    Resolving() { Begin(); }
    ~Resolving() { End(); }
    Resolving(const Resolving &) = delete;
    Resolving &operator=(const Resolving &) = delete;

    // Other handlers of forks may have to resolve what they call.
    static void Begin() {
        if (resolvingDepth++ == 0) {
            while (resolving.test_and_set(std::memory_order_acquire)) {
                sched_yield();
            }
        }
    }
    static void End() {
        if (--resolvingDepth == 0) {
            resolving.clear(std::memory_order_release);
        }
    }
};

__attribute__((constructor)) void HoldForForks() { pthread_atfork(Resolving::Begin, Resolving::End, Resolving::End); }

void *Resolved(const char *name) {
    const BlockedSignals blocked;
    const Resolving alone;
    void *found = dlsym(RTLD_NEXT, name);
    // RTLD_NEXT may yield the oldest version of a versioned symbol (realpath, pthread_cond_timedwait); a look-up in
    // the library that was found yields the one that new code is linked to.
    Dl_info where{};
    if (found != nullptr && dladdr(found, &where) != 0) {
        if (void *library = dlopen(where.dli_fname, RTLD_LAZY | RTLD_NOLOAD)) {
            if (void *newest = dlsym(library, name)) {
                found = newest;
            }
            dlclose(library);
        }
    }
    if (found == nullptr) {
        std::fprintf(stderr, "no next definition of %s\n", name);
        std::abort();
    }
    return found;
}

} // namespace

void *ResolveNext(std::atomic<void *> &slot, const char *name) {
    void *found = slot.load(std::memory_order_acquire);
    if (found == nullptr) {
        const int savedErrno = errno;
        found = Resolved(name);
        slot.store(found, std::memory_order_release);
        errno = savedErrno;
    }
    return found;
}

} // namespace detail
} // namespace tarvo_test
