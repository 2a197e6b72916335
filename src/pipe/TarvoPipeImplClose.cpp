// Closing: the remote's end noticed, descriptors closed once, waiters woken, files removed by the side that made them.
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "base/Probe.h"
#include "diag/velm_syslog.h"
#include "pipe/TarvoPipeImpl.h"

namespace {

constexpr char LOG_TAG[] = "TarvoPipeImplClose";

} // namespace

void TarvoPipeImpl::HandleRemoteClosed() { HandleRemoteClosed(opening); }

// The receive thread and the search for the remote's reader may both notice the same end.
bool TarvoPipeImpl::TellOnce(const std::shared_ptr<const TarvoTask> &notice, uint32_t ofOpening) {
    if (toldOpening == ofOpening) {
        return true;
    }
    if (HandleNotice(notice) == 0) {
        toldOpening = ofOpening;
        return true;
    }
    return IsClosing();
}

void TarvoPipeImpl::HandleRemoteClosed(uint32_t ofOpening) {
    // Made, and dropped, without a lock held, since the user's callback is copied into it.
    const std::shared_ptr<const TarvoTask> notice = serviceHandler ? MakeTask(nullptr, serviceHandler) : nullptr;
    MutexLock lock(remoteCloseMutex);
    TARVO_LOG(LOG_DEBUG, "readFd: %d, writeFd: %d, myName: %s reomteName: %s", readFd.load(), writeFd.load(),
              myName.c_str(), remoteName.c_str());
    if (opening == ofOpening && !IsClosing()) {
        TARVO_PROBE_REMOTE_CLOSE(pipeFd.load());
        stats.Slot().RemoteClosed();
    }
    // A callback that cannot be told (its queue is full, say) must not keep the pipe open for ever with its callers
    // waiting: the pipe then closes as one without a callback.
    if (opening == ofOpening && serviceHandler && TellOnce(notice, ofOpening)) {
        return;
    }
    // Whoever wants to open the pipe again waits for this, and finds it closed and registered nowhere.
    MutexLock ending(openingMutex);
    if (opening != ofOpening) {
        return;
    }
    observer.OnPipeRemoteClosed(pipeFd);
    DeInitPipe();
}

uint32_t TarvoPipeImpl::ReadyEvents() {
    static_assert(POLLIN == EPOLLIN && POLLHUP == EPOLLHUP && POLLERR == EPOLLERR, "one kernel, one set of names");
    ReadLock use(descriptorUse);
    // A negative descriptor is passed over.
    std::array<pollfd, 2> ends{{{readFd, POLLIN, 0}, {LoneWriteFd(), 0, 0}}};
    int ready = 0;
    do { // a signal that comes just now interrupts even a poll that does not wait
        ready = poll(ends.data(), ends.size(), 0);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return 0;
    }
    return static_cast<uint32_t>((ends[0].revents & (POLLIN | POLLHUP)) | (ends[1].revents & POLLERR));
}

void TarvoPipeImpl::OnRemoteClosedFinished() { observer.OnFreeSelfWorker(workerName); }

int TarvoPipeImpl::CloseFd() {
    MutexLock lock(writeFdMutex);
    return CloseOnce();
}

void TarvoPipeImpl::DeInitPipe() {
    // In one, so that an open that follows at once does not find its calls refused.
    MutexLock lock(writeFdMutex);
    CloseOnce();
    outRequests.Disable();
}

void TarvoPipeImpl::Retire() {
    MutexLock lock(writeFdMutex);
    retired = true;
    WriteLock registered(descriptorUse);
}

int TarvoPipeImpl::CloseOnce() {
    TARVO_LOG(LOG_INFO, "Tarvo CloseFd, fd=%d, readfd=%d, writefd=%d, closeFdAction=%d, %s=>%s", GetPipeFd(),
              readFd.load(), writeFd.load(), closeAction.load(), myName.c_str(), remoteName.c_str());
    if (closeAction != 1) {
        return 0;
    }
    TARVO_PROBE_CLOSE(pipeFd.load());
    closeAction = -1;
    openingChanged.notify_all();
    const int oldReadFd = readFd.exchange(-1);
    const int oldWriteFd = writeFd.exchange(-1);
    {
        // Whoever is inside a system call on one of them finishes first; nobody can begin one any more.
        WriteLock unused(descriptorUse);
    }
    stats.LeavesUnread(oldReadFd);
    stats.Slot().Closed();
    int ret = 0;
    if (oldReadFd >= 0) {
        if (close(oldReadFd) != 0) {
            TARVO_LOG(LOG_ERR, "close non block readFd %d failed, errno = %d", oldReadFd, errno);
        }
        if (mode == TARVO_MODE_SERVER) {
            ret = UnlinkFd(readFifoName);
        }
    }
    if (oldWriteFd >= 0 && close(oldWriteFd) != 0) {
        TARVO_LOG(LOG_ERR, "close writeFd %d failed, errno = %d", oldWriteFd, errno);
    }
    if (mode == TARVO_MODE_SERVER) {
        ret = UnlinkFd(writeFifoName);
    }
    return ret;
}

int TarvoPipeImpl::UnlinkFd(const std::string &name) const {
    int ret = access(name.c_str(), F_OK);
    if (ret != 0) {
        return ret;
    }
    ret = unlink(name.c_str());
    if (ret != 0) {
        TARVO_LOG(LOG_WARNING, "clean pipe=%s failed, errno = %d", name.c_str(), errno);
    }
    return ret;
}

void TarvoPipeImpl::CleanPipe() {
    if (mode == TARVO_MODE_SERVER) {
        TARVO_LOG(LOG_ERR, "CleanPipe should only be called by client, input fd(%d)", GetPipeFd());
        return;
    }
    UnlinkFd(readFifoName);
    UnlinkFd(writeFifoName);
}

void TarvoPipeImpl::ExceptionHandler() {
    unlink(writeFifoName.c_str());
    unlink(readFifoName.c_str());
}
