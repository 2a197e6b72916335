// The part of the pipe table that assigns pipes to receive monitors.

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "api/EnvManager.h"
#include "diag/velm_syslog.h"
#include "fifo/velm_check.h"
#include "monitor/DataMonitorImpl.h"
#include "table/TarvoTable.h"
#include "worker/CallbackPool.h"

namespace {

// One component with the table, one source tag.
constexpr char LOG_TAG[] = "TarvoTable";
constexpr char MONITOR_THREAD_NAME[] = "tarvo_monitor";
constexpr std::size_t MAX_PROC_NAME = 100;

} // namespace

int TarvoTable::PrepareMonitor(TarvoPriority priority, DataMonitorType type) {
    MutexLock lock(monitorMutex);
    if (dataMonitors.at(static_cast<std::size_t>(type))) {
        return 0;
    }
    const int ret = InitMonitor(priority, type);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Init monitor failed for RTType %d, ret %d ", priority, ret);
    }
    return ret;
}

int TarvoTable::InitMonitor(TarvoPriority priority, DataMonitorType type) {
    const char *const procName = EnvManager::ProcName();
    if (CheckInputName(procName, strnlen(procName, MAX_PROC_NAME + 1), MAX_PROC_NAME) != 0) {
        TARVO_LOG(LOG_ERR, "PROC_NAME is not available");
        return -EINVAL;
    }
    std::unique_ptr<DataMonitorImpl> &slot = dataMonitors.at(static_cast<std::size_t>(type));
    slot.reset(new (std::nothrow) DataMonitorImpl(MONITOR_THREAD_NAME));
    if (!slot) {
        TARVO_LOG(LOG_ERR, "Make dataMonitor(type = %d) alloc failed", type);
        return -ENOMEM;
    }
    // From the pipes' counter, so that the monitor's stop event is never taken for a pipe's. A monitor knows its stop
    // event by a positive number only, so that one started after the counter has run over could not be stopped.
    const int id = AllocateFd();
    const int ret = id < 0 ? id : slot->Init(priority, id, type);
    if (ret < 0) {
        TARVO_LOG(LOG_ERR, "Init dataMonitor(type = %d) failed, ret = %d", type, ret);
        slot.reset();
        return ret;
    }
    return 0;
}

TarvoTable::PipeFdTable::iterator TarvoTable::RemoveDataMonitor(int fd) {
    const auto position = pipeFdTable.find(fd);
    if (position == pipeFdTable.end()) {
        TARVO_LOG(LOG_INFO, "RemoveDataMonitor not find pipe(%d) from pipeFdTable.", fd);
        return position;
    }
    const DataMonitorType type = position->second->GetPipeDataMonitorType();
    MutexLock lock(monitorMutex);
    const std::unique_ptr<DataMonitorImpl> &monitor = dataMonitors.at(static_cast<std::size_t>(type));
    if (monitor && monitor->Remove(fd) != 0) {
        TARVO_LOG(LOG_INFO, "Remove pipe(%d) from pipeIdxTable unfinished", fd);
    }
    return position;
}

void TarvoTable::DropMonitors() {
    DataMonitors monitors;
    {
        MutexLock lock(monitorMutex);
        // Together with the removal of the monitors, so that a receive thread started later never enters a worker pool
        // that is going down: it would wait there for a worker without end.
        callbackPool->RefuseTasks();
        monitors.swap(dataMonitors);
    }
    // Outside monitorMutex: a receive thread that handles a remote close takes tableLock, whose holder may be waiting
    // for monitorMutex, and is joined here.
    for (std::unique_ptr<DataMonitorImpl> &monitor : monitors) {
        if (monitor) {
            monitor->Destroy();
            monitor.reset();
        }
    }
}

int TarvoTable::OnPipeOpened(int readFd, int fd, std::shared_ptr<TarvoPipeImpl> pipe) {
    const DataMonitorType type = pipe ? pipe->GetPipeDataMonitorType() : DEFAULT_MONITOR_TYPE;
    MutexLock lock(monitorMutex);
    const std::unique_ptr<DataMonitorImpl> &monitor = dataMonitors.at(static_cast<std::size_t>(type));
    if (!monitor) {
        TARVO_LOG(LOG_ERR, "DataMonitor memory problem");
        return -ESPIPE;
    }
    return monitor->Add(fd, readFd, std::move(pipe));
}

void TarvoTable::OnPipeRemoteClosed(int fd) {
    WriteLock lock(tableLock);
    RemoveDataMonitor(fd);
}
