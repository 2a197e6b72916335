#include "table/TarvoTable.h"

#include <unistd.h>

#include <cerrno>
#include <exception>
#include <utility>

#include "base/Probe.h"
#include "diag/velm_syslog.h"
#include "monitor/DataMonitorImpl.h"
#include "server/TarvoClientPipe.h"
#include "worker/CallbackPool.h"

namespace {

constexpr char LOG_TAG[] = "TarvoTable";

} // namespace

TarvoTable::TarvoTable(const std::shared_ptr<CallbackPool> &pool) : callbackPool(pool) {}

TarvoTable::~TarvoTable() { DrainAndDisable(); }

std::shared_ptr<TarvoPipeImpl> TarvoTable::MakePipe(const TarvoAttr &attr, TarvoPipeType type) {
    switch (type) {
    case TARVO_CLIENT_PIPE:
        TARVO_LOG(LOG_INFO, "make TARVO_CLIENT_PIPE, %s.", attr.targetName);
        return std::make_shared<TarvoClientPipe>(attr, *this);
    case TARVO_NORMAL_PIPE:
        TARVO_LOG(LOG_INFO, "make TARVO_NORMAL_PIPE, %s.", attr.targetName);
        break;
    case TARVO_SERVER_PIPE:
        TARVO_LOG(LOG_INFO, "make TARVO_SERVER_PIPE, %s.", attr.targetName);
        break;
    }
    return std::make_shared<TarvoPipeImpl>(attr, *this);
}

int TarvoTable::MakeAndAddPipe(const TarvoAttr *attr, TarvoPipeType type) {
    std::shared_ptr<TarvoPipeImpl> pipe = MakePipe(*attr, type);
    int ret = PrepareMonitor(attr->priority, pipe->GetPipeDataMonitorType());
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Prepare Monitor failed, ret is %d", ret);
        TARVO_PROBE_OPEN(0, ret);
        return ret;
    }
    int fd = 0;
    // When the two names have a pipe already, the new object dies here, unused.
    pipe = FindOrInsert(pipe, fd);
    if (fd < 0) {
        TARVO_PROBE_OPEN(0, fd);
        return fd;
    }
    // Outside tableLock: a slow open must not keep others from sending, opening and closing.
    ret = pipe->TimedOpen(attr->timeout);
    TARVO_PROBE_OPEN(fd, ret);
    if (ret >= 0) {
        return fd;
    }
    if (ret == -ETIMEDOUT) {
        TARVO_LOG(LOG_INFO, "AddPipe timedout when open");
    } else if (ret == -ECANCELED) {
        TARVO_LOG(LOG_INFO, "Open is cancelled");
    } else {
        TARVO_LOG_RESTRAINED(LOG_ERR, "AddPipe failed when open fd=%d, err=%d", fd, ret);
    }
    // The pipe stays registered on purpose: the next open to the same remote tries it again under the same handle.
    return ret;
}

std::shared_ptr<TarvoPipeImpl> TarvoTable::FindOrInsert(const std::shared_ptr<TarvoPipeImpl> &fresh, int &fd) {
    const std::string key = fresh->GetTableKey();
    WriteLock lock(tableLock);
    const auto found = pipeKeyTable.find(key);
    if (found != pipeKeyTable.end()) {
        fd = found->second->GetPipeFd();
        return found->second;
    }
    fd = Insert(fresh);
    if (fd < 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Cannot alloc new fd, ret = %d", fd);
    }
    return fresh;
}

int TarvoTable::Insert(const std::shared_ptr<TarvoPipeImpl> &pipe) {
    if (pipeFdTable.size() >= MAX_PIPES) {
        return -ENOMEM;
    }
    const int fd = AllocateFd();
    if (fd < 0) {
        TARVO_LOG(LOG_ERR, "Exceed fd maximum number, ret = %d", fd);
        return fd;
    }
    pipe->SetFd(fd);
    pipe->BeginStats();
    const auto inserted = pipeFdTable.emplace(fd, pipe).first;
    try {
        pipeKeyTable.emplace(pipe->GetTableKey(), pipe);
    } catch (...) {
        pipeFdTable.erase(inserted);
        throw;
    }
    TARVO_LOG(LOG_DEBUG, "Pipe table size: %d, alloc fd = %d", static_cast<int>(pipeFdTable.size()), fd);
    return fd;
}

std::shared_ptr<TarvoPipeImpl> TarvoTable::GetPipe(int fd) const {
    if (fd < 1) {
        TARVO_LOG(LOG_DEBUG, "Input fd(%d) is invalid", fd);
        return nullptr;
    }
    {
        ReadLock lock(tableLock);
        const auto found = pipeFdTable.find(fd);
        if (found != pipeFdTable.end()) {
            return found->second;
        }
    }
    TARVO_LOG(LOG_INFO, "GetPipe failed, input fd = %d", fd);
    return nullptr;
}

std::shared_ptr<TarvoPipeImpl> TarvoTable::Unregister(int fd) {
    WriteLock lock(tableLock);
    const auto position = RemoveDataMonitor(fd);
    if (position == pipeFdTable.end()) {
        return nullptr;
    }
    std::shared_ptr<TarvoPipeImpl> pipe = position->second;
    // Formed before the first map changes, since it may run out of memory.
    const std::string key = pipe->GetTableKey();
    pipeFdTable.erase(position);
    pipeKeyTable.erase(key);
    TARVO_LOG(LOG_INFO, "pipe(%d) is removed from table", fd);
    return pipe;
}

