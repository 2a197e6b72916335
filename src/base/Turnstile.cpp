#include "base/Turnstile.h"

void Turnstile::AwaitEmpty() {
    MutexLock lock(mutex);
    while (inside != 0) {
        empty.wait(lock.Native());
    }
}

void Turnstile::ReportEmpty() {
    // Not between the waiting thread's look at the count and its sleep.
    MutexLock lock(mutex);
    empty.notify_all();
}
