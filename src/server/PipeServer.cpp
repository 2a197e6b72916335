#include "server/PipeServer.h"

#include <sys/epoll.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "api/EnvManager.h"
#include "api/TableFactory.h"
#include "base/Cancellation.h"
#include "base/ProcessObject.h"
#include "diag/velm_syslog.h"
#include "fifo/velm_fifo.h"
#include "server/PipeServerMessage.h"
#include "table/TarvoTable.h"

namespace {

constexpr char LOG_TAG[] = "PipeServer";

// The server together with the table that it refers to: a caller that still holds the server while the process exits
// keeps both alive.
// Owns: the server, and a reference to the table. Threads: any. Locks: none of its own. Ends: the server first.
struct ServerWithTable {
    explicit ServerWithTable(std::shared_ptr<TarvoTable> pipeTable) : table(std::move(pipeTable)), server(*table) {}

    std::shared_ptr<TarvoTable> table;
    PipeServer server;
};

// Made after the table, so process exit stops the server first, while the pipes that its thread opens still have a
// table to go to.
struct ProcessServer {
    using Object = ServerWithTable;

    static std::shared_ptr<ServerWithTable> Make(const std::shared_ptr<TarvoTable> &table) {
        return std::make_shared<ServerWithTable>(table);
    }
    static void End(std::shared_ptr<ServerWithTable> &server) {
        const Uncancelled whole;
        server.reset();
    }
};

// Also while a failure is being undone: keeps the errno that its report shows.
void CloseAndForget(int &fd) {
    const int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    fd = -1;
    errno = error;
}

} // namespace

std::shared_ptr<PipeServer> PipeServer::GetInstance() {
    const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
    if (table == nullptr) {
        TARVO_LOG(LOG_ERR, "Init table failed.");
        return nullptr;
    }
    const std::shared_ptr<ServerWithTable> alive = ProcessObject<ProcessServer>::Get(table);
    return alive == nullptr ? nullptr : std::shared_ptr<PipeServer>(alive, &alive->server);
}

PipeServer::PipeServer(TarvoTable &pipeTable) : fifoName(&*fifoNames.emplace().first), table(pipeTable) {}

PipeServer::~PipeServer() {
    MutexLock lock(mutex);
    CloseLocked();
    ReleaseEndedRun();
}

int PipeServer::Init(const TarvoServerAttr &serverAttr) {
    // A closing thread holds the mutex while it waits for the server thread: an open callback that asks meanwhile must
    // get its answer without it. Everybody else waits, for the server that runs now may be one that fails to start.
    if (IsServerThread()) {
        return RefuseSecondInit();
    }
    MutexLock lock(mutex);
    if (running) {
        return RefuseSecondInit();
    }
    ReleaseEndedRun();
    StoreAttr(serverAttr);
    try {
        return InitServer();
    } catch (...) {
        // The caller's thread was cancelled in an open, or a step ran out of memory.
        CloseDescriptors();
        counted.Closed();
        running = false;
        throw;
    }
}

int PipeServer::RefuseSecondInit() const {
    TARVO_LOG(LOG_INFO, "Server is already running. Table size=%zu", table.Size());
    return -EEXIST;
}

void PipeServer::StoreAttr(const TarvoServerAttr &serverAttr) {
    {
        MutexLock lock(attrMutex);
        attr = serverAttr;
    }
    openCallback = nullptr;
    if (serverAttr.openCallback != nullptr) {
        openCallback = [callback = serverAttr.openCallback](int fd, const std::string &name) {
            callback(fd, name.data(), static_cast<uint32_t>(name.size()));
        };
    }
}

TarvoServerAttr PipeServer::GetServerAttr() const {
    MutexLock lock(attrMutex);
    return attr;
}

int PipeServer::InitServer() {
    running = true;
    stopping = false;
    closing = false;
    ended = false;
    leftToRead.reset();
    watch = TerminateWatch();
    garbled = false;
    int ret = PreparaFifoFile();
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "PrepareFileFd failed: err=%d, errno=%d.", ret, errno);
        running = false;
        return ret;
    }
    ret = PrepareEpoll();
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "PrepareEpoll failed: err=%d, errno=%d.", ret, errno);
        CloseDescriptors();
        running = false;
        return ret;
    }
    return StartThread();
}

