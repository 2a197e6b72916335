// The packet loop of the server thread.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "api/EnvManager.h"
#include "base/bounded.h"
#include "diag/velm_syslog.h"
#include "server/PipeServer.h"
#include "server/PipeServerMessage.h"
#include "stats/Stats.h"

namespace {

constexpr char LOG_TAG[] = "PipeServerThread";

// How long the pipe of a client may take to open, in ms; five hours when a debugger may hold the client.
constexpr int32_t OPEN_TIMEOUT = 2000;
constexpr int32_t PATIENT_OPEN_TIMEOUT = 18000000;
constexpr char PATIENT_RUN_MODE[] = "1";

// Bytes that a FIFO holds unless its size was changed.
constexpr int USUAL_CAPACITY = 65536;

// The server whose thread this is.
thread_local const PipeServer *serverOfThread = nullptr;

template <typename Field>
constexpr bool IsWhole(int received, const Field &field) {
    return received == static_cast<int>(sizeof(field));
}

} // namespace

bool PipeServer::IsServerThread() const { return serverOfThread == this; }

void PipeServer::MonitorRoutine() {
    serverOfThread = this;
    if (prctl(PR_SET_NAME, threadName) != 0) {
        TARVO_LOG(LOG_INFO, "Set server thread name unfinished, errno = %d", errno);
    }
    NuroCoreSetaffinity();
    MonitorRoutineLinux();
}

void PipeServer::MonitorRoutineLinux() {
    TARVO_LOG(LOG_INFO, "begin MonitorRoutineLinux.");
    while (running && !stopping && !ended && ServePacket()) {
    }
    LetBlockedWritersGo();
    running = false;
}

int PipeServer::Recv(void *buf, unsigned long len) {
    while (!ended) {
        epoll_event event{};
        const int ret = epoll_wait(epollFd, &event, 1, -1);
        if (ret < 0 && errno == EINTR) {
            continue;
        }
        if (ret < 0) {
            const int error = errno;
            TARVO_LOG(LOG_ERR, "Epoll_wait on PipeServer monitor pipe failed, %s.", std::strerror(error));
            return -error;
        }
        if (ret == 0) {
            return -1;
        }
        const bool woken = event.data.fd == writeFd && (stopping || closing);
        if (woken || (event.data.fd == monitorFd && (event.events & EPOLLIN) != 0)) {
            return ReadFifo(buf, len, woken);
        }
        if (event.data.fd == monitorFd && (event.events & EPOLLHUP) != 0) {
            TARVO_LOG(LOG_INFO, "All clients closed monitor pipe.");
        }
    }
    return -ECANCELED;
}

int PipeServer::ReadFifo(void *buf, unsigned long len, bool woken) {
    if (woken && stopping) {
        ended = true;
        return -ECANCELED;
    }
    const ssize_t count = read(monitorFd, buf, len);
    if (count < 0) {
        const int error = errno;
        // What is still missing will not come.
        ended = woken && error == EAGAIN;
        return ended ? -ECANCELED : -error;
    }
    const auto size = static_cast<std::size_t>(count);
    if (closing) {
        watch.Note(static_cast<const char *>(buf), size);
        ended = watch.HasSeenAll() || HasComeAfterClose(size);
    }
    return static_cast<int>(count);
}

bool PipeServer::HasComeAfterClose(std::size_t count) {
    if (!leftToRead) {
        const int capacity = fcntl(monitorFd, F_GETPIPE_SZ);
        leftToRead = static_cast<std::size_t>(std::max(capacity, USUAL_CAPACITY)) + sizeof(PipeServerMsgHead);
    }
    const bool after = count > *leftToRead;
    *leftToRead -= std::min(count, *leftToRead);
    return after;
}

bool PipeServer::ServePacket() {
    const uint32_t magic = RecvMagic();
    if (magic == MAGIC_RECV_ERROR) {
        TARVO_LOG(LOG_INFO, "Read unfinished");
        return false;
    }
    if (magic != MAGIC_OK) {
        TARVO_LOG(LOG_INFO, "Read return %d.", static_cast<int>(magic));
        if (magic == MAGIC_MISMATCH && !garbled) {
            // Once for all that comes until the next packet.
            garbled = true;
            CountBad();
        }
        return true;
    }
    garbled = false;
    int32_t type = 2;
    const int ret = Recv(&type, sizeof(type));
    if (!IsWhole(ret, type) || type > PIPE_SERVER_MSG_TERMINATE) {
        TARVO_LOG(LOG_ERR, "Read type failed, ret=%d, type=%d, errno=%d.", ret, type, errno);
        CountBad();
        return true;
    }
    if (type == PIPE_SERVER_MSG_TERMINATE) {
        TARVO_LOG(LOG_INFO, "Read terminate info, start exit monitor routine.");
        return false;
    }
    ServeConnectPacket();
    return true;
}

