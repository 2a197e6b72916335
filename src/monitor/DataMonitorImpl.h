#ifndef TARVO_MONITOR_DATAMONITORIMPL_H
#define TARVO_MONITOR_DATAMONITORIMPL_H

#include <sys/epoll.h>

#include <atomic>
#include <map>
#include <memory>

#include "base/LockOrder.h"
#include "base/SharedMutex.h"
#include "pipe/TarvoPipeImpl.h"
#include "pipe/TimeRecords.h"
#include "tarvo.h"
#include "worker/tarvo_thread.h"

// One receive thread with its epoll set: waits on the read ends of many pipes and hands each event to its pipe.
// Owns: the thread, the epoll instance, the eventfd that stops the thread, and a reference to every registered pipe.
// Threads: any may add and remove; the receive thread removes pipes that hung up. Locks: mutex, shared for a look at
// the table; never held while a pipe handles an event or is destroyed. Ends: Destroy() before destruction.
class DataMonitorImpl {
public:
    explicit DataMonitorImpl(const char *name) : threadName(name) {}
    ~DataMonitorImpl() = default;
    DataMonitorImpl(const DataMonitorImpl &) = delete;
    DataMonitorImpl &operator=(const DataMonitorImpl &) = delete;

    // Starts the thread. `exitId` is the epoll user data of the stop event: positive, and never a pipe's index.
    // 0 or a negated errno, then with everything closed again.
    int Init(const TarvoPriority &priority, int exitId, const DataMonitorType &monitorType);
    // Watches the read end of a pipe under its handle; 0 (also when the index is known already) or a negated errno.
    int Add(int pipeIdx, int readFd, std::shared_ptr<TarvoPipeImpl> pipe) EXCLUDES(mutex);
    // 0, -ENOENT, or the failure of the epoll removal, which leaves the pipe registered.
    int Remove(int pipeIdx) EXCLUDES(mutex);
    // The pipe of an index, or empty.
    std::shared_ptr<TarvoPipeImpl> GetPipe(int pipeIdx) const REQUIRES_SHARED(mutex);
    // Stops and joins the thread and closes both descriptors. The table stays as it is.
    void Destroy();
    // Whether it reads cross-domain pipes.
    bool IsDataMonitorRemoteMode() const;

    // ---- Steps of the above ----
    int AddEventFd(int exitId);
    // Reads the eventfd: true when the thread is to stop.
    bool ClearEventFd() const;
    // Whether the stop event could be written.
    bool NotifyDataMonitorExit() const;
    int AddFd(int pipeIdx, int readFd);
    int RemoveFd(int readFd) const;
    void AddNewItemToTable(int pipeIdx, int readFd, const std::shared_ptr<TarvoPipeImpl> &pipe) REQUIRES(mutex);
    // A FIFO tells its reader of a hang-up only once it has had a writer. A remote that dies before it has opened its
    // write end is noticed by the other FIFO, whose reader it was. Until the first event of the pipe: from then on the
    // read end reports the rest, and a remote that stops reading may go on writing.
    int WatchWriteEnd(int pipeIdx) REQUIRES(mutex);
    int Monitor(const std::unique_ptr<epoll_event[]> &ready, int maxEvents);
    // The thread's body.
    void RecvRoutine();

private:
    struct PipeIdxMgrImpl {
        int pipeIdx;
        int readFd;
        std::shared_ptr<TarvoPipeImpl> pipe;
        int writeFd = -1;          // watched for the loss of its reader, when not negative
        uint64_t registration = 0; // tells it from an earlier entry of the same index
        uint32_t opening = 0;      // TarvoPipeImpl::Opening() at that time
    };
    using Table = std::map<int, PipeIdxMgrImpl>;

    int StartThread();
    // Makes the thread leave its wait and end although the eventfd could not be written.
    void StopWithoutMessage();
    void PrepareThread();
    // Hands over one event; true when it was the request to stop. `known`: the changes of the table before the wait.
    bool HandleEvent(const epoll_event &event, int i, uint64_t known, Tarvo::EpollTimeRecord &record) EXCLUDES(mutex);
    void HandlePipeEvent(const epoll_event &event, const PipeIdxMgrImpl &entry, uint64_t known,
                         Tarvo::EpollTimeRecord &record) EXCLUDES(mutex);
    // Remove(), but of this very entry and of none that has taken its place since.
    void RemoveEntry(const PipeIdxMgrImpl &entry) EXCLUDES(mutex);
    int Remove(Table::iterator position, std::shared_ptr<TarvoPipeImpl> &removed) REQUIRES(mutex);
    // The entry as it is in the table now, or the end when it is gone.
    Table::iterator Locate(const PipeIdxMgrImpl &entry) REQUIRES(mutex);
    void UnwatchWriteEnd(const PipeIdxMgrImpl &entry) EXCLUDES(mutex);

    int epollFd = -1;
    int eventFd = -1;
    int exitIdx = -1;
    std::atomic<bool> stopping{false};
    // Set with the first heartbeat pipe: nobody else asks when a wait returned, and reading the clock takes time.
    std::atomic<bool> timesEvents{false};
    TarvoThread recvThread;
    SharedMutex mutex ACQUIRED_AFTER(lock_order::monitor) ACQUIRED_BEFORE(lock_order::calls);
    Table table GUARDED_BY(mutex);
    // Counts registrations and removals. An epoll event carries nothing but the index of its pipe, and may be older
    // than the entry that the index finds: events of entries that are newer than the wait are looked at again.
    std::atomic<uint64_t> changes{0};
    const char *threadName;
    // Made before the thread starts, so that the thread itself cannot run out of memory.
    std::unique_ptr<epoll_event[]> events;
    DataMonitorType type = 1;
};

#endif // TARVO_MONITOR_DATAMONITORIMPL_H
