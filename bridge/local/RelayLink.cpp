#include "local/RelayLink.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "api/EnvManager.h"
#include "loop/Files.h"

namespace tarvo_bridge {
namespace {

constexpr char FIFO_NAME_SEPARATOR[] = "__to__";
constexpr std::size_t FIFO_NAME_LIMIT = 255;

std::string PathOf(const std::string &from, const std::string &to) {
    return EnvManager::FifoPrefix() + from + FIFO_NAME_SEPARATOR + to;
}

} // namespace

RelayLink::RelayLink(TarvoLoop &owner, PipeFlusher &pipeFlusher, RelayPlan &&relayPlan,
                     LocalPipe::Listener &pipeListener)
    : loop(owner), flusher(pipeFlusher), plan(std::move(relayPlan)), listener(&pipeListener),
      readFile(PathOf(plan.remote, plan.self)), writeFile(PathOf(plan.self, plan.remote)), origin{plan.remote, -1},
      reader(origin) {}

RelayLink::~RelayLink() {
    // A closed one has left it already, and may outlive it.
    if (listener != nullptr) {
        flusher.Remove(*this);
    }
    WorkQueue::Remove(*this);
}

RelayLink *RelayLink::Open(TarvoLoop &loop, PipeFlusher &flusher, RelayPlan &&plan, LocalPipe::Listener &listener) {
    auto made = std::make_unique<RelayLink>(loop, flusher, std::move(plan), listener);
    if (made->readFile.size() >= FIFO_NAME_LIMIT) {
        return nullptr;
    }
    made->Begin();
    loop.Adopt(*made);
    return made.release();
}

void RelayLink::Begin() {
    OpeningPlan steps{};
    steps.readFile = readFile;
    steps.writeFile = writeFile;
    if (plan.announces) {
        steps.serverFile = EnvManager::FifoPrefix() + plan.remote;
        steps.announced = plan.self;
    }
    steps.makesFiles = !plan.announces;
    steps.gid = plan.gid;
    steps.targetPid = plan.pid;
    steps.timeoutMs = plan.timeoutMs;
    opening = std::make_unique<::Opening>(loop, std::move(steps), *this);
    opening->Begin();
}

int RelayLink::WatchReadEnd(int fd) {
    muted = false;
    return loop.Events().Add(fd, EPOLLIN, *this, READ_END, readWatch);
}

void RelayLink::UnwatchReadEnd() { loop.Events().Remove(readWatch); }

void RelayLink::OnEndsOpen(UniqueFd opened, UniqueFd writeEnd) {
    readFd = std::move(opened);
    writeFd = std::move(writeEnd);
    origin.readFd = readFd.Get();
    ownsFiles = !plan.announces;
    int ret = 0;
    if (!readWatch.Active()) {
        ret = WatchReadEnd(readFd.Get());
    } else if (muted) {
        ret = loop.Events().Modify(readWatch, EPOLLIN);
    }
    muted = false;
    if (ret == 0 && writeFd.Get() >= 0) {
        // Of itself it tells once that nobody reads any more: until the remote has had a write end, the read end tells
        // nothing of its death.
        ret = loop.Events().Add(writeFd.Get(), EPOLLONESHOT, *this, WRITE_END, writeWatch);
    }
    broken = writeFd.Get() < 0;
    if (ret != 0) {
        Shut();
        OnOpenFailed(ret);
        return;
    }
    state = State::OPEN;
    openEnded = true;
    loop.Queue(*this);
}

void RelayLink::OnOpenFailed(int result) {
    state = State::ENDED;
    openResult = result;
    openEnded = true;
    loop.Queue(*this);
}

void RelayLink::OnEvents(uint32_t what, uint32_t events) {
    if (what == WRITE_END) {
        if (blocked) {
            OnRoom();
        }
        if ((events & EPOLLERR) != 0 && !heard) {
            readable = true;
            loop.Queue(*this);
        }
        return;
    }
    if (state != State::OPENING) {
        readable = true;
        loop.Queue(*this);
        return;
    }
    opening->OnReadEnd((events & EPOLLHUP) != 0);
    if (state == State::OPENING) {
        // The bytes stay until the pipe is open, and would be told of all the time.
        muted = loop.Events().Modify(readWatch, 0) == 0;
    }
}

bool RelayLink::Serve(int share, int &ran) {
    if (openEnded) {
        openEnded = false;
        opening.reset();
        TellEnd();
        ++ran;
        FlushWritten();
    }
    if (writable && listener != nullptr) {
        writable = false;
        listener->OnPipeWritable();
        ++ran;
        FlushWritten();
    }
    while (ran < share && ServeFrame()) {
        ++ran;
    }
    if (state == State::OPEN && listener != nullptr && reader.HasUnread() && !reader.Stash()) {
        End();
    }
    if (state == State::OPEN && listener != nullptr && !paused && (reader.HasNext() || readable || gone)) {
        loop.Queue(*this);
    }
    return false;
}

// What has been written outside of the network's turn, after which all pipes are flushed.
void RelayLink::FlushWritten() {
    if (state == State::OPEN && listener != nullptr) {
        FlushNow();
    }
}

// Of the open.
void RelayLink::TellEnd() {
    if (listener == nullptr) {
        return;
    }
    if (state == State::OPEN) {
        listener->OnPipeOpen();
    } else {
        listener->OnPipeFailed(openResult);
    }
}

// Whether there may be more in this turn, in which one read is done at most.
bool RelayLink::ServeFrame() {
    if (state != State::OPEN || listener == nullptr || paused) {
        return false;
    }
    Frame frame{};
    if (reader.Next(frame)) {
        listener->OnPipeFrame({frame.id, static_cast<uint32_t>(frame.type), frame.timeout, {frame.data, frame.size}});
        return true;
    }
    if (readable) {
        Read();
        return reader.HasNext() || gone;
    }
    if (gone) {
        End();
    }
    return false;
}

void RelayLink::Read() {
    readable = false;
    const ssize_t count = read(readFd.Get(), loop.Scratch(), TarvoLoop::SCRATCH_SIZE);
    if (count > 0) {
        heard = true;
        reader.Feed(loop.Scratch(), static_cast<std::size_t>(count));
        return;
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    gone = true;
    reader.End();
    loop.Events().Remove(readWatch);
}

void RelayLink::End() {
    state = State::ENDED;
    flusher.AwaitLate();
    broken = true;
    listener->OnPipeGone();
}

void RelayLink::Pause() {
    if (paused) {
        return;
    }
    paused = true;
    loop.Events().Remove(readWatch);
}

void RelayLink::Resume() {
    if (!paused) {
        return;
    }
    paused = false;
    if (state != State::OPEN) {
        return;
    }
    if (!gone && WatchReadEnd(readFd.Get()) != 0) {
        gone = true;
    }
    loop.Queue(*this);
}

void RelayLink::Close() {
    if (listener == nullptr) {
        return;
    }
    listener = nullptr;
    state = State::ENDED;
    Shut();
    WorkQueue::Remove(*this);
    flusher.Remove(*this);
    loop.Bury(*this);
}

// Gives back all that others see of it.
void RelayLink::Shut() {
    if (opening) {
        opening->Abandon();
    }
    blocked = false;
    flusher.AwaitLate();
    if (!broken && writeFd.Get() >= 0) {
        FlushNow();
    }
    loop.Events().Remove(readWatch);
    loop.Events().Remove(writeWatch);
    if (ownsFiles) {
        // In this order: whoever opens a pipe of the same names next waits for the second.
        RemoveOwnFile(readFd.Get(), readFile);
        RemoveOwnFile(writeFd.Get(), writeFile);
        ownsFiles = false;
    }
    readFd.Reset();
    writeFd.Reset();
}

void RelayLink::OnLoopDestroyed() {
    if (listener != nullptr) {
        Shut();
    }
}

} // namespace tarvo_bridge
