#ifndef TARVO_TABLE_TARVOTABLE_H
#define TARVO_TABLE_TARVOTABLE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "base/LockOrder.h"
#include "base/Mutex.h"
#include "base/SharedMutex.h"
#include "base/SoleRun.h"
#include "pipe/PipeObserver.h"
#include "pipe/TarvoPipeImpl.h"
#include "tarvo.h"

class CallbackPool;
class DataMonitorImpl;

// The registry of this process's pipes: issues their handles, finds them again by their two names, attaches them to
// receive monitors and hands their callbacks to the worker threads.
// Owns: a reference to each registered pipe, the receive monitors, and a share of the callback pool. Threads: any.
// Locks, in this order: closeMutex, tableLock, monitorMutex. None is held while a thread is joined, or while a pipe or
// a callback in a queue dies: with it dies the user's callback object, which may call in again. The last two are not
// held while a pipe opens either. Ends: on a thread that is not one of its own, since the destructor joins those.
class TarvoTable : public PipeObserver {
public:
    explicit TarvoTable(const std::shared_ptr<CallbackPool> &pool);
    // Gives callbacks and receive events DRAIN_MS to drain, then disables, also when that has been done before.
    ~TarvoTable() override;
    static constexpr unsigned DRAIN_MS = 50;
    TarvoTable(const TarvoTable &) = delete;
    TarvoTable &operator=(const TarvoTable &) = delete;

    // ---- Pipes ----
    // Opens the pipe between the two names of `attr`, a new one or the one that is registered already, and blocks as
    // the pipe's open does. Its handle, or a negated errno; a pipe whose open failed stays registered and is tried
    // again by the next call.
    int MakeAndAddPipe(const TarvoAttr *attr, TarvoPipeType type) EXCLUDES(tableLock, monitorMutex);
    std::shared_ptr<TarvoPipeImpl> MakePipe(const TarvoAttr &attr, TarvoPipeType type);
    // Registers a pipe under a fresh handle: the handle, -ENOMEM when the table is full, or the negative handle when
    // the counter has run over.
    int Insert(const std::shared_ptr<TarvoPipeImpl> &pipe) REQUIRES(tableLock);
    // The pipe of a handle, or empty. It stays usable after a concurrent close and then refuses work by itself.
    std::shared_ptr<TarvoPipeImpl> GetPipe(int fd) const EXCLUDES(tableLock);
    void CloseTarvoPipe(int fd) EXCLUDES(closeMutex, tableLock, monitorMutex);
    // Removes the FIFO files of a pipe and leaves it registered.
    void CleanTarvoPipe(int fd) EXCLUDES(tableLock);

    // ---- The whole ----
    // Closes every pipe, ends every receive and worker thread and waits for the callbacks that run. Not from a
    // callback, nor from any other thread of the library. No way back, and no harm in repeating it: a second call waits
    // for the first, unless it comes out of the first.
    void DisableTarvoTable() EXCLUDES(tableLock, monitorMutex);
    // The destructor's work: DisableTarvoTable, and DRAIN_MS before it the first time. Does not throw.
    void DrainAndDisable() EXCLUDES(tableLock, monitorMutex);
    // Removes the FIFO files of every pipe, and nothing else: for a process that is failing.
    void ExceptionHandler() EXCLUDES(tableLock);
    bool GetIsDisable() const;

    // The next number of the counter that pipes and monitors share: positive, until it runs over.
    int AllocateFd();
    std::size_t Size() const EXCLUDES(tableLock);
    std::size_t NumWorkers() const;
    std::size_t NumUrgentWorkers() const;

    // ---- Receive monitors ----
    using PipeFdTable = std::map<int, std::shared_ptr<TarvoPipeImpl>>;

    // Makes sure that the monitor of a type exists. The first pipe of a type decides its monitor's priority.
    int PrepareMonitor(TarvoPriority priority, DataMonitorType type) EXCLUDES(monitorMutex);
    int InitMonitor(TarvoPriority priority, DataMonitorType type) REQUIRES(monitorMutex);
    // Detaches a pipe from its monitor and returns its place in the table, or the end when it has none.
    PipeFdTable::iterator RemoveDataMonitor(int fd) REQUIRES(tableLock) EXCLUDES(monitorMutex);

    // ---- PipeObserver ----
    int OnRequestIn(std::string workerName, const std::function<void()> &task, TarvoPriority priority) const override;
    int OnTaskIn(std::string workerName, std::shared_ptr<const TarvoTask> task, TarvoPriority priority) const override;
    int OnAsyncRequestIn(const std::function<void()> &task, TarvoPriority priority) const override;
    int OnAsyncTaskIn(std::shared_ptr<const TarvoTask> task, TarvoPriority priority) const override;
    int OnPipeOpened(int readFd, int fd, std::shared_ptr<TarvoPipeImpl> pipe) override EXCLUDES(monitorMutex);
    void OnOpenFailed(int fd) override;
    void OnPipeRemoteClosed(int fd) override EXCLUDES(tableLock, monitorMutex);
    void OnFreeSelfWorker(std::string workerName) override;

private:
    static constexpr std::size_t MAX_PIPES = 1024;
    static constexpr std::size_t MONITOR_TYPES = 6;
    static constexpr DataMonitorType DEFAULT_MONITOR_TYPE = 1;

    using PipeKeyTable = std::map<std::string, std::shared_ptr<TarvoPipeImpl>>;
    using DataMonitors = std::array<std::unique_ptr<DataMonitorImpl>, MONITOR_TYPES>;

    // The pipe to open: the one that has the key of `fresh`, or `fresh` itself, then registered. `fd` is its handle,
    // or negative.
    std::shared_ptr<TarvoPipeImpl> FindOrInsert(const std::shared_ptr<TarvoPipeImpl> &fresh, int &fd)
        EXCLUDES(tableLock);
    // Takes a pipe out of its monitor and both maps; empty when there is none.
    std::shared_ptr<TarvoPipeImpl> Unregister(int fd) EXCLUDES(tableLock, monitorMutex);
    void DropPipes() EXCLUDES(tableLock);
    void DropMonitors() EXCLUDES(monitorMutex);

    mutable SharedMutex tableLock ACQUIRED_BEFORE(lock_order::descriptors, monitorMutex);
    // A pipe is in both maps or in none.
    PipeFdTable pipeFdTable GUARDED_BY(tableLock);
    PipeKeyTable pipeKeyTable GUARDED_BY(tableLock);
    const std::shared_ptr<CallbackPool> callbackPool;
    std::atomic<int32_t> nextFd{1};
    Mutex monitorMutex ACQUIRED_AFTER(lock_order::monitors) ACQUIRED_BEFORE(lock_order::monitor);
    // One caller at a time goes through a close.
    Mutex closeMutex ACQUIRED_AFTER(lock_order::table) ACQUIRED_BEFORE(tableLock);
    DataMonitors dataMonitors GUARDED_BY(monitorMutex);
    std::atomic<bool> isDisable{false};

    // TarvoCfgFinishServer and process exit may come at once.
    SoleRun disabling;
    std::atomic<bool> drained{false};
};

#endif // TARVO_TABLE_TARVOTABLE_H
