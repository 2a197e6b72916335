// The blocking call: it serves its own link and nobody's callback.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "base/Probe.h"
#include "diag/velm_syslog.h"
#include "loop/Link.h"
#include "loop/Moments.h"

namespace {

constexpr char LOG_TAG[] = "LinkSync";
// KeepFrames: the answer is not among them.
constexpr int NOT_YET = 1;

// Of a wait: 0 when something is ready or a signal has come, -ETIMEDOUT, or a negated errno.
int Verdict(int ready) {
    if (ready < 0) {
        return errno == EINTR ? 0 : -errno;
    }
    return ready == 0 ? -ETIMEDOUT : 0;
}

template <std::size_t Count>
int Wait(std::array<pollfd, Count> &fds, int64_t deadlineUs) {
    return Verdict(poll(fds.data(), fds.size(), LeftMs(deadlineUs)));
}

// The same where a millisecond is long. INT64_MAX: no limit.
template <std::size_t Count>
int WaitPrecisely(std::array<pollfd, Count> &fds, int64_t deadlineUs) {
    const int64_t left = std::max<int64_t>(deadlineUs - Now(), 0);
    const timespec limit = ToTimespec(left);
    return Verdict(ppoll(fds.data(), fds.size(), deadlineUs == INT64_MAX ? nullptr : &limit, nullptr));
}

} // namespace

int TarvoLink::CallSync(TarvoBytes payload, int timeoutMs, char *answer, uint32_t &size) {
    timeoutMs = loop.Patient(timeoutMs);
    uint64_t begun = 0;
    const int64_t deadline = DeadlineOf(timeoutMs, begun);
    int ret = state == State::OPENING ? AwaitOpen(deadline) : 0;
    if (ret != 0) {
        if (stats.On()) {
            stats.CallBegun();
            stats.CallEnded(ret);
        }
        return ret;
    }
    const int64_t call = SendSync(payload, timeoutMs);
    if (call < 0) {
        return static_cast<int>(call);
    }
    // Also where the program holds its batch: the answer would never come.
    const int sent = FlushNow();
    ret = sent == 0 || sent == -EAGAIN ? AwaitAnswer(call, deadline, answer, size) : sent;
    TARVO_PROBE_CALL_END(this, Calls::WireId(call), ret);
    if (stats.On()) {
        ret == 0 ? stats.Answered(begun) : stats.CallEnded(ret);
    }
    EndSync(call);
    return ret;
}

int64_t TarvoLink::SendSync(TarvoBytes payload, int timeoutMs) {
    int64_t call = MaySend(payload);
    if (call == 0) {
        call = calls.Begin(nullptr, nullptr, NO_DEADLINE);
        call = call < 0 ? Refuse(0, static_cast<int>(call)) : call;
    }
    if (call > 0) {
        const int ret = Enqueue(Calls::WireId(call), TARVO_STATS_CALL, timeoutMs, payload);
        if (ret != 0) {
            EndSync(call);
            call = ret;
        }
    }
    if (stats.On()) {
        call < 0 ? stats.CallNotSent() : stats.CallBegun();
    }
    return call;
}

void TarvoLink::EndSync(int64_t call) {
    calls.Undo(call);
    if (HasMore() || calls.HasEnds()) {
        loop.Queue(*this);
    }
}

int TarvoLink::AwaitOpen(int64_t deadlineUs) {
    while (state == State::OPENING) {
        const bool last = LeftMs(deadlineUs) == 0;
        const int ret = AwaitStep(deadlineUs);
        if (ret != 0) {
            return ret;
        }
        if (last && state == State::OPENING) {
            return -ETIMEDOUT;
        }
    }
    loop.SettleTimers();
    return 0;
}

// Looks at the clock for this link only: whether an answer on another one has come in time is seen in the round that
// reads it first.
int TarvoLink::AwaitStep(int64_t deadlineUs) {
    std::array<pollfd, 2> fds{{{loop.Directory().Fd(), POLLIN, 0}, {muted ? -1 : readWatch.fd, POLLIN, 0}}};
    const int64_t look = opening->NextLookUs();
    const bool isEnd = deadlineUs != NO_DEADLINE && deadlineUs <= look;
    const int ret = WaitPrecisely(fds, isEnd ? deadlineUs : look);
    if (ret != 0 && (ret != -ETIMEDOUT || isEnd)) {
        return ret;
    }
    if (fds[0].revents != 0) {
        loop.Directory().OnEvents(0, EPOLLIN);
    }
    if (fds[1].revents != 0 && state == State::OPENING) {
        OnEvents(READ_END, static_cast<uint32_t>(fds[1].revents));
    }
    if (state == State::OPENING) {
        opening->LookIfDue();
    }
    return 0;
}

int TarvoLink::AwaitAnswer(int64_t number, int64_t deadlineUs, char *answer, uint32_t &size) {
    // What an earlier round has left comes first.
    int ret = KeepFrames(number, answer, size);
    while (ret == NOT_YET) {
        // There may be something to read whenever it looks.
        const bool last = LeftMs(deadlineUs) == 0;
        ret = AwaitBytes(deadlineUs);
        if (ret == 0) {
            ret = KeepFrames(number, answer, size);
        }
        if (ret == NOT_YET && last) {
            ret = -ETIMEDOUT;
        }
    }
    return ret;
}

int TarvoLink::AwaitBytes(int64_t deadlineUs) {
    if (gone) {
        return -EPIPE;
    }
    std::array<pollfd, 2> fds{{{readFd.Get(), POLLIN, 0}, {writeFd.Get(), 0, 0}}};
    if (blocked) {
        fds[1].events = POLLOUT;
    } else if (heard || lost) {
        fds[1].fd = -1;
    }
    const int ret = Wait(fds, deadlineUs);
    if (ret != 0) {
        return ret;
    }
    if (fds[1].revents != 0 && blocked) {
        OnRoom();
        if (broken) {
            return -EPIPE;
        }
    }
    if (fds[0].revents == 0 && (fds[1].revents & POLLERR) == 0) {
        return 0;
    }
    lost = lost || (fds[1].revents & POLLERR) != 0;
    Read();
    return 0;
}

bool TarvoLink::Keep(const Frame &frame) {
    const bool isKept = kept.Keep(frame, stats.On() ? stats.ReadAt() : 0);
    if (!isKept && frame.type == MSG_TYPE_REQUEST) {
        DropRequest(frame, TARVO_STATS_DROP_MEMORY);
    } else if (stats.On()) {
        isKept ? stats.Keep(frame, reader) : stats.TakeResponse(frame, reader);
    }
    return isKept;
}

// Keeps what has been read for later, but for the answer.
int TarvoLink::KeepFrames(int64_t number, char *answer, uint32_t &size) {
    int ret = NOT_YET;
    Frame frame;
    while (ReadFrame(frame)) {
        const bool isAnswer = ret == NOT_YET && frame.type == MSG_TYPE_RESPONSE && frame.id == Calls::WireId(number);
        if (!isAnswer) {
            if (!Keep(frame)) {
                TARVO_LOG(LOG_ERR, "Keep frame of remote(%s) failed, out of space", origin.remote.c_str());
            }
            continue;
        }
        if (stats.On()) {
            stats.TakeResponse(frame, reader);
        }
        ret = frame.size <= size ? 0 : -EMSGSIZE;
        if (ret == 0) {
            std::memcpy(answer, frame.data, frame.size);
            size = frame.size;
        }
    }
    if (stats.On()) {
        stats.KeptFolded(reader);
    }
    return ret;
}