int PipeServer::PrepareEpoll() {
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd < 0) {
        const int error = errno;
        TARVO_LOG(LOG_ERR, "Create epoll instance failed: err=%d, errno=%d.", -error, error);
        return -error;
    }
    // The write end is of interest in WakeThread only; that it is there already lets that succeed at any time.
    int ret = AddFdToEpoll(epollFd, writeFd, writeFd, 0);
    if (ret == 0) {
        ret = AddFdToEpoll(epollFd, monitorFd, monitorFd, EPOLLIN);
    }
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Add fd to epoll error: ret=%d.", ret);
        CloseAndForget(epollFd);
        return ret;
    }
    // Two processes that start at the same moment under one name can end up on the same file; the lock leaves it to
    // one of them.
    if (flock(monitorFd, LOCK_EX | LOCK_NB) != 0) {
        ret = LoseFile(errno);
        CloseAndForget(epollFd);
        return ret;
    }
    return 0;
}

int PipeServer::StartThread() {
    if (!running) {
        return 0;
    }
    TARVO_LOG(LOG_DEBUG, "Server start monitor routine.");
    const TarvoServerAttr serves = GetServerAttr();
    counted = StatsSlot({TARVO_STATS_SERVER,
                         TARVO_STATS_THREADS,
                         0,
                         serves.selfName != nullptr ? serves.selfName : EnvManager::ProcName(),
                         {}});
    counted.Opened();
    try {
        monitorThread.Create(&PipeServer::MonitorRoutine, this);
    } catch (const std::system_error &e) {
        TARVO_LOG(LOG_ERR, "Start Server monitorThread failed, system error: %s.", e.what());
        CloseLocked();
        return -ENOSPC;
    } catch (const std::exception &) {
        TARVO_LOG(LOG_ERR, "Start Server monitorThread failed.");
        CloseLocked();
        return -ENOSPC;
    }
    const TarvoPriority priority = GetServerAttr().priority;
    const int ret = monitorThread.SetRTType(priority);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Set server monitor thread to type %d failed, ret=%d", priority, ret);
        CloseLocked();
        return ret;
    }
    return 0;
}

void PipeServer::Close() {
    if (IsServerThread()) {
        // An open callback cannot wait for its own thread. What that leaves goes with the next Init or the destructor.
        stopping = true;
        return;
    }
    MutexLock lock(mutex);
    CloseLocked();
}

void PipeServer::CloseLocked() {
    if (!running) {
        return;
    }
    closing = true;
    const int ret = SendMsgToServer(writeFd);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Send stop message to server fail, ret=%d.", ret);
        stopping = true;
    }
    WakeThread();
    JoinThread();
    flock(monitorFd, LOCK_UN | LOCK_NB);
    CloseDescriptors();
    counted.Closed();
    running = false;
}

int PipeServer::SendMsgToServer(int fd) const {
    PipeServerMessage message(PIPE_SERVER_MSG_TERMINATE, "");
    const int ret = message.Init();
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Msg Init fail, err=%d.", ret);
        return ret;
    }
    const ssize_t written = write(fd, message.GetData(), message.Size());
    if (written != static_cast<ssize_t>(message.Size())) {
        const int error = written < 0 ? errno : EIO;
        TARVO_LOG(LOG_ERR, "Write dataIn fail: %ld, writeFd=%d, errno=%d.", written, fd, error);
        return -error;
    }
    TARVO_LOG(LOG_INFO, "%s send name to server itself success.", FifoName().c_str());
    return 0;
}

void PipeServer::JoinThread() {
    if (!monitorThread.Joinable()) {
        return;
    }
    try {
        monitorThread.Join();
    } catch (const std::system_error &) {
        // There is no such thread, so nothing to wait for.
    }
}

void PipeServer::CloseDescriptors() {
    CloseAndForget(epollFd);
    CloseAndForget(writeFd);
    CloseAndForget(monitorFd);
}

void PipeServer::ReleaseEndedRun() {
    JoinThread();
    CloseDescriptors();
    counted.Closed();
}
