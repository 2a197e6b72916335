#include "monitor/DataMonitorImpl.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "diag/velm_syslog.h"
#include "fifo/velm_fifo.h"

namespace {

constexpr char LOG_TAG[] = "DataMonitorImpl";

// What stops the thread when it is read from the eventfd.
uint64_t ExitMessage() { return static_cast<uint64_t>(getpid() | 0xA1B2); }

} // namespace

int DataMonitorImpl::Init(const TarvoPriority &priority, int exitId, const DataMonitorType &monitorType) {
    type = monitorType;
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd < 0) {
        const int error = -errno;
        TARVO_LOG(LOG_ERR, "Create epoll instance failed, err = %d, errno = %d", epollFd, error);
        Destroy();
        return error;
    }
    int ret = AddEventFd(exitId);
    if (ret < 0) {
        TARVO_LOG(LOG_ERR, "Create epoll instance failed, err = %d", ret);
        Destroy();
        return ret;
    }
    exitIdx = exitId;
    if (recvThread.Joinable()) {
        return 0;
    }
    ret = StartThread();
    if (ret != 0) {
        Destroy();
        return ret;
    }
    ret = recvThread.SetRTType(priority);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Set thread priority failed, type = %d, ret = %d", priority, ret);
        Destroy();
        return ret;
    }
    return 0;
}

int DataMonitorImpl::AddEventFd(int exitId) {
    eventFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (eventFd < 0) {
        const int error = errno;
        TARVO_LOG(LOG_ERR, "Create eventFd failed, errno = %d", error);
        return -error;
    }
    return AddFdToEpoll(epollFd, eventFd, exitId, EPOLLIN);
}

int DataMonitorImpl::Add(int pipeIdx, int readFd, std::shared_ptr<TarvoPipeImpl> pipe) {
    WriteLock lock(mutex);
    if (table.find(pipeIdx) != table.end()) {
        return 0;
    }
    if (pipe && pipe->IsHeartbeat()) {
        timesEvents.store(true, std::memory_order_relaxed);
    }
    // Before the table knows the pipe: an event that comes at once waits for the mutex before it looks the pipe up.
    const int ret = AddFd(pipeIdx, readFd);
    if (ret < 0) {
        TARVO_LOG(LOG_ERR, "DataMonitorImpl AddFd failed. pipeIdx = %d, readFd = %d.", pipeIdx, readFd);
        return ret;
    }
    AddNewItemToTable(pipeIdx, readFd, pipe);
    if (!GetPipe(pipeIdx)) {
        const int removed = RemoveFd(readFd);
        TARVO_LOG(LOG_ERR, "DataMonitorImpl AddItemToTable failed. pipeIdx = %d, readFd = %d, removeFd ret %d", pipeIdx,
                  readFd, removed);
        return -ENOMEM;
    }
    const int watched = WatchWriteEnd(pipeIdx);
    if (watched < 0) {
        RemoveFd(readFd);
        table.erase(pipeIdx);
        return watched;
    }
    TARVO_LOG(LOG_INFO, "DataMonitorImpl Add. pipeIdx = %d, readFd = %d.", pipeIdx, readFd);
    return 0;
}

int DataMonitorImpl::WatchWriteEnd(int pipeIdx) {
    PipeIdxMgrImpl &entry = table.at(pipeIdx);
    const int writeFd = entry.pipe->LoneWriteFd();
    if (writeFd < 0) {
        return 0;
    }
    const int ret = AddFdToEpoll(epollFd, writeFd, pipeIdx, EPOLLONESHOT);
    if (ret == 0) {
        entry.writeFd = writeFd;
    }
    return ret;
}

int DataMonitorImpl::AddFd(int pipeIdx, int readFd) { return AddFdToEpoll(epollFd, readFd, pipeIdx, EPOLLIN); }

int DataMonitorImpl::RemoveFd(int readFd) const { return RemoveFdFromEpoll(epollFd, readFd); }

void DataMonitorImpl::AddNewItemToTable(int pipeIdx, int readFd, const std::shared_ptr<TarvoPipeImpl> &pipe) {
    try {
        table.emplace(pipeIdx, PipeIdxMgrImpl{pipeIdx, readFd, pipe, -1, ++changes, pipe ? pipe->Opening() : 0});
    } catch (const std::bad_alloc &) {
        // Add() finds the entry missing, and takes the descriptor out again.
        return;
    }
}

