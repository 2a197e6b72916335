// Receiving: one large read in a turn, and the callbacks of what it has brought.
#include <unistd.h>

#include <cerrno>

#include "base/Probe.h"
#include "diag/velm_syslog.h"
#include "loop/Link.h"
#include "loop/Service.h"
#include "tarvo_stats.h"

namespace {

constexpr char LOG_TAG[] = "LinkReceive";

} // namespace

bool TarvoLink::Serve(int share, int &ran) {
    mayRead = true;
    if (stats.On()) {
        stats.BeginTurn();
    }
    Step step = Step::AGAIN;
    while (ran < share && step != Step::NOTHING && !loop.Interrupted()) {
        step = ServeOne();
        ran += step == Step::RAN ? 1 : 0;
    }
    // What has no room elsewhere is delivered now, for the bytes have to go: more than the share then.
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): nothing dies in a round, as this is, which it cannot see
    while (state != State::CLOSED && !loop.IsDestroyed() && reader.HasNext() && !reader.Stash() &&
           ServeOne() != Step::NOTHING) {
        ++ran;
    }
    if (stats.On()) {
        stats.EndTurn(reader);
    }
    if (state == State::CLOSED && !calls.HasEnds()) {
        loop.Bury(*this);
        return false;
    }
    const bool more = calls.HasEnds() || HasMore();
    if (more && step == Step::NOTHING) {
        // What there is, is for the next round.
        loop.Queue(*this);
        return false;
    }
    return more;
}

bool TarvoLink::HasMore() {
    return state != State::CLOSED &&
           (openEnded || writable || readable || (gone && state == State::OPEN) || !kept.Empty() || reader.HasNext());
}

TarvoLink::Step TarvoLink::ServeOne() {
    const Step ends = ServeEnds();
    if (ends != Step::AGAIN) {
        return ends;
    }
    if (state == State::CLOSED) {
        return Step::NOTHING;
    }
    if (openEnded) {
        return TellOpened();
    }
    if (writable) {
        return TellWritable();
    }
    Frame frame;
    if (NextFrame(frame)) {
        return Deliver(frame);
    }
    if (readable && mayRead) {
        Read();
        return Step::AGAIN;
    }
    if (gone) {
        return TellClosed();
    }
    return Step::NOTHING;
}

// AGAIN: no end is to be told.
TarvoLink::Step TarvoLink::ServeEnds() {
    if (!calls.HasEnds()) {
        return Step::AGAIN;
    }
    CallEnd end{};
    if (!calls.NextEnd(loop.Round(), end)) {
        return Step::NOTHING;
    }
    TARVO_PROBE_CALL_END(this, end.wireId, end.result);
    if (stats.On()) {
        stats.CallEnded(end.result);
    }
    const LinkStats::Other other(stats);
    end.done(end.context, end.result, {nullptr, 0});
    return Step::RAN;
}

TarvoLink::Step TarvoLink::TellOpened() {
    openEnded = false;
    opening.reset();
    if (spec.service != nullptr && !announced) {
        if (state == State::FAILED) {
            Close();
            return Step::NOTHING;
        }
        announced = true;
        return spec.service->TellClient(*this) ? Step::RAN : Step::AGAIN;
    }
    if (spec.callbacks.opened == nullptr) {
        return Step::AGAIN;
    }
    const LinkStats::Other other(stats);
    spec.callbacks.opened(spec.context, this, openResult);
    return Step::RAN;
}

TarvoLink::Step TarvoLink::TellWritable() {
    writable = false;
    full = false;
    if (spec.callbacks.writable == nullptr) {
        return Step::AGAIN;
    }
    const LinkStats::Other other(stats);
    spec.callbacks.writable(spec.context, this);
    return Step::RAN;
}

bool TarvoLink::TakeKept(Frame &frame) {
    if (!kept.Next(frame)) {
        return false;
    }
    if (stats.On()) {
        stats.TakeKept(frame, kept.ReadAt());
    }
    return true;
}

