#ifndef TARVO_BASE_SINGLETONPROTECTOR_H
#define TARVO_BASE_SINGLETONPROTECTOR_H

#include <memory>

#include "base/LockOrder.h"
#include "base/SharedMutex.h"

// Guards a process-wide object so that callers during process exit get an empty reference instead of a dangling one.
// Owns: nothing (a weak reference). Threads: any. Locks: `lock` orders `alive` against readers. Ends: never
// where callers may come during process exit: the owner of the object makes it, publishes it and disables it.
template <typename T>
class SingletonProtector {
public:
    explicit SingletonProtector(const std::shared_ptr<T> &object) : instance(object) {}

    ~SingletonProtector() {
        Disable();
        instance.reset();
    }

    SingletonProtector(const SingletonProtector &) = delete;
    SingletonProtector &operator=(const SingletonProtector &) = delete;

    // A strong reference to the object, or an empty one once it is going away.
    std::shared_ptr<T> Get() EXCLUDES(lock) {
        ReadLock guard(lock);
        return alive ? instance.lock() : nullptr;
    }

    // From now on Get() yields nothing. Waits for readers that are in the middle of it.
    void Disable() EXCLUDES(lock) {
        WriteLock guard(lock);
        alive = false;
    }

private:
    bool alive GUARDED_BY(lock) = true;
    std::weak_ptr<T> instance;
    SharedMutex lock ACQUIRED_AFTER(lock_order::logging);
};

#endif // TARVO_BASE_SINGLETONPROTECTOR_H
