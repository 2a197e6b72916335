#include "program/Rounds.h"

#include <poll.h>

#include <climits>
#include <mutex>
#include <utility>

namespace tarvo_bridge {

Rounds::Rounds(TarvoLoop &theLoop, Runner &theRunner, DdsNetwork &theNetwork)
    : loop(theLoop), runner(theRunner), network(theNetwork), hearing(loop, [this] { Hear(); }) {
    runner.SetDriven();
}

Rounds::~Rounds() { network.SetTaker(nullptr); }

void Rounds::Run() {
    network.SetTaker(this);
    pollfd sleep{loop.Fd(), POLLIN, 0};
    while (!stopped) {
        poll(&sleep, 1, -1);
        const MutexLock lock(turn);
        loop.Dispatch(INT_MAX);
        Finish();
    }
    network.SetTaker(nullptr);
}

void Rounds::Finish() {
    runner.Settle();
    runner.SendUnsent();
}

void Rounds::Hear() {
    for (; !left.empty(); left.pop_front()) {
        runner.TheBridge().OnBundle(left.front());
    }
    network.Poll(runner.TheBridge());
}

// The loop's thread could wait for the DDS meanwhile, so this one must not wait for that.
bool Rounds::TakeBundles() {
    const std::unique_lock<std::mutex> lock(turn, std::try_to_lock);
    if (!lock.owns_lock() || !left.empty()) {
        return false;
    }
    const bool more = network.PollBundles(*this);
    Finish();
    return !more && left.empty();
}

// Sessions come and go, and links with them, on the loop's thread: the DDS must not be asked for more than to write on
// its own thread, nor kept from its work for long.
void Rounds::OnBundle(Bundle &bundle) {
    if (left.empty() && runner.TheBridge().IsTraffic(bundle)) {
        runner.TheBridge().OnBundle(bundle);
    } else {
        left.push_back(std::move(bundle));
    }
}

// Only bundles are taken here.
void Rounds::OnAnnounced(const Announcement & /*announcement*/) {}
void Rounds::OnRunLost(RunId /*run*/) {}

} // namespace tarvo_bridge
