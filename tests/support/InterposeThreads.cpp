// Threads, semaphores, the environment and the formatting of time.
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/prctl.h>

#include <cstdarg>
#include <cstdlib>
#include <ctime>

#include "support/Interpose.h"

using tarvo_test::Call;
using tarvo_test::CallInfo;
using tarvo_test::detail::Forward;

namespace {

CallInfo ValueCall(Call call, int number, const void *data) {
    CallInfo info{call};
    info.number = number;
    info.data = const_cast<void *>(data);
    return info;
}

CallInfo TextCall(Call call, const char *text, const char *second = nullptr) {
    CallInfo info{call};
    info.path = text;
    info.path2 = second;
    return info;
}

} // namespace

extern "C" {

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *),
                   void *argument) noexcept {
    return Forward<int>(ValueCall(Call::PthreadCreate, 0, attributes),
                        [&] { return TARVO_NEXT(pthread_create)(thread, attributes, start, argument); });
}

int pthread_join(pthread_t thread, void **result) {
    return Forward<int>(ValueCall(Call::PthreadJoin, 0, nullptr),
                        [&] { return TARVO_NEXT(pthread_join)(thread, result); });
}

int pthread_setschedparam(pthread_t thread, int policy, const struct sched_param *parameters) noexcept {
    return Forward<int>(ValueCall(Call::PthreadSetschedparam, policy, parameters),
                        [&] { return TARVO_NEXT(pthread_setschedparam)(thread, policy, parameters); });
}

int pthread_setcancelstate(int state, int *oldState) {
    return Forward<int>(ValueCall(Call::PthreadSetcancelstate, state, oldState),
                        [&] { return TARVO_NEXT(pthread_setcancelstate)(state, oldState); });
}

int sched_getscheduler(pid_t thread) noexcept {
    return Forward<int>(ValueCall(Call::SchedGetscheduler, thread, nullptr),
                        [&] { return TARVO_NEXT(sched_getscheduler)(thread); });
}

int pthread_cond_signal(pthread_cond_t *cond) noexcept {
    return Forward<int>(ValueCall(Call::CondSignal, 0, cond), [&] { return TARVO_NEXT(pthread_cond_signal)(cond); });
}

int sem_wait(sem_t *semaphore) {
    return Forward<int>(ValueCall(Call::SemWait, 0, semaphore), [&] { return TARVO_NEXT(sem_wait)(semaphore); });
}

int sem_post(sem_t *semaphore) noexcept {
    return Forward<int>(ValueCall(Call::SemPost, 0, semaphore), [&] { return TARVO_NEXT(sem_post)(semaphore); });
}

int prctl(int option, ...) noexcept {
    va_list args;
    va_start(args, option);
    unsigned long values[4];
    for (unsigned long &value : values) {
        value = va_arg(args, unsigned long);
    }
    va_end(args);
    return Forward<int>(ValueCall(Call::Prctl, option, reinterpret_cast<const void *>(values[0])),
                        [&] { return TARVO_NEXT(prctl)(option, values[0], values[1], values[2], values[3]); });
}

int setenv(const char *name, const char *value, int replace) noexcept {
    CallInfo info = TextCall(Call::Setenv, name, value);
    info.number = replace;
    return Forward<int>(info, [&] { return TARVO_NEXT(setenv)(name, value, replace); });
}

int unsetenv(const char *name) noexcept {
    return Forward<int>(TextCall(Call::Unsetenv, name), [&] { return TARVO_NEXT(unsetenv)(name); });
}

size_t strftime(char *buffer, size_t size, const char *format, const struct tm *time) noexcept {
    CallInfo info = TextCall(Call::Strftime, format);
    info.data = buffer;
    info.size = size;
    return Forward<size_t>(info, [&] {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        return TARVO_NEXT(strftime)(buffer, size, format, time);
#pragma GCC diagnostic pop
    });
}

} // extern "C"
