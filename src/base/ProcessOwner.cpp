#include "base/ProcessOwner.h"

#include <pthread.h>
#include <unistd.h>

std::atomic<ProcessOwner::State> ProcessOwner::state{State::UNCLAIMED};
std::atomic<pid_t> ProcessOwner::owner{0};

void ProcessOwner::Claim() {
    LookAgain();
    if (IsUnclaimed()) {
        owner = getpid();
        state = State::CLAIMED;
    }
}

void ProcessOwner::LookAgain() {
    if (state == State::CLAIMED && getpid() != owner) {
        state = State::INHERITED;
    }
}

void ProcessOwner::AfterForkInChild() {
    if (state == State::CLAIMED) {
        state = State::INHERITED;
    }
}

// It can fail only for want of memory; forks are then noticed as those are that no handler is told of.
void ProcessOwner::WatchForks() { pthread_atfork(nullptr, nullptr, AfterForkInChild); }
