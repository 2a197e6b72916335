#include "base/SoleRun.h"

bool SoleRun::Begin() {
    const std::thread::id self = std::this_thread::get_id();
    MutexLock lock(mutex);
    if (inside == self) {
        return false;
    }
    while (inside != std::thread::id()) {
        ended.wait(lock.Native());
    }
    inside = self;
    return true;
}

void SoleRun::End() {
    MutexLock lock(mutex);
    inside = std::thread::id();
    ended.notify_all();
}
