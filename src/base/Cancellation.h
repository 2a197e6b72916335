// Where a thread that is inside the library may be cancelled (pthreads(7)): only where it waits without a lock that
// others need and without a descriptor that only it knows of. Everywhere else there are dozens of cancellation points,
// each log line among them.
#ifndef TARVO_BASE_CANCELLATION_H
#define TARVO_BASE_CANCELLATION_H

#include <pthread.h>

namespace tarvo_cancellation {

// What to restore when the calling thread leaves the library or waits in it; OUTSIDE when nothing is kept off. Not
// thread_local, which costs a call for each access.
constexpr int OUTSIDE = -1;
extern __thread int callersState __attribute__((tls_model("initial-exec"), visibility("hidden")));

} // namespace tarvo_cancellation

// Keeps the calling thread from being cancelled while it lives; inside another one it does nothing. No system call.
// Owns: nothing. Threads: its own. Locks: none. Ends: in the opposite order of construction, with Cancellable.
class Uncancelled {
public:
    Uncancelled() : outermost(!Active()) {
        if (outermost) {
            int state = PTHREAD_CANCEL_ENABLE;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
            tarvo_cancellation::callersState = state;
        }
    }
    ~Uncancelled() {
        if (outermost) {
            const int state = tarvo_cancellation::callersState;
            tarvo_cancellation::callersState = tarvo_cancellation::OUTSIDE;
            pthread_setcancelstate(state, nullptr);
        }
    }
    Uncancelled(const Uncancelled &) = delete;
    Uncancelled &operator=(const Uncancelled &) = delete;

    // Whether one keeps the calling thread from being cancelled.
    static bool Active() { return tarvo_cancellation::callersState != tarvo_cancellation::OUTSIDE; }

private:
    const bool outermost;
};

// A wait inside an Uncancelled: the thread can be cancelled there if its caller allows it. Whatever holds it up to here
// has a destructor that gives back what it holds.
// Owns, Threads, Locks, Ends: as Uncancelled.
class Cancellable {
public:
    Cancellable() : callersState(tarvo_cancellation::callersState) {
        if (callersState != tarvo_cancellation::OUTSIDE) {
            tarvo_cancellation::callersState = tarvo_cancellation::OUTSIDE;
            pthread_setcancelstate(callersState, nullptr);
        }
    }
    ~Cancellable() {
        if (callersState != tarvo_cancellation::OUTSIDE) {
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
            tarvo_cancellation::callersState = callersState;
        }
    }
    Cancellable(const Cancellable &) = delete;
    Cancellable &operator=(const Cancellable &) = delete;

private:
    const int callersState;
};

#endif // TARVO_BASE_CANCELLATION_H
