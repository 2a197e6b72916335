// Sending: frames into the batch, and the batch into the FIFO in one write.
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "local/RelayLink.h"

namespace tarvo_bridge {

void PipeFlusher::Add(RelayLink &link) {
    if (!link.flushQueued) {
        link.flushQueued = true;
        links.push_back(&link);
    }
}

void PipeFlusher::Remove(RelayLink &link) {
    if (link.flushQueued) {
        links.erase(std::find(links.begin(), links.end(), &link));
        link.flushQueued = false;
    }
}

void PipeFlusher::FlushAll() {
    for (RelayLink *const link : links) {
        link->flushQueued = false;
        link->FlushNow();
    }
    links.clear();
}

bool RelayLink::Write(const FrameBytes &frame) {
    if (broken || state != State::OPEN) {
        return true;
    }
    const auto size = static_cast<uint32_t>(frame.payload.size());
    if (!batch.HasRoomFor(size) && !FlushNow()) {
        return false;
    }
    if (!broken) {
        batch.Add(frame.id, static_cast<MsgType>(frame.type), frame.timeout, {frame.payload.data(), size});
        flusher.Add(*this);
    }
    return true;
}

bool RelayLink::Flush() { return broken || state != State::OPEN || FlushNow(); }

bool RelayLink::FlushNow() { return batch.Empty() || (!blocked && WriteBatch()); }

bool RelayLink::WriteBatch() {
    const TarvoBytes frames = batch.Stamped();
    ssize_t written = 0;
    do {
        written = write(writeFd.Get(), frames.data, frames.size);
    } while (written < 0 && errno == EINTR);
    if (written < 0 && errno == EAGAIN && loop.Events().Modify(writeWatch, EPOLLOUT | EPOLLONESHOT) == 0) {
        blocked = true;
        return false;
    }
    // What goes wrong otherwise is that nobody reads: its other end tells of that.
    broken = written != static_cast<ssize_t>(frames.size);
    batch.Clear();
    return true;
}

void RelayLink::OnRoom() {
    blocked = false;
    if (FlushNow()) {
        writable = true;
        loop.Queue(*this);
    }
}

} // namespace tarvo_bridge
