#ifndef TARVO_BRIDGE_LOCAL_RUNNER_H
#define TARVO_BRIDGE_LOCAL_RUNNER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "core/Bridge.h"
#include "local/LoopSide.h"
#include "loop/Loop.h"
#include "loop/Poller.h"
#include "loop/Timers.h"
#include "loop/Work.h"

namespace tarvo_bridge {

// Something that is done in a loop's next round, once however often it is asked for.
// Owns: its timer. Threads: that of the loop. Locks: none. Ends: before the loop.
class Task final : public Work, public Timer, public Watcher {
public:
    Task(TarvoLoop &owner, std::function<void()> whatToDo) : loop(owner), action(std::move(whatToDo)) {}
    ~Task() override;

    void Soon() { loop.Queue(*this); }
    // Also at that moment, in monotonic milliseconds, in place of the one before; INT64_MAX: never.
    void At(int64_t momentMs);
    // Also whenever a descriptor is readable. 0 or a negated errno.
    int WhenReadable(int fd) { return loop.Events().Add(fd, EPOLLIN, *this, 0, watch); }

    bool Serve(int share, int &ran) override;
    void OnTimer() override { Soon(); }
    void OnEvents(uint32_t /*what*/, uint32_t /*events*/) override { Soon(); }

private:
    TarvoLoop &loop;
    std::function<void()> action;
    Watch watch;
};

// A bridge on a loop.
// Owns: both. Threads: that of the loop. Locks: none. Ends: before the network and the loop.
class Runner final : public Bridge::Listener {
public:
    Runner(TarvoLoop &loop, Plan &&plan, Network &network);

    void Begin() { bridge.Begin(); }
    Bridge &TheBridge() { return bridge; }
    // Told, on the loop, when what the bridge shows of itself may have changed.
    void SetObserver(std::function<void()> toTell) { observer = std::move(toTell); }
    // After the network has told the bridge something.
    void Settle();
    // The same after the turn, which it ends. False: Settle() must follow.
    bool SettleAfter(std::unique_lock<std::mutex> &turn);
    // From now on SendUnsent() is called after each round, which saves one.
    void SetDriven() { driven = true; }
    void SendUnsent();
    bool HasUnsent() const { return unsent; }

    void OnUnsent() override;
    void OnDueChanged() override {
        waiting.At(bridge.Due());
        if (observer) {
            observer();
        }
    }

private:
    LoopSide local;
    Bridge bridge;
    Task sending;
    Task waiting;
    bool driven = false;
    bool unsent = false;
    std::function<void()> observer;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_LOCAL_RUNNER_H
