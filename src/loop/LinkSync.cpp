// The blocking call: it serves its own link and nobody's callback.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "diag/run_time_record.h"
#include "diag/velm_syslog.h"
#include "loop/Link.h"

namespace {

constexpr char LOG_TAG[] = "LinkSync";
constexpr int64_t MICROSECONDS_PER_MILLISECOND = 1000;
constexpr int64_t NO_DEADLINE = INT64_MAX;
// The link waits for this call itself.
constexpr int64_t NO_TIMER = -1;
constexpr int64_t MICROSECONDS = 1000000;
constexpr int64_t NANOSECONDS_PER_MICROSECOND = 1000;
constexpr int PATIENT_TIMEOUT_MS = 18000000;
// KeepFrames: the answer is not among them.
constexpr int NOT_YET = 1;

int64_t Now() { return static_cast<int64_t>(Tarvo::GetCurrentTime()); }

// 0 when one of them is ready or a signal has come, -ETIMEDOUT, or a negated errno.
template <std::size_t Count>
int Wait(std::array<pollfd, Count> &fds, int64_t deadlineUs) {
    timespec left{};
    if (deadlineUs != NO_DEADLINE) {
        const int64_t leftUs = std::max<int64_t>(deadlineUs - Now(), 0);
        left.tv_sec = leftUs / MICROSECONDS;
        left.tv_nsec = leftUs % MICROSECONDS * NANOSECONDS_PER_MICROSECOND;
    }
    const int ready = ppoll(fds.data(), fds.size(), deadlineUs != NO_DEADLINE ? &left : nullptr, nullptr);
    if (ready < 0 && errno != EINTR) {
        return -errno;
    }
    return ready == 0 ? -ETIMEDOUT : 0;
}

} // namespace

int TarvoLink::CallSync(TarvoBytes payload, int timeoutMs, char *answer, uint32_t &size) {
    int64_t deadline = NO_DEADLINE;
    if (timeoutMs >= 0) {
        timeoutMs = loop.IsPatient() ? PATIENT_TIMEOUT_MS : timeoutMs;
        deadline = Now() + timeoutMs * MICROSECONDS_PER_MILLISECOND;
    }
    int ret = state == State::OPENING ? AwaitOpen(deadline) : 0;
    if (ret == 0) {
        ret = CheckSend(payload);
    }
    if (ret != 0) {
        return ret;
    }
    const int64_t call = calls.Begin(nullptr, nullptr, NO_TIMER);
    if (call < 0) {
        return static_cast<int>(call);
    }
    ret = Enqueue(Calls::WireId(call), MSG_TYPE_REQUEST, timeoutMs, payload);
    if (ret == 0) {
        // Also where the program holds its batch: the answer would never come.
        const int sent = FlushNow();
        ret = sent == 0 || sent == -EAGAIN ? AwaitAnswer(call, deadline, answer, size) : sent;
    }
    calls.Undo(call);
    if (HasMore() || calls.HasEnds()) {
        loop.Queue(*this);
    }
    return ret;
}

int TarvoLink::AwaitOpen(int64_t deadlineUs) {
    while (state == State::OPENING) {
        std::array<pollfd, 2> fds{{{loop.Directory().Fd(), POLLIN, 0}, {muted ? -1 : readWatch.fd, POLLIN, 0}}};
        const int64_t moment = opening->NextMoment(deadlineUs);
        const int ret = Wait(fds, moment);
        if (ret != 0 && (ret != -ETIMEDOUT || moment == deadlineUs)) {
            return ret;
        }
        if (fds[0].revents != 0) {
            loop.Directory().OnEvents(0, EPOLLIN);
        }
        if (fds[1].revents != 0 && state == State::OPENING) {
            OnEvents(READ_END, static_cast<uint32_t>(fds[1].revents));
        }
        // Not all timers of the loop: the answers to the calls of other links may have come in time.
        opening->OnMoment();
    }
    loop.SettleTimers();
    return 0;
}

int TarvoLink::AwaitAnswer(int64_t number, int64_t deadlineUs, char *answer, uint32_t &size) {
    // What an earlier round has left comes first.
    int ret = KeepFrames(number, answer, size);
    while (ret == NOT_YET) {
        ret = AwaitBytes(deadlineUs);
        if (ret == 0) {
            ret = KeepFrames(number, answer, size);
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

// Keeps what has been read for later, but for the answer.
int TarvoLink::KeepFrames(int64_t number, char *answer, uint32_t &size) {
    int ret = NOT_YET;
    Frame frame;
    while (reader.Next(frame)) {
        const bool isAnswer = ret == NOT_YET && frame.type == MSG_TYPE_RESPONSE && frame.id == Calls::WireId(number);
        if (!isAnswer) {
            if (!kept.Keep(frame)) {
                TARVO_LOG(LOG_ERR, "Keep frame of remote(%s) failed, out of space", origin.remote.c_str());
            }
            continue;
        }
        ret = frame.size <= size ? 0 : -EMSGSIZE;
        if (ret == 0) {
            std::memcpy(answer, frame.data, frame.size);
            size = frame.size;
        }
    }
    return ret;
}
