// The server's FIFO: its name, its publication, the two ends of it that the server holds, and the wake-up through them.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "api/EnvManager.h"
#include "diag/velm_syslog.h"
#include "fifo/check_file_attr.h"
#include "fifo/velm_fifo.h"
#include "server/PipeServer.h"

namespace {

// One component with the server, one source tag.
constexpr char LOG_TAG[] = "PipeServer";
// How often a start whose file another server has replaced meanwhile begins anew.
constexpr int MAX_STARTS_OVER = 3;

// Keeps the errno that the report of the failure shows. Not where the open has failed for want of a file: one that is
// there now is another server's.
void RemoveOwnFile(const std::string &file, int openResult) {
    const int error = errno;
    if (openResult != -ENOENT && access(file.c_str(), F_OK) == 0) {
        unlink(file.c_str());
    }
    errno = error;
}

// A step of the FIFO layer that runs out of memory fails like one that the system refused.
template <typename Step>
int WithoutThrow(Step step) {
    try {
        return step();
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -ENOMEM;
    }
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

int PipeServer::PreparaFifoFile() {
    int ret = GetFifoName();
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "GetFifoName error=%d, errno=%d.", ret, errno);
        return ret;
    }
    ret = PublishFifo();
    for (int startsOver = 0; ret == 0 && !HoldsBothEnds(); ++startsOver) {
        // Another server of this name has started meanwhile and put its file there.
        if (startsOver == MAX_STARTS_OVER) {
            ret = LoseFile(EAGAIN);
            CloseDescriptors();
            return ret;
        }
        CloseDescriptors();
        ret = PublishFifo();
    }
    return ret;
}

int PipeServer::LoseFile(int error) const {
    TARVO_LOG(LOG_ERR, "Server %s flock failed: monitorfd=%d, err=%d, errno=%d.", FifoName().c_str(), monitorFd, -error,
              error);
    errno = error;
    return -error;
}

int PipeServer::PublishFifo() {
    const std::string &name = FifoName();
    const uint32_t gid = GetServerAttr().gid;
    int ret = WithoutThrow([&] { return CreateFifo(name, gid, -1, TARVO_DOMAIN_LOCAL, ""); });
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "CreateFifo %s error=%d, errno=%d.", name.c_str(), ret, errno);
        return ret;
    }
    monitorFd = WithoutThrow([&] { return OpenPublishedFifo(name, O_RDONLY | O_NONBLOCK | O_CLOEXEC); });
    if (monitorFd < 0) {
        RemoveOwnFile(name, monitorFd);
        TARVO_LOG(LOG_ERR, "OpenFifo %s error=%d, errno=%d.", name.c_str(), ret, errno);
        return std::exchange(monitorFd, -1);
    }
    ret = OpenWriteEnd();
    // Without a reader or gone, the file that was found is not the one whose read end we have.
    if (ret == 0 || ret == -ENXIO || ret == -ENOENT) {
        return 0;
    }
    TARVO_LOG(LOG_ERR, "Open writable server fifo %s error, ret=%d, errno=%d.", name.c_str(), ret, errno);
    CloseDescriptors();
    RemoveOwnFile(name, ret);
    return ret;
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
