// The blocking call: it serves its own link and nobody's callback.
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "diag/velm_syslog.h"
#include "loop/Link.h"
#include "loop/Moments.h"

namespace {

constexpr char LOG_TAG[] = "LinkSync";
// KeepFrames: the answer is not among them.
constexpr int NOT_YET = 1;

// 0 when one of them is ready or a signal has come, -ETIMEDOUT, or a negated errno.
template <std::size_t Count>
int Wait(std::array<pollfd, Count> &fds, int64_t deadlineUs) {
    const int ready = poll(fds.data(), fds.size(), LeftMs(deadlineUs));
    if (ready < 0 && errno != EINTR) {
        return -errno;
    }
    return ready == 0 ? -ETIMEDOUT : 0;
}

} // namespace

int TarvoLink::CallSync(TarvoBytes payload, int timeoutMs, char *answer, uint32_t &size) {
    timeoutMs = loop.Patient(timeoutMs);
    const int64_t deadline = DeadlineIn(timeoutMs);
    int ret = state == State::OPENING ? AwaitOpen(deadline) : 0;
    if (ret == 0) {
        ret = CheckSend(payload);
    }
    if (ret != 0) {
        return ret;
    }
    const int64_t call = calls.Begin(nullptr, nullptr, NO_DEADLINE);
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
        loop.SettleTimers();
        std::array<pollfd, 3> fds{{{loop.Clock().Fd(), POLLIN, 0},
                                   {loop.Directory().Fd(), POLLIN, 0},
                                   {muted ? -1 : readWatch.fd, POLLIN, 0}}};
        const int ret = Wait(fds, deadlineUs);
        if (ret != 0) {
            return ret;
        }
        if (fds[0].revents != 0) {
            loop.Clock().Fired();
            loop.Clock().Expire();
        }
        if (fds[1].revents != 0) {
            loop.Directory().OnEvents(0, EPOLLIN);
        }
        if (fds[2].revents != 0 && state == State::OPENING) {
            OnEvents(READ_END, static_cast<uint32_t>(fds[2].revents));
        }
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