void TarvoTable::CloseTarvoPipe(int fd) {
    // Dropped, like the callbacks that its worker has not run yet, after closeMutex is free again: objects of the
    // program go with them, and may close another pipe.
    std::shared_ptr<TarvoPipeImpl> found;
    std::shared_ptr<TarvoPipeImpl> pipe;
    {
        MutexLock closing(closeMutex);
        found = GetPipe(fd);
        if (found) {
            // Before it leaves its monitor: an open that is under way must not register it again.
            found->Retire();
        }
        pipe = Unregister(fd);
        if (!pipe) {
            return;
        }
        pipe->DeInitPipe();
    }
    // While the pipe's own remote-close notice runs, it does so on this very worker, which it frees by itself.
    if (!pipe->IsCallbackHandleRemoteClose()) {
        callbackPool->FreeWorker(std::to_string(fd));
    }
}

void TarvoTable::CleanTarvoPipe(int fd) {
    const std::shared_ptr<TarvoPipeImpl> pipe = GetPipe(fd);
    if (!pipe) {
        TARVO_LOG(LOG_INFO, "TarvoClean GetPipe fail, please check input fd(%d).", fd);
        return;
    }
    pipe->CleanPipe();
}

void TarvoTable::DisableTarvoTable() {
    // Not a lock: callback objects of the program die on the way. One that asks for the end gets it anyway.
    const SoleRun::Turn turn(disabling);
    if (!turn) {
        return;
    }
    DropPipes();
    DropMonitors();
    // Once more, for pipes registered meanwhile: one that waits for its remote on a worker would keep the pool waiting.
    // Later ones are refused a worker.
    DropPipes();
    callbackPool->AwaitSubmitters();
    callbackPool->Destroy();
    isDisable = true;
}

void TarvoTable::DrainAndDisable() {
    try {
        // Only once: at process exit this runs on the exiting thread first, and nothing is left to drain when the
        // destructor follows.
        if (!drained.exchange(true)) {
            usleep(DRAIN_MS * 1000);
        }
        DisableTarvoTable();
    } catch (const std::exception &error) {
        // Nothing else would tell: whoever drops the table has no result to look at, and what failed, such as a pipe's
        // close for want of memory, has left pipes open and threads running.
        TARVO_LOG(LOG_ERR, "Disable table failed, %s.", error.what());
    }
}

void TarvoTable::DropPipes() {
    PipeFdTable pipes;
    PipeKeyTable keys;
    WriteLock lock(tableLock);
    for (const auto &entry : pipeFdTable) {
        // In the order of every close: an open that is under way must not register the pipe again, and its descriptor's
        // number may be another pipe's when the receive thread, which removes a pipe that hung up, gets to it.
        entry.second->Retire();
        RemoveDataMonitor(entry.first);
        entry.second->DeInitPipe();
    }
    pipes.swap(pipeFdTable);
    keys.swap(pipeKeyTable);
    lock.Unlock();
    // Their named workers, so that a submission that waits for a free one waits for running callbacks at most.
    for (const auto &entry : pipes) {
        callbackPool->FreeWorker(std::to_string(entry.first));
    }
}

void TarvoTable::ExceptionHandler() {
    WriteLock lock(tableLock);
    for (const auto &entry : pipeFdTable) {
        entry.second->ExceptionHandler();
    }
}

bool TarvoTable::GetIsDisable() const { return isDisable; }

int TarvoTable::AllocateFd() { return nextFd.fetch_add(1, std::memory_order_relaxed); }

std::size_t TarvoTable::Size() const {
    ReadLock lock(tableLock);
    return pipeFdTable.size();
}

std::size_t TarvoTable::NumWorkers() const { return callbackPool->NumWorkers(); }

std::size_t TarvoTable::NumUrgentWorkers() const { return callbackPool->NumUrgentWorkers(); }

// A pool that has been destroyed keeps those who submit under a name waiting for ever, which is a promise of its own.
// Here they are receive threads, of pipes opened after the end: they would be deaf to the answers that such a pipe
// still gets, and never be joined. So what comes too late under a name goes to the side of the pool that refuses it.
int TarvoTable::OnRequestIn(std::string workerName, const std::function<void()> &task, TarvoPriority priority) const {
    return callbackPool->RefusesTasks() ? callbackPool->DropAsyncTask(task, priority)
                                        : callbackPool->DropTo(workerName, task, priority);
}

int TarvoTable::OnTaskIn(std::string workerName, std::shared_ptr<const TarvoTask> task, TarvoPriority priority) const {
    return callbackPool->RefusesTasks() ? callbackPool->RefuseTask()
                                        : callbackPool->DropTaskTo(workerName, std::move(task), priority);
}

int TarvoTable::OnAsyncRequestIn(const std::function<void()> &task, TarvoPriority priority) const {
    return callbackPool->DropAsyncTask(task, priority);
}

int TarvoTable::OnAsyncTaskIn(std::shared_ptr<const TarvoTask> task, TarvoPriority priority) const {
    return callbackPool->DropTask(std::move(task), priority);
}

void TarvoTable::OnOpenFailed(int) {}

void TarvoTable::OnFreeSelfWorker(std::string workerName) { callbackPool->FreeWorker(workerName); }
