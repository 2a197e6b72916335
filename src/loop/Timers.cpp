#include "loop/Timers.h"

#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "diag/velm_syslog.h"
#include "loop/Moments.h"

namespace {

constexpr char LOG_TAG[] = "Timers";

} // namespace

int Timers::Init() {
    fd = UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    return fd.Get() < 0 ? -errno : 0;
}

bool Timers::Arm(Timer &timer, int64_t deadlineUs) {
    const Entry entry{deadlineUs, &timer};
    if (timer.Armed()) {
        const bool earlier = deadlineUs < timer.deadline;
        timer.deadline = deadlineUs;
        earlier ? Rise(timer.position, entry) : Sink(timer.position, entry);
        return true;
    }
    try {
        heap.push_back(entry);
    } catch (const std::bad_alloc &) {
        return false;
    }
    timer.deadline = deadlineUs;
    Rise(heap.size() - 1, entry);
    return true;
}

void Timers::Disarm(Timer &timer) {
    if (!timer.Armed()) {
        return;
    }
    const std::size_t position = timer.position;
    timer.position = Timer::NOWHERE;
    const Entry last = heap.back();
    heap.pop_back();
    if (last.timer == &timer) {
        return;
    }
    if (position > 0 && last.deadline < heap[(position - 1) / 2].deadline) {
        Rise(position, last);
    } else {
        Sink(position, last);
    }
}

void Timers::Expire() {
    if (setTo != FIRED || heap.empty()) {
        return;
    }
    const auto now = Now();
    while (!heap.empty() && heap.front().deadline <= now) {
        Timer &timer = *heap.front().timer;
        Disarm(timer);
        timer.OnTimer();
    }
}

void Timers::Ring(Timer &timer) {
    if (timer.Armed() && timer.deadline <= Now()) {
        // That of the descriptor is no later.
        Fired();
        Disarm(timer);
        timer.OnTimer();
    }
}

void Timers::Settle() {
    const int64_t earliest = heap.empty() ? UNSET : heap.front().deadline;
    if (earliest < setTo || setTo == FIRED) {
        Set(earliest);
    }
}

void Timers::Set(int64_t deadlineUs) {
    itimerspec when{};
    if (deadlineUs != UNSET) {
        // A time of zero would switch it off.
        when.it_value = ToTimespec(std::max<int64_t>(deadlineUs, 1));
    }
    if (timerfd_settime(fd.Get(), TFD_TIMER_ABSTIME, &when, nullptr) != 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Set timer failed, errno = %d.", errno);
        return;
    }
    setTo = deadlineUs;
}

void Timers::Place(std::size_t position, Entry entry) {
    heap[position] = entry;
    entry.timer->position = position;
}

void Timers::Rise(std::size_t position, Entry entry) {
    while (position > 0) {
        const std::size_t parent = (position - 1) / 2;
        if (heap[parent].deadline <= entry.deadline) {
            break;
        }
        Place(position, heap[parent]);
        position = parent;
    }
    Place(position, entry);
}

void Timers::Sink(std::size_t position, Entry entry) {
    for (std::size_t child = 2 * position + 1; child < heap.size(); child = 2 * position + 1) {
        if (child + 1 < heap.size() && heap[child + 1].deadline < heap[child].deadline) {
            ++child;
        }
        if (entry.deadline <= heap[child].deadline) {
            break;
        }
        Place(position, heap[child]);
        position = child;
    }
    Place(position, entry);
}
