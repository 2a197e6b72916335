// A link's life: names, opening, events, closing.
#include "loop/Link.h"

#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "api/EnvManager.h"
#include "base/Probe.h"
#include "diag/velm_syslog.h"
#include "loop/Files.h"
#include "loop/Service.h"
#include "tarvo_stats.h"

namespace {

constexpr char LOG_TAG[] = "Link";
constexpr char FIFO_NAME_SEPARATOR[] = "__to__";
constexpr std::size_t FIFO_NAME_LIMIT = 255;

std::string PathOf(const std::string &from, const std::string &to) {
    return EnvManager::FifoPrefix() + from + FIFO_NAME_SEPARATOR + to;
}

} // namespace

TarvoLink::TarvoLink(TarvoLoop &owner, LinkSpec &&linkSpec, std::string &&pathRead, std::string &&pathWrite)
    : loop(owner), spec(std::move(linkSpec)), readFile(std::move(pathRead)), writeFile(std::move(pathWrite)),
      stats(spec.self, spec.target), origin{spec.target, -1, stats.Bad()}, reader(origin), calls(loop.Clock(), *this) {}

TarvoLink::~TarvoLink() { WorkQueue::Remove(*this); }

int TarvoLink::Open(TarvoLoop &loop, LinkSpec &&spec, TarvoLink **link) {
    std::string pathRead = PathOf(spec.target, spec.self);
    std::string pathWrite = PathOf(spec.self, spec.target);
    if (pathRead.size() >= FIFO_NAME_LIMIT) {
        TARVO_LOG(LOG_ERR, "file name %s is too long", pathRead.c_str());
        return -EINVAL;
    }
    if (loop.links.find(pathRead) != loop.links.end()) {
        return -EEXIST;
    }
    auto made = std::make_unique<TarvoLink>(loop, std::move(spec), std::move(pathRead), std::move(pathWrite));
    loop.links.emplace(made->readFile, made.get());
    try {
        made->Begin();
    } catch (...) {
        loop.links.erase(made->readFile);
        throw;
    }
    loop.Adopt(*made);
    *link = made.release();
    return 0;
}

int TarvoLink::OpenForClient(TarvoLoop &loop, LinkSpec &&spec, TarvoLink *&firstOfService) {
    const auto found = loop.links.find(PathOf(spec.target, spec.self));
    if (found != loop.links.end()) {
        if (found->second->state == State::OPENING) {
            return 0;
        }
        found->second->ownsFiles = false;
        loop.links.erase(found);
    }
    TarvoLink *link = nullptr;
    const int ret = Open(loop, std::move(spec), &link);
    if (ret != 0) {
        return ret;
    }
    link->nextOfService = firstOfService;
    if (firstOfService != nullptr) {
        firstOfService->previousOfService = link;
    }
    firstOfService = link;
    return 0;
}

int TarvoLink::CopyStats(TarvoStatsPipe &copy) const {
    if (!stats.On()) {
        return -ENODATA;
    }
    stats.Copy(batch, reader, copy);
    return 0;
}

void TarvoLink::Begin() {
    OpeningPlan plan{};
    plan.readFile = readFile;
    plan.writeFile = writeFile;
    if (spec.announces) {
        plan.serverFile = EnvManager::FifoPrefix() + spec.target;
        plan.announced = spec.self;
    }
    plan.makesFiles = spec.makesFiles;
    plan.gid = spec.gid;
    plan.targetPid = spec.targetPid;
    plan.timeoutMs = spec.timeoutMs;
    opening = std::make_unique<Opening>(loop, std::move(plan), *this);
    opening->Begin();
}

int TarvoLink::WatchReadEnd(int fd) {
    muted = false;
    return loop.Events().Add(fd, EPOLLIN, *this, READ_END, readWatch);
}

void TarvoLink::UnwatchReadEnd() { loop.Events().Remove(readWatch); }

void TarvoLink::OnEndsOpen(UniqueFd opened, UniqueFd writeEnd) {
    readFd = std::move(opened);
    writeFd = std::move(writeEnd);
    origin.readFd = readFd.Get();
    ownsFiles = spec.makesFiles;
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
    TARVO_PROBE_OPEN(this, ret);
    CountOpen(ret);
    state = State::OPEN;
    openEnded = true;
    loop.Queue(*this);
}

void TarvoLink::OnOpenFailed(int result) {
    TARVO_PROBE_OPEN(this, result);
    CountOpen(result);
    state = State::FAILED;
    openResult = result;
    openEnded = true;
    loop.Queue(*this);
}

void TarvoLink::CountOpen(int result) {
    if (!stats.On()) {
        return;
    }
    const uint64_t ns = stats.OpenEnded(result);
    if (spec.service != nullptr) {
        spec.service->CountOpen(result == 0, ns);
    }
}

void TarvoLink::OnEvents(uint32_t what, uint32_t events) {
    if (what == WRITE_END) {
        if (blocked) {
            OnRoom();
        }
        if ((events & EPOLLERR) != 0 && !heard) {
            lost = true;
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
        // The bytes stay until the link is open, and would be told of all the time.
        muted = loop.Events().Modify(readWatch, 0) == 0;
    }
}

void TarvoLink::Close() {
    if (state == State::CLOSED) {
        return;
    }
    DropRest();
    calls.CancelAll(loop.Round());
    Shut();
    state = State::CLOSED;
    WorkQueue::Remove(*this);
    if (spec.service != nullptr && !announced) {
        spec.service->Forget(*this);
    }
    if (calls.HasEnds()) {
        loop.Queue(*this);
    } else {
        loop.Bury(*this);
    }
}

// Gives back all that others see of it.
void TarvoLink::Shut() {
    if (opening) {
        opening->Abandon();
    }
    // There may be room by now.
    blocked = false;
    FlushNow();
    if (stats.On()) {
        stats.Lost(batch);
    }
    loop.Events().Remove(readWatch);
    loop.Events().Remove(writeWatch);
    if (ownsFiles) {
        // In this order: whoever opens a link of the same names next waits for the second.
        RemoveOwnFile(readFd.Get(), readFile);
        RemoveOwnFile(writeFd.Get(), writeFile);
        ownsFiles = false;
    }
    readFd.Reset();
    writeFd.Reset();
    const auto found = loop.links.find(readFile);
    if (found != loop.links.end() && found->second == this) {
        loop.links.erase(found);
    }
}

void TarvoLink::OnLoopDestroyed() {
    if (state != State::CLOSED) {
        DropRest();
        Shut();
    }
}

// What has come and not been delivered gets nowhere.
void TarvoLink::DropRest() {
    TARVO_PROBE_CLOSE(this);
    kept.Visit([this](const Frame &frame) { DropUnread(frame, true); });
    reader.VisitRest([this](const Frame &frame) { DropUnread(frame, false); });
    if (stats.On()) {
        stats.Closed(readFd.Get());
    }
}

void TarvoLink::DropUnread(const Frame &frame, bool isKept) {
    if (frame.type == MSG_TYPE_REQUEST) {
        TARVO_PROBE_DROPPED(this, frame.id, TARVO_STATS_DROP_CLOSING);
    }
    if (stats.On()) {
        stats.Unread(frame, isKept);
    }
}
