// Opening a connection: both ends, the registration of the read end, the search for the remote's reader. How one end is
// opened is in TarvoPipeImplEnds.cpp.
//
// What goes beyond that guards against what may happen meanwhile, and others have their part in each. A pipe that the
// table gives up is *retired* first (TarvoTable, Retire): it is not opened any more, and a registration that has begun
// is waited for. A close *cancels* an open wherever that waits or has just got a descriptor (CloseOnce sets
// `closeAction` and notifies `openingChanged`; who finds IsClosing gives back what it has); it also ends the search for
// the remote's reader in the background, as a first send does that finds it (OpenWriteFifo). Each open is *counted*
// (`opening`), so that events (DataMonitorImpl's entries), background work (HandleServerOpen) and a remote close
// (HandleRemoteClosed) of an earlier one do not end a later one. A registration that the table refuses is *undone* by
// closing the read end (CloseReadEnd), since an open pipe would not be registered by the next open; one that is under
// way keeps the descriptor from being closed under it (`descriptorUse`, which every close takes), and a remote close,
// which takes it back through the table, from beginning in the middle of it (`openingMutex`). In client mode the
// monitor *watches the write end early* (DataMonitorImpl::WatchWriteEnd, LoneWriteFd), until the pipe's first event,
// since a read end that has never had a writer tells of no hang-up (HasLostRemote). A FIFO that is replaced between two
// looks at it is waited for *again* (OpenPublishedFifo). And a client pipe *waits for the files* of the one before it
// to go, before all this (TarvoClientPipe::AwaitLeftoversGone).
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "diag/velm_syslog.h"
#include "pipe/TarvoPipeImpl.h"
#include "pipe/TimedLock.h"

namespace {

constexpr char LOG_TAG[] = "TarvoPipeImplOpen";
constexpr unsigned SERVER_RETRY_INTERVAL_US = 500000;

} // namespace

int TarvoPipeImpl::TimedOpen(int timeoutMs) {
    TARVO_LOG(LOG_INFO, "begin Timed Open readFd(%d) remote(%s), closeAction=(%d)", readFd.load(), remoteName.c_str(),
              closeAction.load());
    TimedLock lock(openMutex, timeoutMs);
    const int ret = lock.Lock();
    if (ret < 0) {
        TARVO_LOG(LOG_ERR, "Open readFd(%d) remote(%s) timed out", readFd.load(), remoteName.c_str());
        return ret;
    }
    int opened = BeginOpening();
    if (opened == 0 && readFd >= 0) {
        TARVO_LOG(LOG_INFO, "Already open pipe(%d) readFd(%d) to remote(%s)", GetPipeFd(), readFd.load(),
                  remoteName.c_str());
        return 0;
    }
    if (opened == 0) {
        opened = OpenBothEnds(timeoutMs);
    }
    if (opened < 0) {
        stats.Slot().Closed();
        observer.OnOpenFailed(pipeFd);
        return opened;
    }
    if (mode == TARVO_MODE_SERVER && timeout >= 1) {
        StartServerOpen();
    }
    TARVO_LOG(LOG_INFO, "readFd(%d) with writeFd(%d), remote %s established", readFd.load(), writeFd.load(),
              remoteName.c_str());
    return 0;
}

int TarvoPipeImpl::BeginOpening() {
    // After a close that is under way, whose end must not remove the files, the calls or the registration of the pipe
    // opened anew.
    MutexLock begins(openingMutex);
    MutexLock lock(writeFdMutex);
    if (retired) {
        return -ECANCELED;
    }
    closeAction = 1;
    if (readFd < 0) {
        ++opening;
        stats.Slot().Opening();
        openingChanged.notify_all();
    }
    return 0;
}

int TarvoPipeImpl::OpenBothEnds(int timeoutMs) {
    // What is reported below is what this open has come to, also where no system call has failed.
    errno = 0;
    int ret = PrepareWriteFifo(timeoutMs);
    if (ret == -ETIMEDOUT || ret == -ECANCELED) {
        TARVO_LOG(LOG_INFO, "Open pipe to %s, err %d (%s).", remoteName.c_str(), ret, strerror(-ret));
        return ret;
    }
    if (ret < 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Open pipe to %s failed, err = %d, errno = %d.", remoteName.c_str(), ret, errno);
        return ret;
    }
    ret = OpenReadFd();
    if (ret < 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Open pipe readFd failed, ret = %d, pipeName = %s.", ret, readFifoName.c_str());
        return ret;
    }
    outRequests.Enable();
    ret = RegisterReadEnd();
    if (ret < 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Notify observer to add readFd(%d) failed, remote(%s).", readFd.load(),
                             remoteName.c_str());
        // The table tries this open again: it must then register the pipe, and not take it for open.
        CloseReadEnd();
        return ret;
    }
    return 0;
}

void TarvoPipeImpl::CloseReadEnd() {
    MutexLock lock(writeFdMutex);
    const int fd = readFd.exchange(-1);
    if (fd < 0) {
        return;
    }
    { WriteLock unused(descriptorUse); }
    stats.LeavesUnread(fd);
    close(fd);
    if (mode == TARVO_MODE_SERVER) {
        // A close removes the file of an open read end only; the next open makes it anew.
        UnlinkFd(readFifoName);
    }
}

int TarvoPipeImpl::RegisterReadEnd() {
    MutexLock registers(openingMutex);
    // Keeps a concurrent close from handing the descriptor's number to somebody else before the monitor watches it.
    ReadLock use(descriptorUse);
    const int fd = readFd;
    if (fd < 0 || retired) {
        // Closed since, or about to be; that close may have been before the list accepted calls.
        outRequests.Disable();
        return -ECANCELED;
    }
    stats.Slot().Opened();
    return observer.OnPipeOpened(fd, pipeFd, shared_from_this());
}

void TarvoPipeImpl::StartServerOpen() {
    const std::shared_ptr<TarvoPipeImpl> self = shared_from_this();
    const int ret = observer.OnAsyncRequestIn([self] { HandleServerOpen(self); }, priority);
    if (ret != 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Observer handle request failed(%d) for readFd(%d) remote(%s)", ret,
                             readFd.load(), remoteName.c_str());
    }
}

int TarvoPipeImpl::HandleServerOpen(std::shared_ptr<TarvoPipeImpl> pipe) {
    const uint32_t opening = pipe->opening;
    const int ret = pipe->RetryOpenWriteFifo(SERVER_RETRY_INTERVAL_US);
    if (ret >= 0) {
        return ret;
    }
    // -1: closed meanwhile, which nobody needs to be told.
    if (ret != -1) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Self=>Remote:%s=>%s open pipe failed, ret=%d.", pipe->myName.c_str(),
                             pipe->remoteName.c_str(), ret);
    }
    pipe->HandleRemoteClosed(opening);
    return ret;
}
