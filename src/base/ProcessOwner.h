#ifndef TARVO_BASE_PROCESSOWNER_H
#define TARVO_BASE_PROCESSOWNER_H

#include <sys/types.h>

#include <atomic>

// Which process the library's threads, pipes and files belong to: the one in which the first of them came into being.
// A child that it forks has copies of the objects, but neither the threads nor a right to the files and descriptors.
// fork(2) is noticed as it happens, so that asking costs one look at memory. A child made by a bare clone(2), or by
// _Fork(3), is noticed by its next Claim or LookAgain: opens, ends and the process's exit ask there. One that shares
// its parent's memory, as of vfork(2), is the parent to us; it may only exec.
// Owns: nothing. Threads: any. Locks: none. Ends: never.
class ProcessOwner {
public:
    // Before the first thread, pipe or file is made. In a child of an owner it changes nothing.
    static void Claim();
    // Compares the process ids.
    static void LookAgain();
    // Whether this is a child of the process that all belongs to.
    static bool IsInherited() { return state.load(std::memory_order_relaxed) == State::INHERITED; }
    static bool IsUnclaimed() { return state.load(std::memory_order_relaxed) == State::UNCLAIMED; }

private:
    enum class State { UNCLAIMED, CLAIMED, INHERITED };

    static void AfterForkInChild();
    // Before the handlers of others in the library, which ask for the state.
    static void WatchForks() __attribute__((constructor(101)));

    static std::atomic<State> state;
    static std::atomic<pid_t> owner;
};

#endif // TARVO_BASE_PROCESSOWNER_H
