#include "local/Runner.h"

#include <utility>

#include "loop/Moments.h"

namespace tarvo_bridge {

Task::~Task() {
    loop.Clock().Disarm(*this);
    loop.Events().Remove(watch);
    WorkQueue::Remove(*this);
}

void Task::At(int64_t momentMs) {
    if (momentMs == INT64_MAX) {
        loop.Clock().Disarm(*this);
    } else if (!Armed() || Deadline() != momentMs * MICROSECONDS_PER_MILLISECOND) {
        loop.Clock().Arm(*this, momentMs * MICROSECONDS_PER_MILLISECOND);
    }
    loop.SettleTimers();
}

bool Task::Serve(int /*share*/, int &ran) {
    ++ran;
    action();
    return false;
}

Runner::Runner(TarvoLoop &loop, Plan &&plan, Network &network)
    : local(loop), bridge(std::move(plan), network, local, *this), sending(loop, [this] { SendUnsent(); }),
      waiting(loop, [this] {
          bridge.OnTime();
          local.FlushPipes();
      }) {
    local.SetListener(bridge);
}

void Runner::Settle() { local.FlushPipes(); }

bool Runner::SettleAfter(std::unique_lock<std::mutex> &turn) { return local.FlushPipesAfter(turn); }

void Runner::OnUnsent() {
    unsent = true;
    if (!driven) {
        sending.Soon();
    }
}

void Runner::SendUnsent() {
    if (unsent) {
        unsent = false;
        bridge.Flush();
    }
}

} // namespace tarvo_bridge
