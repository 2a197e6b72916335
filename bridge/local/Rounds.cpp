#include "local/Rounds.h"

#include <climits>
#include <functional>
#include <mutex>
#include <utility>

namespace tarvo_bridge {
namespace {

// What a round runs for one frame of one pipe. Where there is more, another look costs less than another bundle does.
constexpr int ONE_FRAME = 2;

} // namespace

Rounds::Rounds(TarvoLoop &theLoop, Runner &theRunner, NetworkSource &theNetwork)
    : loop(theLoop), runner(theRunner), network(theNetwork), hearing(loop, [this] { Hear(); }) {
    runner.SetDriven();
}

bool Rounds::Run() {
    network.SetTaker(this);
    Poller::Ready ready;
    int ran = 0;
    while (!stopped && ran >= 0) {
        loop.Wait(ready);
        const MutexLock lock(turn);
        ran = loop.Dispatch(ready, INT_MAX);
        if (ran > ONE_FRAME) {
            ran = loop.Dispatch(INT_MAX);
        }
        Finish();
    }
    network.SetTaker(nullptr);
    return ran >= 0;
}

void Rounds::Finish() {
    runner.Settle();
    runner.SendUnsent();
}

void Rounds::Hear() {
    heard = 0;
    onLoop = true;
    for (; !left.empty(); left.pop_front()) {
        OnBundle(left.front());
    }
    network.Poll(*this);
    onLoop = false;
}

// The loop's thread could wait for the DDS meanwhile, so this one must not wait for that. Where much comes together it
// also goes on together, in a round of the loop.
bool Rounds::TakeBundles() {
    std::unique_lock<std::mutex> lock(turn, std::try_to_lock);
    if (!lock.owns_lock() || !left.empty() || heard > 1) {
        return false;
    }
    heard = 0;
    bool all = false;
    const auto endTurn = [this, &lock, &all] {
        if (runner.HasUnsent()) {
            // Credit, which does not hold up the frames.
            Finish();
        }
        const bool noneLeft = left.empty();
        all = runner.SettleAfter(lock) && noneLeft;
    };
    const bool more = network.PollBundles(*this, std::cref(endTurn));
    return all && !more;
}

// Sessions come and go, and links with them, on the loop's thread: the DDS must not be asked for more than to write on
// its own thread, nor kept from its work for long.
void Rounds::OnBundle(Bundle &bundle) {
    heard += bundle.items.size();
    if (onLoop || (left.empty() && runner.TheBridge().IsTraffic(bundle))) {
        runner.TheBridge().OnBundle(bundle);
    } else {
        left.push_back(std::move(bundle));
    }
}

void Rounds::OnAnnounced(const Announcement &announcement) { runner.TheBridge().OnAnnounced(announcement); }
void Rounds::OnRunLost(RunId run) { runner.TheBridge().OnRunLost(run); }

} // namespace tarvo_bridge
