// The C library's functions as the test program defines them in front of libc's. Every one forwards to the next
// definition (libc's or a sanitizer's) unless a rule of Faults.h is armed for it.
#ifndef TARVO_SUPPORT_INTERPOSE_H
#define TARVO_SUPPORT_INTERPOSE_H

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <type_traits>

namespace tarvo_test {

enum class Call {
    Mkfifo,
    Open,
    Read,
    Write,
    Close,
    Unlink,
    Link,
    Chmod,
    Chown, // chown and lchown
    Lstat,
    Fstat,
    Access,
    Realpath,
    Flock,
    Fcntl,
    EpollCreate, // epoll_create and epoll_create1
    EpollCtl,
    EpollWait,
    Poll,
    Eventfd,
    InotifyInit, // inotify_init1
    InotifyAddWatch,
    TimerfdCreate,
    TimerfdSettime,
    Prctl,
    PthreadCreate,
    PthreadJoin,
    PthreadSetschedparam,
    PthreadSetcancelstate,
    SchedGetscheduler,
    SemWait,
    SemPost,
    ClockGettime,
    Strftime,
    Setenv,
    Unsetenv,
    Syslog,
    CondSignal,    // pthread_cond_signal, which wakes one waiter
    CondTimedwait, // pthread_cond_timedwait and pthread_cond_clockwait
    SemTimedwait,  // sem_timedwait and sem_clockwait
    Sleep,         // nanosleep, clock_nanosleep, usleep
    Count,
};

// The arguments of one call; what a function does not have keeps its default.
struct CallInfo {
    Call call;
    const char *path = nullptr;  // file; setenv, unsetenv: variable; strftime: format; syslog: the formatted line
    const char *path2 = nullptr; // link: the new name; setenv: the value
    int fd = -1;                 // descriptor; epoll_ctl: the descriptor that is added or removed
    int epollFd = -1;            // epoll_ctl, epoll_wait
    int number = 0;              // flags, mode, operation, policy, priority, clock, option, time-out, uid, state, pid
    std::size_t size = 0;        // bytes; epoll_wait, poll: number of entries; chown: gid; open: mode; eventfd: flags
    void *data = nullptr;        // buffer, events, poll's entries, scheduling parameters, semaphore, condition variable
    const struct timespec *until = nullptr; // timed waits on condition variables: the deadline
};

// What a call returns instead of being made: `value` as its result, and `error` in errno when not 0.
struct Outcome {
    long value = 0;
    int error = 0;
};

// While it lives, time-outs and clock readings of this thread are real: for the watchdogs of the test support.
class RealTime {
public:
    RealTime() { ++depth; }
    ~RealTime() { --depth; }
    RealTime(const RealTime &) = delete;
    RealTime &operator=(const RealTime &) = delete;
    static bool Wanted() { return depth > 0; }

private:
    static thread_local int depth;
};

// While it lives, what this thread allocates is the test support's own business and never fails (AllocFaults.h).
class OwnMemory {
public:
    OwnMemory() { ++depth; }
    ~OwnMemory() { --depth; }
    OwnMemory(const OwnMemory &) = delete;
    OwnMemory &operator=(const OwnMemory &) = delete;
    static bool Wanted() { return depth > 0; }

private:
    static thread_local int depth;
};

namespace detail {

// Number of rules armed for each call; constant-initialised, since constructors of other libraries call in early.
extern std::atomic<unsigned> armed[static_cast<std::size_t>(Call::Count)];

// The next definition of `name` after this program's, as new code is linked to it (its default version).
void *ResolveNext(std::atomic<void *> &slot, const char *name);

// Runs the rules for this call; a value means that the call is not made. Keeps errno.
std::optional<Outcome> ApplyRules(const CallInfo &info);

template <typename R, typename Real>
R Forward(const CallInfo &info, Real real) {
    if (armed[static_cast<std::size_t>(info.call)].load(std::memory_order_acquire) == 0) {
        return real();
    }
    const std::optional<Outcome> outcome = ApplyRules(info);
    if (!outcome) {
        return real();
    }
    if (outcome->error != 0) {
        errno = outcome->error;
    }
    if constexpr (std::is_void_v<R>) {
        return;
    } else if constexpr (std::is_pointer_v<R>) {
        return reinterpret_cast<R>(outcome->value);
    } else {
        return static_cast<R>(outcome->value);
    }
}

} // namespace detail
} // namespace tarvo_test

// The next definition of a C library function.
#define TARVO_NEXT(name)                                                                                               \
    ([]() {                                                                                                            \
        static std::atomic<void *> slot{nullptr};                                                                      \
        return reinterpret_cast<decltype(&::name)>(::tarvo_test::detail::ResolveNext(slot, #name));                    \
    }())

#endif // TARVO_SUPPORT_INTERPOSE_H