int DataMonitorImpl::Remove(int pipeIdx) {
    // Released after the mutex: the last reference closes the pipe.
    std::shared_ptr<TarvoPipeImpl> removed;
    WriteLock lock(mutex);
    const auto found = table.find(pipeIdx);
    if (found == table.end()) {
        TARVO_LOG(LOG_INFO, "Find pipe(%d) in minitorTable unfinished", pipeIdx);
        return -ENOENT;
    }
    return Remove(found, removed);
}

int DataMonitorImpl::Remove(Table::iterator position, std::shared_ptr<TarvoPipeImpl> &removed) {
    PipeIdxMgrImpl &entry = position->second;
    TARVO_LOG(LOG_INFO, "Find pipe(%d) pipeReadFd(%d) in minitorTable.", entry.pipeIdx, entry.readFd);
    const int ret = RemoveFd(entry.readFd);
    if (ret < 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "DataMonitorImpl RemoveFd unfinished. pipeIdx = %d, readFd = %d, ret = %d.",
                             entry.pipeIdx, entry.readFd, ret);
        return ret;
    }
    if (entry.writeFd >= 0) {
        RemoveFd(entry.writeFd);
    }
    removed = std::move(entry.pipe);
    table.erase(position);
    ++changes;
    return 0;
}

std::shared_ptr<TarvoPipeImpl> DataMonitorImpl::GetPipe(int pipeIdx) const {
    const auto found = table.find(pipeIdx);
    if (found == table.end()) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Find pipe(%d) in minitorTable unfinished, table size = %lu.", pipeIdx,
                             table.size());
        return nullptr;
    }
    if (!found->second.pipe) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Find pipe(%d) is nullptr in DataMonitorImpl::GetPipe.", pipeIdx);
    }
    return found->second.pipe;
}

bool DataMonitorImpl::IsDataMonitorRemoteMode() const { return type >= 3 && type <= 5; }

void DataMonitorImpl::Destroy() {
    if (!NotifyDataMonitorExit()) {
        StopWithoutMessage();
    }
    TARVO_LOG(LOG_INFO, "Waiting recevie thread to join");
    try {
        if (recvThread.Joinable()) {
            TARVO_LOG(LOG_DEBUG, "start recv thread join");
            recvThread.Join();
        }
    } catch (const std::system_error &error) {
        TARVO_LOG(LOG_ERR, "Join recv routine failed, system error: %s.", error.what());
    } catch (...) {
        TARVO_LOG(LOG_ERR, "Join recv routine failed.");
    }
    for (int *fd : {&epollFd, &eventFd}) {
        if (*fd != -1) {
            close(*fd);
            *fd = -1;
        }
    }
}

bool DataMonitorImpl::NotifyDataMonitorExit() const {
    const uint64_t msg = ExitMessage();
    const ssize_t ret = write(eventFd, &msg, sizeof(msg));
    if (ret == static_cast<ssize_t>(sizeof(msg))) {
        TARVO_LOG(LOG_INFO, "NotifyDataMonitorExit (EVENTS_IN) success: ret = %ld.", ret);
        return true;
    }
    TARVO_LOG(LOG_ERR, "NotifyDataMonitorExit (EVENTS_IN) failed: ret = %ld, errno = %d.", ret, errno);
    return false;
}

void DataMonitorImpl::StopWithoutMessage() {
    if (!recvThread.Joinable()) {
        return;
    }
    stopping = true;
    // The thread sleeps without a time limit. An eventfd that has not been written is ready to be, which ends that
    // sleep.
    epoll_event writable{};
    writable.events = EPOLLIN | EPOLLOUT;
    writable.data.fd = exitIdx;
    epoll_ctl(epollFd, EPOLL_CTL_MOD, eventFd, &writable);
}

bool DataMonitorImpl::ClearEventFd() const {
    if (eventFd == -1) {
        return true;
    }
    uint64_t msg = 0;
    const ssize_t ret = read(eventFd, &msg, sizeof(msg));
    // errno comes first, whatever the read returned: intended, and only the log line depends on it.
    if (errno == EAGAIN) {
        TARVO_LOG(LOG_NOTICE, "EventFd already cleared: ret = %ld.", ret);
    } else if (ret != static_cast<ssize_t>(sizeof(msg))) {
        TARVO_LOG(LOG_WARNING, "Read eventFd failed: ret = %ld, msg = %lu, errno = %d.", ret, msg, errno);
    } else {
        TARVO_LOG(LOG_INFO, "Read eventFd success: ret = %ld.", ret);
    }
    if (msg != ExitMessage()) {
        TARVO_LOG(LOG_WARNING, "Read unknown eventMsg: ret = %ld, msg = %lu, errno = %d.", ret, msg, errno);
        return false;
    }
    return true;
}