void PipeServer::ServeConnectPacket() {
    uint32_t gid = UINT32_MAX;
    int ret = Recv(&gid, sizeof(gid));
    if (!IsWhole(ret, gid)) {
        TARVO_LOG(LOG_ERR, "Read client gid failed, ret=%d, recv gid=%u, errno=%d.", ret, gid, errno);
        CountBad();
        return;
    }
    int32_t pid = -1;
    ret = Recv(&pid, sizeof(pid));
    if (!IsWhole(ret, pid)) {
        TARVO_LOG(LOG_ERR, "Read client pid failed, ret=%d, recv pid=%d, errno=%d.", ret, pid, errno);
        CountBad();
        return;
    }
    uint32_t size = 0;
    ret = Recv(&size, sizeof(size));
    if (!IsWhole(ret, size) || size < 1 || size > PIPE_SERVER_MAX_CLIENT_NAME) {
        TARVO_LOG(LOG_ERR, "Read connect packet data size failed, ret=%d, size=%u bytes, errno=%d.", ret, size, errno);
        CountBad();
        return;
    }
    TARVO_LOG(LOG_INFO, "server get client name size: %u", size);
    const std::unique_ptr<char[]> name = ReadClientName(size);
    if (name == nullptr) {
        CountBad();
        return;
    }
    if (closing && (ended || watch.HasSeenBegin())) {
        // It was cut off, and this is our own terminate packet.
        ended = true;
        return;
    }
    TARVO_LOG(LOG_INFO, "Server %s get client name: %s.", FifoName().c_str(), name.get());
    CallTarvoOpenAsync(name, gid, pid);
}

std::unique_ptr<char[]> PipeServer::ReadClientName(uint32_t size) {
    std::unique_ptr<char[]> name(new (std::nothrow) char[size + 1]());
    if (memset_s(name.get(), size + 1, 0, size + 1) != 0) {
        TARVO_LOG(LOG_ERR, "Memset client name buffer error.");
        return nullptr;
    }
    const int ret = Recv(name.get(), size);
    if (ret != static_cast<int>(size)) {
        TARVO_LOG(LOG_ERR, "Read connect packet data failed, ret=%d, clientName=%s,required size=%u bytes, errno=%d.",
                  ret, name.get(), size, errno);
        return nullptr;
    }
    name[size] = '\0';
    return name;
}

void PipeServer::CallTarvoOpenAsync(const std::unique_ptr<char[]> &clientName, uint32_t gid, int pid) const {
    std::string name;
    int fd = -ENOMEM;
    const uint64_t announcedAt = counted.Server() != nullptr ? Stats::Now() : 0;
    try {
        name = clientName.get();
        fd = OpenPipe(clientName.get(), gid, pid);
    } catch (const std::bad_alloc &) {
        fd = -ENOMEM;
    }
    CountOpen(fd > 0, announcedAt);
    if (fd < 1 || name.empty()) {
        TARVO_LOG(LOG_ERR, "In callback Open pipe %s failed %d.", clientName.get(), fd);
        return;
    }
    if (!openCallback) {
        return;
    }
    TARVO_LOG(LOG_INFO, "Enter user callback: %d", fd);
    openCallback(fd, name);
    TARVO_LOG(LOG_INFO, "Finish user callback: %d", fd);
}

void PipeServer::CountBad() const {
    if (TarvoStatsServer *const server = counted.Server()) {
        Stats::CountAlone(server->bad);
    }
}

void PipeServer::CountOpen(bool opened, uint64_t announcedAt) const {
    TarvoStatsServer *const server = counted.Server();
    if (server == nullptr) {
        return;
    }
    Stats::CountAlone(server->packets);
    Stats::CountAlone(opened ? server->opened : server->failed);
    if (opened) {
        Stats::TimeAlone(server->openTime, Stats::Between(announcedAt, Stats::Now()));
    }
}

int PipeServer::OpenPipe(const char *clientName, uint32_t gid, int pid) const {
    const TarvoServerAttr server = GetServerAttr();
    const std::string runMode = EnvManager::GetRunMode();
    TARVO_LOG(LOG_INFO, "RUN_MODE=%s", runMode.c_str());
    TarvoAttr pipe;
    pipe.targetName = clientName;
    pipe.callback = server.callback;
    pipe.timeout = runMode == PATIENT_RUN_MODE ? PATIENT_OPEN_TIMEOUT : OPEN_TIMEOUT;
    pipe.mode = TARVO_MODE_SERVER;
    pipe.gid = gid;
    pipe.priority = server.priority;
    pipe.selfName = server.selfName;
    pipe.targetPid = pid;
    pipe.isConcur = false;
    pipe.domain = TARVO_DOMAIN_LOCAL;
    pipe.targetCon = nullptr;
    TARVO_LOG(LOG_INFO,
              "TarvoServerOpen start selfName=%s, targetName=%s, mode=%d, timeout=%d ms, targetPid=%d, gid=%u, "
              "priority=%d, isConcur=%d",
              pipe.selfName, pipe.targetName, pipe.mode, pipe.timeout, pipe.targetPid, pipe.gid, pipe.priority,
              pipe.isConcur);
    return TarvoPipeTypeOpen(&pipe, TARVO_SERVER_PIPE);
}

void PipeServer::LetBlockedWritersGo() {
    // Nobody reads from here on. A thread that is closing the server may be blocked in writing its packet to a full
    // FIFO: make room for it, and let it fail rather than block again should others fill the FIFO first.
    fcntl(writeFd, F_SETFL, O_NONBLOCK);
    constexpr int PAGES_OF_A_FIFO = 16;
    char page[4096];
    for (int i = 0; i < PAGES_OF_A_FIFO && read(monitorFd, page, sizeof(page)) > 0; ++i) {
    }
}
