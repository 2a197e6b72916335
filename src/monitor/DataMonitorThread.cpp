// The receive thread: waits for events and hands each to its pipe.
#include <pthread.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "diag/run_time_record.h"
#include "diag/velm_syslog.h"
#include "monitor/DataMonitorImpl.h"
#include "worker/PoolStats.h"

namespace {

// One component with the monitor, one source tag.
constexpr char LOG_TAG[] = "DataMonitorImpl";
constexpr int MAX_EVENTS = 1024;

} // namespace

int DataMonitorImpl::StartThread() {
    try {
        events = std::make_unique<epoll_event[]>(MAX_EVENTS);
        recvThread.Create(&DataMonitorImpl::RecvRoutine, this);
    } catch (const std::system_error &error) {
        TARVO_LOG(LOG_ERR, "start RecThread failed, system error: %s.", error.what());
        return -ENOSPC;
    } catch (...) {
        TARVO_LOG(LOG_ERR, "start RecThread failed.");
        return -ENOSPC;
    }
    return 0;
}

int DataMonitorImpl::Monitor(const std::unique_ptr<epoll_event[]> &ready, int maxEvents) {
    // The wait is the only place where the thread can be cancelled.
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
    const int nfds = epoll_wait(epollFd, ready.get(), maxEvents, -1);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    return nfds;
}

void DataMonitorImpl::PrepareThread() {
    if (prctl(PR_SET_NAME, threadName) != 0) {
        TARVO_LOG(LOG_INFO, "Set monitor thread name unfinished, errno = %d", errno);
    }
    NuroCoreSetaffinity();
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    TARVO_LOG(LOG_INFO, "DataMonitorImpl RecvRoutine fired");
}

void DataMonitorImpl::RecvRoutine() {
    const PoolStats::Monitor counted;
    PrepareThread();
    Tarvo::EpollTimeRecord record;
    record.epollWaitT = static_cast<int64_t>(Tarvo::GetCurrentTime());
    bool stop = false;
    while (!stop) {
        const uint64_t known = changes.load(std::memory_order_acquire);
        const int nfds = Monitor(events, MAX_EVENTS);
        const int error = errno;
        if (timesEvents.load(std::memory_order_relaxed)) {
            record.epollRecvT = static_cast<int64_t>(Tarvo::GetCurrentTime());
        }
        record.eventNum = nfds;
        TARVO_LOG(LOG_INFO, "Monitor enter, nfds = %d.", nfds);
        if (nfds < 1 || nfds > MAX_EVENTS) {
            if (nfds >= 1 || error != EINTR) {
                TARVO_LOG_RESTRAINED(LOG_ERR, "Monitor failed, ret = %d, errno(%d): %s", nfds, error, strerror(error));
            }
            continue;
        }
        // The whole batch, also past the request to stop: what arrived together with it is still delivered.
        for (int i = 0; i < nfds; ++i) {
            stop = HandleEvent(events[static_cast<std::size_t>(i)], i, known, record) || stop;
        }
    }
    TARVO_LOG(LOG_NOTICE, "DataMonitorImpl RecvRoutine end");
    events.reset();
}

bool DataMonitorImpl::HandleEvent(const epoll_event &event, int i, uint64_t known, Tarvo::EpollTimeRecord &record) {
    const int pipeIdx = event.data.fd;
    const auto position = static_cast<unsigned long>(i);
    TARVO_LOG(LOG_INFO, "Monitor recived event, i = %lu, pipeIdx = %d.", position, pipeIdx);
    if (pipeIdx > 0 && pipeIdx == exitIdx) {
        return ClearEventFd() || stopping;
    }
    PipeIdxMgrImpl entry{};
    {
        ReadLock lock(mutex);
        const auto found = table.find(pipeIdx);
        if (found != table.end() && found->second.pipe) {
            entry = found->second;
        } else if (changes.load(std::memory_order_relaxed) != known) {
            // Most likely removed since the wait began, which is no trouble. If not, the event comes again.
            return false;
        } else {
            GetPipe(pipeIdx);
            TARVO_LOG_RESTRAINED(LOG_ERR, "DataMonitorImpl RecvRoutine pipe == nullptr, i=%lu, pipeIdx=%d, events=%u.",
                                 position, pipeIdx, event.events);
            return false;
        }
    }
    record.eventIdx = i + 1;
    HandlePipeEvent(event, entry, known, record);
    return false;
}

void DataMonitorImpl::HandlePipeEvent(const epoll_event &event, const PipeIdxMgrImpl &entry, uint64_t known,
                                      Tarvo::EpollTimeRecord &record) {
    epoll_event seen = event;
    if (entry.registration > known || (event.events & EPOLLERR) != 0) {
        // An event that may be an earlier entry's, or one of the write end (the read end of a FIFO has no such event),
        // which matters only while the read end has nothing to tell.
        seen.events = entry.pipe->ReadyEvents();
    }
    if (seen.events == 0) {
        return;
    }
    if (seen.events == EPOLLERR) {
        seen.events = entry.pipe->HasLostRemote(record) ? static_cast<uint32_t>(EPOLLHUP) : 0U;
    }
    if (entry.writeFd >= 0 && (seen.events & EPOLLHUP) == 0) {
        UnwatchWriteEnd(entry);
    }
    entry.pipe->HandleEvent(seen, record, entry.opening);
    if ((seen.events & EPOLLHUP) != 0) {
        RemoveEntry(entry);
    }
}

DataMonitorImpl::Table::iterator DataMonitorImpl::Locate(const PipeIdxMgrImpl &entry) {
    const auto found = table.find(entry.pipeIdx);
    return found != table.end() && found->second.registration == entry.registration ? found : table.end();
}

void DataMonitorImpl::RemoveEntry(const PipeIdxMgrImpl &entry) {
    std::shared_ptr<TarvoPipeImpl> removed;
    // The end of all pipes closes them while they are still watched: not in the middle of this removal.
    ReadLock use(entry.pipe->DescriptorUse());
    WriteLock lock(mutex);
    const auto found = Locate(entry);
    if (found == table.end()) {
        TARVO_LOG(LOG_INFO, "Find pipe(%d) in minitorTable unfinished", entry.pipeIdx);
        return;
    }
    Remove(found, removed);
}

void DataMonitorImpl::UnwatchWriteEnd(const PipeIdxMgrImpl &entry) {
    ReadLock use(entry.pipe->DescriptorUse());
    WriteLock lock(mutex);
    const auto found = Locate(entry);
    if (found == table.end() || entry.pipe->LoneWriteFd() != entry.writeFd) {
        return;
    }
    RemoveFd(entry.writeFd);
    found->second.writeFd = -1;
}
