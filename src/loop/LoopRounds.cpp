// The rounds of a loop: events become marks, then callbacks run, then what they have sent is written.
#include <algorithm>
#include <cerrno>
#include <climits>

#include "loop/Link.h"
#include "loop/LinkStats.h"
#include "loop/Loop.h"
#include "loop/Moments.h"
#include "stats/Stats.h"

// The length of a round. Owns: nothing. Threads: that of the loop. Locks: none. Ends: before the loop may be freed.
class TarvoLoop::RoundScope {
public:
    explicit RoundScope(TarvoLoop &owner) : loop(owner) { loop.inRound = true; }
    // Also where the thread is cancelled in its sleep or in a callback.
    ~RoundScope() {
        // Otherwise it is done already.
        loop.EndRound();
        loop.inRound = false;
        loop.running = false;
        loop.sleeping.store(false, std::memory_order_relaxed);
        if (!loop.ready.Empty() && !loop.destroyed) {
            loop.posts.Wake();
        }
    }
    RoundScope(const RoundScope &) = delete;
    RoundScope &operator=(const RoundScope &) = delete;

private:
    TarvoLoop &loop;
};

int TarvoLoop::Dispatch(int max) {
    Poller::Ready told;
    poller.Wait(told, 0);
    return Dispatch(told, max);
}

int TarvoLoop::Dispatch(const Poller::Ready &told, int max) {
    int ran = 0;
    int ret = 0;
    {
        const RoundScope scope(*this);
        ret = RunRound(told, max, ran);
    }
    return Finish(ret < 0 ? ret : ran);
}

int TarvoLoop::Run(int timeoutMs) {
    const int64_t deadline = DeadlineIn(timeoutMs);
    int ret = 0;
    {
        const RoundScope scope(*this);
        running = true;
        bool more = !TakeStop();
        while (more) {
            int wait = LeftMs(deadline);
            const bool last = wait == 0;
            wait = ready.Empty() ? wait : 0;
            int ran = 0;
            Poller::Ready told;
            Sleep(told, wait);
            ret = RunRound(told, INT_MAX, ran);
            if (destroyed || ret < 0 || TakeStop()) {
                more = false;
            } else if (last) {
                ret = -ETIMEDOUT;
                more = false;
            }
        }
    }
    return Finish(ret);
}

int TarvoLoop::Finish(int result) {
    if (destroyed) {
        delete this;
        return -ECANCELED;
    }
    return result;
}

int TarvoLoop::RunRound(const Poller::Ready &told, int max, int &ran) {
    const int ret = poller.Tell(told);
    if (ret < 0) {
        return ret;
    }
    ++round;
    ServeAll(max, ran);
    EndRound();
    return 0;
}

void TarvoLoop::Sleep(Poller::Ready &told, int waitMs) {
    if (waitMs == 0) {
        poller.Wait(told, 0);
        return;
    }
    // In this order, as Stop() has it the other way round: either the stop is seen here, or the sleep there.
    sleeping.store(true);
    poller.Wait(told, stop.load() ? 0 : waitMs);
    sleeping.store(false, std::memory_order_relaxed);
}

bool TarvoLoop::TakeStop() {
    if (!stop.load(std::memory_order_relaxed) || !stop.exchange(false)) {
        return false;
    }
    // It may have woken the thread when that did not sleep any more: for this the descriptor must not be readable.
    OnEvents(POSTS, EPOLLIN);
    return true;
}

void TarvoLoop::EndRound() {
    // What has no share left comes first in the next round.
    WorkQueue fresh;
    fresh.Take(ready);
    ready.Take(current);
    ready.Take(later);
    ready.Take(fresh);
    FlushAll();
    if (unended != nullptr) {
        Look();
    }
    FreeBuried();
    timers.Settle();
}

void TarvoLoop::ServeAll(int max, int &ran) {
    current.Take(ready);
    ServeQueue(max, ran);
    // After the links have read what was there: an answer that has come in time counts, however late this round is.
    later.Take(ready);
    timers.Expire();
    current.Take(ready);
    ServeQueue(max, ran);
}

void TarvoLoop::ServeQueue(int max, int &ran) {
    while (!current.Empty() && ran < max && !Interrupted()) {
        const auto waiting = static_cast<int>(std::min<std::size_t>(current.Size(), INT_MAX));
        Work &work = current.Pop();
        const int share = std::max((max - ran) / waiting, 1);
        if (unended != nullptr) {
            Look();
        }
        int served = 0;
        const bool more = work.Serve(share, served);
        ran += served;
        if (more) {
            current.Append(work);
        }
    }
}

uint64_t TarvoLoop::Look() {
    const uint64_t now = Stats::Now();
    if (unended != nullptr) {
        unended->CallbackEnded(now);
        unended = nullptr;
    }
    return now;
}

void TarvoLoop::FlushAll() {
    while (firstToFlush != nullptr) {
        TarvoLink &link = *firstToFlush;
        firstToFlush = link.nextToFlush;
        link.FlushAtRoundEnd();
    }
}

void TarvoLoop::OnEvents(uint32_t what, uint32_t /*events*/) {
    if (what == TIMERS) {
        timers.Fired();
        return;
    }
    posts.Clear();
    if (posts.HasAny()) {
        ready.Append(posts);
    }
}
