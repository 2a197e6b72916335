#include "server/TarvoClientPipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <thread>

#include "api/EnvManager.h"
#include "base/UniqueFd.h"
#include "diag/velm_syslog.h"
#include "fifo/velm_fifo.h"
#include "server/PipeServerMessage.h"

namespace {

constexpr char LOG_TAG[] = "TarvoClientPipe";

// How long the files of an earlier pipe may keep the next one of the same names waiting, and how often it looks.
constexpr auto LEFTOVER_LIMIT = std::chrono::milliseconds(100);
constexpr auto FIRST_SLEEP = std::chrono::microseconds(40);
constexpr std::chrono::steady_clock::duration LONGEST_SLEEP = std::chrono::milliseconds(2);

} // namespace

TarvoClientPipe::TarvoClientPipe(const TarvoAttr &attr, PipeObserver &pipeObserver)
    : TarvoPipeImpl(attr, pipeObserver) {
    closeAction = 0;
    myName += "_" + std::to_string(getpid());
    AssembleFifoNames();
}

TarvoClientPipe::~TarvoClientPipe() = default;

std::string TarvoClientPipe::MonitorPipeNameGen() {
    const std::string root = GetCurrDomain() == TARVO_DOMAIN_ORLA ? EnvManager::OrlaFifoDirPrefix() : "";
    return root + EnvManager::FifoPrefix() + remoteName;
}

int TarvoClientPipe::OpenServerMonitorPipe(const std::string &name) const {
    return OpenPublishedFifo(name, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
}

int TarvoClientPipe::SendMsgToServer(int serverMonitorFd) {
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, GetMyName());
    const int ret = message.Init();
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Msg Init fail, ret = %d", ret);
        return ret;
    }
    const ssize_t written = write(serverMonitorFd, message.GetData(), message.Size());
    if (written != static_cast<ssize_t>(message.Size())) {
        const int error = written < 0 ? errno : EIO;
        TARVO_LOG(LOG_ERR, "write dataIn fail: %ld, serverMonitorFd = %d, errno = %d", written, serverMonitorFd, error);
        return -error;
    }
    return 0;
}

int TarvoClientPipe::TimedOpen(int timeoutMs) {
    TARVO_LOG(LOG_INFO, "begin TarvoClientPipe Open readFd(%d) remote(%s) timed out", GetReadFd(), remoteName.c_str());
    const int ret = Announce(timeoutMs);
    if (ret != 0) {
        observer.OnOpenFailed(GetPipeFd());
        return ret;
    }
    return TarvoPipeImpl::TimedOpen(timeoutMs);
}

int TarvoClientPipe::Announce(int timeoutMs) {
    const std::string name = MonitorPipeNameGen();
    int ret = FindServer(name);
    if (ret != 0) {
        return ret;
    }
    AwaitLeftoversGone(timeoutMs);
    UniqueFd monitor(OpenServerMonitorPipe(name));
    if (monitor.Get() < 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "%s open monitor pipe %s failed, fd=%d, err=%d", myName.c_str(), name.c_str(),
                             monitor.Get(), errno);
        return monitor.Get();
    }
    try {
        ret = SendMsgToServer(monitor.Get());
    } catch (const std::bad_alloc &) {
        ret = -ENOMEM;
    }
    monitor.Reset();
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Send client name to server fail, ret = %d", ret);
        return ret;
    }
    TARVO_LOG(LOG_INFO, "%s send name to server %s success", myName.c_str(), name.c_str());
    return 0;
}

int TarvoClientPipe::FindServer(const std::string &name) const {
    if (name.empty()) {
        TARVO_LOG(LOG_ERR, "%s monitor pipe name is empty", myName.c_str());
        return -EINVAL;
    }
    if (IsFifoFile(name) != 0) {
        TARVO_LOG(LOG_ERR, "%s connect %s failed, server fifo not exist", myName.c_str(), name.c_str());
        return -ENXIO;
    }
    return 0;
}

void TarvoClientPipe::AwaitLeftoversGone(int timeoutMs) const {
    using Clock = std::chrono::steady_clock;
    // The server's side makes this file first and removes it last.
    const char *const file = GetReadFifoName().c_str();
    const auto limit = timeoutMs < 1 ? LEFTOVER_LIMIT : std::min(LEFTOVER_LIMIT, std::chrono::milliseconds(timeoutMs));
    const Clock::time_point end = Clock::now() + limit;
    Clock::duration sleep = FIRST_SLEEP;
    // Once this pipe has begun to open, also on another thread just now, they are its own: it is open, or tries again.
    while (closeAction != 1 && access(file, F_OK) == 0) {
        const Clock::duration left = end - Clock::now();
        if (left <= Clock::duration::zero()) {
            return;
        }
        std::this_thread::sleep_for(std::min(sleep, left));
        sleep = std::min(sleep * 2, LONGEST_SLEEP);
    }
}
