// Part of the library in ThreadSanitizer builds only. std::timed_mutex waits with pthread_mutex_clocklock, which the
// sanitizer of this compiler generation does not know: it would take every such lock for no lock at all and report
// races that do not exist. This stands in front of the C library's function and tells it, as it does itself for the
// others.
#include <dlfcn.h>
#include <pthread.h>
#include <sanitizer/tsan_interface.h>

using ClockLock = int(pthread_mutex_t *, clockid_t, const timespec *);

// Present once the sanitizer knows the function; then there is nothing left to tell.
extern "C" __attribute__((weak)) ClockLock __interceptor_pthread_mutex_clocklock;

extern "C" int pthread_mutex_clocklock(pthread_mutex_t *mutex, clockid_t clock, const timespec *until) noexcept {
    static auto *const next = reinterpret_cast<ClockLock *>(dlsym(RTLD_NEXT, "pthread_mutex_clocklock"));
    if (__interceptor_pthread_mutex_clocklock != nullptr) {
        return next(mutex, clock, until);
    }
    __tsan_mutex_pre_lock(mutex, __tsan_mutex_try_lock);
    const int result = next(mutex, clock, until);
    const unsigned failed = result == 0 ? 0U : __tsan_mutex_try_lock_failed;
    __tsan_mutex_post_lock(mutex, __tsan_mutex_try_lock | failed, 0);
    return result;
}
