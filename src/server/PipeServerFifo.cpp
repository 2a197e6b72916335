// The server's FIFO: its name, the two ends of it that the server holds, and the wake-up through them.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "api/EnvManager.h"
#include "fifo/velm_fifo.h"
#include "server/PipeServer.h"

namespace {

bool IsSameFile(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

} // namespace

int PipeServer::GetFifoName() {
    const char *selfName = GetServerAttr().selfName;
    try {
        const std::string prefix = EnvManager::FifoPrefix();
        const std::string ownName = selfName != nullptr ? selfName : EnvManager::ProcName();
        if (prefix.empty() || ownName.empty()) {
            return -EINVAL;
        }
        const std::string root = GetCurrDomain() == TARVO_DOMAIN_ORLA ? EnvManager::OrlaFifoDirPrefix() : "";
        fifoName = &*fifoNames.insert(root + prefix + ownName).first;
        return 0;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -ENOMEM;
    }
}

int PipeServer::OpenWriteEnd() {
    // A writer of our own keeps the FIFO from reporting a hang-up whenever the last client closes, and wakes our
    // thread. Its writes block, its open does not: we are a reader already, unless another server has put its own file
    // there just now, whose reader may never come.
    try {
        const int fd = OpenPublishedFifo(FifoName(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            return fd;
        }
        writeFd = fd;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -ENOMEM;
    }
    fcntl(writeFd, F_SETFL, 0);
    return 0;
}

bool PipeServer::HoldsBothEnds() const {
    struct stat readEnd {};
    struct stat writeEnd {};
    struct stat named {};
    return fstat(monitorFd, &readEnd) == 0 && fstat(writeFd, &writeEnd) == 0 &&
           lstat(FifoName().c_str(), &named) == 0 && IsSameFile(readEnd, writeEnd) && IsSameFile(readEnd, named);
}

void PipeServer::WakeThread() {
    // The thread may sleep in the middle of a packet that never ends, and the terminate packet may have become part of
    // that. A FIFO that has room makes its write end ready and so ends that sleep, this time and every other; one that
    // has none holds packets, and the thread is not asleep.
    epoll_event event{};
    event.events = EPOLLOUT;
    event.data.fd = writeFd;
    epoll_ctl(epollFd, EPOLL_CTL_MOD, writeFd, &event);
}

// Not in the class, where a caller may inline it and leave the library without it.
std::string PipeServer::GetFifoNameForDFX() const { return FifoName(); }

void PipeServer::ExceptionHandler() const { unlink(FifoName().c_str()); }