bool TarvoLink::ReadFrame(Frame &frame) {
    if (!reader.Next(frame)) {
        return false;
    }
    if (frame.type == MSG_TYPE_RESPONSE) {
        TARVO_PROBE_RESPONSE_READ(this, frame.id, frame.size, frame.writeStartTime);
    } else {
        TARVO_PROBE_REQUEST_READ(this, frame.id, frame.size, frame.writeStartTime);
    }
    return true;
}

TarvoLink::Step TarvoLink::Deliver(const Frame &frame) {
    if (frame.type == MSG_TYPE_RESPONSE) {
        return EndCall(frame);
    }
    if (spec.callbacks.request == nullptr) {
        DropRequest(frame, TARVO_STATS_DROP_CACHE);
        return Step::AGAIN;
    }
    uint32_t number = 0;
    if (!requests.Add(frame.id, number)) {
        TARVO_LOG(LOG_ERR, "Add InRequest failed, out of space");
        DropRequest(frame, TARVO_STATS_DROP_MEMORY);
        return Step::AGAIN;
    }
    return stats.On() && !stats.IsPlain(frame) ? RunCounted(frame, number) : RunRequest(frame, number);
}

TarvoLink::Step TarvoLink::EndCall(const Frame &frame) {
    CallEnd end{};
    const bool isAwaited = calls.Answer(frame.id, end);
    if (stats.On()) {
        stats.TakeResponse(frame, reader);
        isAwaited ? stats.Answered(end.begun) : stats.Late();
    }
    if (!isAwaited) {
        return Step::AGAIN;
    }
    TARVO_PROBE_CALL_END(this, frame.id, end.result);
    const LinkStats::Other other(stats);
    end.done(end.context, 0, {frame.data, frame.size});
    return Step::RAN;
}

TarvoLink::Step TarvoLink::RunRequest(const Frame &frame, uint32_t number) {
    TARVO_PROBE_CALLBACK_START(this, frame.id);
    spec.callbacks.request(spec.context, this, number, {frame.data, frame.size});
    TARVO_PROBE_CALLBACK_END(this, frame.id);
    return Step::RAN;
}

TarvoLink::Step TarvoLink::RunCounted(const Frame &frame, uint32_t number) {
    stats.CallbackBegins(frame, reader);
    const Step step = RunRequest(frame, number);
    if (stats.CallbackReturned(!reader.HasUnread() && kept.Empty())) {
        loop.LookLater(stats);
    }
    return step;
}

void TarvoLink::DropRequest(const Frame &frame, uint32_t reason) {
    TARVO_PROBE_DROPPED(this, frame.id, reason);
    if (stats.On()) {
        stats.Dropped(frame, reason, reader);
    }
}

void TarvoLink::Read() {
    readable = false;
    mayRead = false;
    const ssize_t count = read(readFd.Get(), loop.Scratch(), TarvoLoop::SCRATCH_SIZE);
    if (count > 0) {
        heard = true;
        reader.Feed(loop.Scratch(), static_cast<std::size_t>(count));
        if (stats.On()) {
            stats.Read(reader);
        }
        return;
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    OnRemoteGone();
}

void TarvoLink::OnRemoteGone() {
    TARVO_PROBE_REMOTE_CLOSE(this);
    if (stats.On()) {
        stats.RemoteClosed();
    }
    gone = true;
    reader.End();
    loop.Events().Remove(readWatch);
}

TarvoLink::Step TarvoLink::TellClosed() {
    if (state != State::OPEN) {
        return Step::NOTHING;
    }
    // Nor may a new call begin in the end of one.
    broken = true;
    calls.EndAll(-EPIPE, 0);
    if (calls.HasEnds()) {
        // They are told first.
        return Step::AGAIN;
    }
    state = State::GONE;
    Step step = Step::AGAIN;
    if (spec.callbacks.closed != nullptr) {
        const LinkStats::Other other(stats);
        spec.callbacks.closed(spec.context, this);
        step = Step::RAN;
    }
    if (announced) {
        Close();
    }
    return step;
}
