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
    AwaitLate();
    lateLinks.erase(std::remove(lateLinks.begin(), lateLinks.end(), &link), lateLinks.end());
}

void PipeFlusher::FlushAll() {
    if (!late.load(std::memory_order_acquire)) {
        for (RelayLink *const link : lateLinks) {
            Add(*link);
        }
        lateLinks.clear();
    }
    for (RelayLink *const link : links) {
        link->flushQueued = false;
        link->FlushNow();
    }
    links.clear();
}

bool PipeFlusher::FlushAfter(std::unique_lock<std::mutex> &turn) {
    const MutexLock lock(writing);
    late.store(true, std::memory_order_relaxed);
    for (RelayLink *const link : links) {
        link->flushQueued = false;
        if (!link->blocked) {
            lateLinks.push_back(link);
        }
    }
    links.clear();
    turn.unlock();
    const auto isEmptied = [](RelayLink *link) { return link->batch.Empty() || link->WriteBatch(); };
    lateLinks.erase(std::remove_if(lateLinks.begin(), lateLinks.end(), isEmptied), lateLinks.end());
    const bool all = lateLinks.empty();
    late.store(false, std::memory_order_release);
    return all;
}

void PipeFlusher::AwaitLate() {
    if (late.load(std::memory_order_acquire)) {
        const MutexLock lock(writing);
    }
}

bool RelayLink::Write(const FrameBytes &frame) {
    flusher.AwaitLate();
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

bool RelayLink::Flush() {
    flusher.AwaitLate();
    return broken || state != State::OPEN || FlushNow();
}

bool RelayLink::FlushNow() {
    flusher.AwaitLate();
    return batch.Empty() || (!blocked && WriteOrWait());
}

// False: there is no room, and the loop tells when there is.
bool RelayLink::WriteOrWait() {
    if (WriteBatch()) {
        return true;
    }
    blocked = loop.Events().Modify(writeWatch, EPOLLOUT | EPOLLONESHOT) == 0;
    if (!blocked) {
        broken = true;
        batch.Clear();
    }
    return !blocked;
}

// False: there is no room.
bool RelayLink::WriteBatch() {
    const TarvoBytes frames = batch.Stamped();
    ssize_t written = 0;
    do {
        written = write(writeFd.Get(), frames.data, frames.size);
    } while (written < 0 && errno == EINTR);
    if (written < 0 && errno == EAGAIN) {
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
