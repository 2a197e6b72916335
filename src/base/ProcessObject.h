#ifndef TARVO_BASE_PROCESSOBJECT_H
#define TARVO_BASE_PROCESSOBJECT_H

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "base/ForkLock.h"
#include "base/LockOrder.h"
#include "base/Mutex.h"
#include "base/ProcessOwner.h"
#include "base/SingletonProtector.h"

// An object of which a process has one, with its protector: made on first use, handed out until process exit begins,
// and never to a child of the process that the library's threads and files belong to. A child forked before there were
// any makes its own.
//
// `Kind` says what it is: `Object`, `Make(arguments...)`, which yields it, and `End(object)`, which process exit calls,
// in the opposite order of making, when the object is not handed out any more.
//
// Owns: the object, until End; the protector for ever, for calls that come later. Threads: any. Locks: `making`, while
// the object is made. Ends: never.
template <typename Kind>
class ProcessObject {
public:
    using Object = typename Kind::Object;

    template <typename... Arguments>
    static std::shared_ptr<Object> Get(const Arguments &...arguments) {
        if (ProcessOwner::IsInherited()) {
            return nullptr;
        }
        Slot *const slot = current.load(std::memory_order_acquire);
        return (slot != nullptr ? slot : Make(arguments...))->protector.Get();
    }

    // From now on it is not handed out in this process.
    static void Disable() {
        if (Slot *const slot = current.load(std::memory_order_acquire)) {
            slot->protector.Disable();
        }
    }

private:
    struct Slot {
        explicit Slot(std::shared_ptr<Object> made) : object(std::move(made)), protector(object) {}

        std::shared_ptr<Object> object;
        SingletonProtector<Object> protector;
        Slot *parents = nullptr;
    };

    template <typename... Arguments>
    static Slot *Make(const Arguments &...arguments) EXCLUDES(making) {
        MutexLock lock(making);
        if (Slot *const slot = current.load(std::memory_order_relaxed)) {
            return slot;
        }
        auto slot = std::make_unique<Slot>(Kind::Make(arguments...));
        if (!registered) {
            // Another thread may end the process at any moment: it finds all of the object, or nothing.
            if (!watchesForks || std::atexit(End) != 0) {
                throw std::bad_alloc();
            }
            registered = true;
        }
        current.store(slot.get(), std::memory_order_release);
        return slot.release();
    }

    static void End() {
        ProcessOwner::LookAgain();
        Slot *const slot = current.load(std::memory_order_acquire);
        if (slot == nullptr || ProcessOwner::IsInherited() || ended.exchange(true)) {
            return;
        }
        slot->protector.Disable();
        Kind::End(slot->object);
    }

    // A fork waits for a thread that is making the object, which may be inside atexit(3) with a lock of the C library:
    // nobody would give that back in the child.
    static void HoldForFork() { forkLock.Take(making); }

    static void ReleaseInParent() { forkLock.ReleaseInParent(making); }

    // The only thread of the child. Other threads of the parent may have been in the middle of anything with its
    // object, which is left as it is for ever.
    static void ForgetParents() {
        forkLock.ReleaseInChild(making);
        if (!ProcessOwner::IsUnclaimed() || ended) {
            return;
        }
        if (Slot *const slot = current.exchange(nullptr)) {
            slot->parents = forgotten;
            forgotten = slot;
        }
    }

    static inline std::atomic<Slot *> current{nullptr};
    static inline Slot *forgotten = nullptr;
    static inline std::atomic<bool> ended{false};
    static inline Mutex making ACQUIRED_AFTER(lock_order::logging);
    static inline bool registered GUARDED_BY(making) = false;
    // When the library is loaded: a fork may come while the first object is being made.
    static inline const bool watchesForks = pthread_atfork(HoldForFork, ReleaseInParent, ForgetParents) == 0;
    static inline __thread ForkLock forkLock;
};

#endif // TARVO_BASE_PROCESSOBJECT_H
