#ifndef TARVO_PIPE_TARVOPIPEIMPL_H
#define TARVO_PIPE_TARVOPIPEIMPL_H

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/HasSymbol.h"
#include "base/LockOrder.h"
#include "base/Mutex.h"
#include "base/SharedMutex.h"
#include "diag/run_time_record.h"
#include "pipe/MagicReceiver.h"
#include "pipe/Message.h"
#include "pipe/OutRequestList.h"
#include "pipe/PipeObserver.h"
#include "pipe/PipeStats.h"
#include "pipe/TimeRecords.h"
#include "tarvo.h"

// Which receive monitor reads a pipe: 0 to 2 for local pipes of the three priorities, 3 to 5 for cross-domain ones.
using DataMonitorType = int32_t;

// One connection to a remote process: a FIFO that this side writes and one that it reads.
// Owns: both descriptors and, in server mode, both FIFO files. Threads: any may open, send, call and close; HandleEvent
// belongs to one receive monitor; callbacks run on workers. Locks, in this order: remoteCloseMutex, openMutex,
// inRequestMutex, openingMutex, the table's, writeFdMutex, descriptorUse, those of the monitors; outRequestMutex and
// writeFdMutex before the mutex of the request list; recordMutex is a leaf. Ends: with the last of its table entry,
// monitor entry, queued tasks and callers inside it; closes itself then.
class TarvoPipeImpl : public MagicReceiver, public std::enable_shared_from_this<TarvoPipeImpl> {
public:
    using ServiceHandler = std::function<void(int, TarvoRequest *)>;

    // Opens nothing: the table may throw the object away unused.
    TarvoPipeImpl(const TarvoAttr &attr, PipeObserver &tableObserver);
    ~TarvoPipeImpl() override;

    // ---- Names and identity ----
    // Own name followed by remote name, without a separator.
    HAS_SYMBOL std::string GetTableKey() const { return AssembleTableKey(myName + remoteName); }
    HAS_SYMBOL std::string GetMyName() const { return myName; }
    const std::string &GetRemoteName() const { return remoteName; }
    // The pipe handle; -1 until the table has given one.
    HAS_SYMBOL int GetPipeFd() const { return pipeFd; }
    HAS_SYMBOL void SetFd(int fd) {
        pipeFd = fd;
        workerName = std::to_string(fd);
    }
    // Counts from now on, if anything is counted in this process. Once it has its handle, before others can find it.
    void BeginStats() { stats.Begin(pipeFd, myName, remoteName); }
    PipeStats &Counted() { return stats; }
    // Whether the times of its messages are recorded.
    bool IsHeartbeat() const { return isHeartbeat; }
    HAS_SYMBOL DataMonitorType GetPipeDataMonitorType() const { return monitorType; }
    DataMonitorType InitDataMonitorType(TarvoPriority prio, TarvoDomain targetDomain) const;
    // The path of the FIFO that `from` writes and `to` reads; "" when it cannot be formed.
    std::string AssembleFifoName(const std::string &from, const std::string &to, TarvoDomain targetDomain) const;

    // ---- Opening ----
    // Opens both ends within `timeoutMs` (the write end in the background in server mode) and registers the read end;
    // 0, also when it is open already, or a negated errno. Nothing is torn down on failure.
    virtual int TimedOpen(int timeoutMs);
    int PrepareWriteFifo(int timeoutMs);
    int OpenReadFd();
    int CreateAndOpenFifo(const std::string &name, int flags) const;
    // One attempt to open the write end: its descriptor, a negated errno, or -1 while closing.
    int OpenWriteFifo() EXCLUDES(writeFdMutex);
    // Attempts every `interval` us (1: from 40 us, doubling up to 20 ms) within the pipe's open time-out.
    int RetryOpenWriteFifo(unsigned int interval);
    // Waits for the file to exist: 0, -ETIMEDOUT, or -ECANCELED when the pipe is closed meanwhile.
    int AppWaitForPipeReady(const std::string &name, int timeoutMs) const;
    // Task after an open in server mode: opens the write end once the remote reads. The result of RetryOpenWriteFifo.
    static int HandleServerOpen(std::shared_ptr<TarvoPipeImpl> pipe);

    // ---- Sending ----
    // 0 or a negated errno; never waits. Any number of threads at once.
    int Send(const TarvoRequest &req, int timeoutMs);
    int Send(const TarvoResponse &rsp);
    int Send(OutMessage &msg);
    int Write(OutMessage &msg);
    int Write(const std::unique_ptr<char[]> &buf, unsigned long len, unsigned int id);
    int WriteTimed(Tarvo::RunTimeRecord &record, const char *frame, std::size_t len, unsigned int id);
    // Send() for the request of a call. `writtenAt`: just before the write, ns.
    int SendCall(const TarvoRequest &req, int timeoutMs, uint64_t &writtenAt);

    // ---- Receiving and dispatch ----
    int Recv(void *buf, unsigned long len) override;
    void HandleEvent(const epoll_event &ev, Tarvo::EpollTimeRecord &rec);
    // The same for an event that belongs to one opening of the pipe: its hang-up does not close a later one.
    void HandleEvent(const epoll_event &ev, Tarvo::EpollTimeRecord &rec, uint32_t ofOpening);
    void HandleMessage(Tarvo::EpollTimeRecord &rec);
    std::optional<InMessage> RecvMessage(Tarvo::EpollTimeRecord &rec);
    virtual void ProcessMessage(InMessage &msg);
    void ProcessRequest(InMessage &msg);
    // Hands a request (null: the notice of a remote close) to a worker. 0, or negative when it was dropped.
    virtual int HandleRequest(std::shared_ptr<InRequest> req, const ServiceHandler &handler);
    void CacheRequest(const std::shared_ptr<InRequest> &req) EXCLUDES(inRequestMutex);
    void ProcessCachedRequests(const ServiceHandler &handler) EXCLUDES(inRequestMutex);
    ServiceHandler GetServiceHandler() const;
    void OnCallbackFinished();
    // Whether the record that it made is the message's own (InMessage::timed).
    bool CheckEpollTime(const MsgHead &head, Tarvo::EpollTimeRecord &rec) EXCLUDES(recordMutex);
    void UpdateTimeRecord(unsigned int id) EXCLUDES(recordMutex);
    // A copy, taken without the lock: for use once no request can arrive any more.
    HAS_SYMBOL std::list<std::shared_ptr<InRequest>> GetInReqList() const NO_THREAD_SAFETY_ANALYSIS {
        return inRequests;
    }

    // ---- Outgoing requests ----
    HAS_SYMBOL unsigned int AllocateId() { return nextId.fetch_add(1, std::memory_order_relaxed); }
    // Registers a call under a fresh id, which is written into `req`; `rsp` is cleared and must stay valid until
    // WaitForResponse or RemoveRequest has returned.
    int RecordOutRequest(TarvoRequest &req, TarvoResponse &rsp, int timeoutMs);
    int WaitForResponse(const TarvoRequest &req, int timeoutMs) EXCLUDES(outRequestMutex);
    // The same two in steps, for a caller that keeps the call between them instead of having it looked for among the
    // outstanding ones. One that has ended before the wait is no longer there, and is not waited for.
    std::shared_ptr<OutRequest> MakeOutRequest(TarvoRequest &req, TarvoResponse &rsp, int timeoutMs);
    int RecordOutRequest(const std::shared_ptr<OutRequest> &request) { return outRequests.PushBack(request); }
    int AwaitResponse(OutRequest &request, const TarvoRequest &req, int timeoutMs) EXCLUDES(outRequestMutex);
    void RemoveRequest(const TarvoRequest &req) EXCLUDES(outRequestMutex);
    HAS_SYMBOL void OnRequestCancelled(const TarvoRequest &req) { RemoveRequest(req); }
    void ProcessResponse(InMessage &msg) EXCLUDES(outRequestMutex);

    // ---- Closing ----
    void HandleRemoteClosed() EXCLUDES(remoteCloseMutex);
    // The same, but of one opening: nothing happens when the pipe has been opened anew since.
    void HandleRemoteClosed(uint32_t ofOpening) EXCLUDES(remoteCloseMutex, openingMutex, writeFdMutex);
    void OnRemoteClosedFinished();
    // Closes both descriptors once, and removes the files that this side created; 0 or the last removal's result.
    int CloseFd() EXCLUDES(writeFdMutex);
    void DeInitPipe() EXCLUDES(writeFdMutex);
    // Before the last close: whoever has found the pipe just before cannot open it again, nor register it, which then
    // nobody could undo. A registration that is under way has ended when this returns.
    void Retire() EXCLUDES(writeFdMutex);
    // Removes both FIFO files of a pipe whose remote created them.
    void CleanPipe();
    int UnlinkFd(const std::string &name) const;
    // Removes both FIFO files without checks, locks or logging: for a process that is failing.
    void ExceptionHandler();
    HAS_SYMBOL bool IsCallbackHandleRemoteClose() const { return callbackHandleRemoteClose != 0; }
    // The write end of a pipe that has it before it is registered (client mode), else -1: its remote may be gone before
    // the read end has ever had a writer, and so without a hang-up there.
    int LoneWriteFd() const { return mode == TARVO_MODE_CLIENT ? writeFd.load() : -1; }
    // What an epoll set would report of the pipe just now: EPOLLIN and EPOLLHUP of its read end, EPOLLERR when the
    // write end of a pipe in client mode has no reader.
    uint32_t ReadyEvents();
    // Once the write end has no reader while the read end is silent: whether nobody has the other end of that one open
    // either, which a FIFO that has never had a writer tells to nobody but a read(2). Receive monitor only. A message
    // that comes just then is handled.
    bool HasLostRemote(Tarvo::EpollTimeRecord &rec);
    // Which opening of the pipe this is: events and background work belong to one.
    uint32_t Opening() const { return opening; }
    // For the monitor, held shared around a system call on the read descriptor.
    SharedMutex &DescriptorUse() RETURN_CAPABILITY(descriptorUse) { return descriptorUse; }

protected:
    HAS_SYMBOL std::string AssembleTableKey(const std::string &key) const { return key; }
    void AssembleFifoNames();
    int GetReadFd() const { return readFd; }
    const std::string &GetReadFifoName() const { return readFifoName; }

    std::string myName;
    std::string remoteName;
    // 0 constructed, 1 open or opening, -1 closing or closed.
    std::atomic<int32_t> closeAction{0};
    PipeObserver &observer;

private:
    friend class RequestTask;

    // The last to go: requests that wait are counted on their way out.
    PipeStats stats;

    // 0, or -ECANCELED once the pipe is retired.
    int BeginOpening() EXCLUDES(openingMutex, writeFdMutex);
    int OpenBothEnds(int timeoutMs);
    int RegisterReadEnd() EXCLUDES(openingMutex);
    void CloseReadEnd() EXCLUDES(writeFdMutex);
    void StartServerOpen();
    int CreateOwnFifo(const std::string &name, const char *slowText) const;
    // False when the pipe has its write end, is closed or is opened anew meanwhile.
    bool AwaitNextAttempt(std::chrono::microseconds time, uint32_t ofOpening) EXCLUDES(writeFdMutex);
    bool IsClosing() const { return closeAction == -1; }
    int CloseOnce() REQUIRES(writeFdMutex);

    // Send() and Write(), counted as of that kind. Part of their callers, so that counting costs no call.
    __attribute__((always_inline)) int SendAs(unsigned kind, OutMessage &msg, uint64_t &writtenAt);
    __attribute__((always_inline)) int TrySend(OutMessage &msg, uint64_t &writtenAt);
    int WriteFrame(OutMessage &msg, uint64_t &writtenAt);
    __attribute__((always_inline)) int Tell(unsigned kind, const OutMessage &msg, int result);

    template <typename Receive>
    void HandleReceived(Receive receive);
    std::optional<InMessage> RecvPayload(const MsgHead &head, Tarvo::EpollTimeRecord &rec);
    void TellReceived(const MsgHead &head, InMessage &msg, Tarvo::EpollTimeRecord &rec);
    // A request that gets to no callback, for one of TARVO_STATS_DROP_...
    void Drop(uint32_t id, unsigned reason);
    // `make()`, counted as dropped if there is no memory for it.
    template <typename Make>
    auto MakeRequest(const InMessage &msg, Make make);
    // HandleRequest for the notice of a remote close, made before. Null: there was no memory for it.
    int HandleNotice(const std::shared_ptr<const TarvoTask> &notice);
    // The same, once for each opening; false when the callback will not be told and the pipe is not closing either.
    bool TellOnce(const std::shared_ptr<const TarvoTask> &notice, uint32_t ofOpening) REQUIRES(remoteCloseMutex);
    // 0 when a callback may be submitted now.
    int RefuseCallback();
    // The task that calls `handler` with `req`, or with the notice of a remote close; null when memory has run out.
    // Copies the user's callback: not under a lock.
    std::shared_ptr<const TarvoTask> MakeTask(std::shared_ptr<InRequest> &&req, const ServiceHandler &handler);
    int Submit(std::shared_ptr<const TarvoTask> &&task);
    void RunCallback(const ServiceHandler &handler, const InRequest *req);
    // CheckEpollTime for the few pipes that it concerns. Apart, so that others need no room for it with each message.
    __attribute__((noinline)) bool RecordTimes(const MsgHead &head, const Tarvo::EpollTimeRecord &rec)
        EXCLUDES(recordMutex);
    // Early, without its callback: by the message that has inserted it and by no other.
    void EraseTimeRecord(unsigned int id, bool timed) EXCLUDES(recordMutex);

    // The descriptors, or negative. Written under writeFdMutex, read by senders and the monitor without it.
    std::atomic<int32_t> writeFd{-1};
    std::atomic<int32_t> readFd{-1};
    // Held shared during a system call on one of the descriptors and exclusively between taking a descriptor out of
    // its field and closing it: a frame must never go into a file that another thread has just opened under the same
    // number.
    SharedMutex descriptorUse ACQUIRED_BEFORE(lock_order::monitors);
    Mutex writeFdMutex ACQUIRED_AFTER(lock_order::descriptors) ACQUIRED_BEFORE(descriptorUse);
    // Notified, under writeFdMutex, when the write end is there, the pipe closes or is opened anew.
    std::condition_variable openingChanged;
    // Set under writeFdMutex.
    std::atomic<bool> retired{false};
    std::timed_mutex openMutex;
    // Held while an opening begins and registers its read end, and while a remote close takes the registration back and
    // closes: what is registered is open, and what has ended does not take the next opening with it.
    Mutex openingMutex ACQUIRED_BEFORE(lock_order::table, writeFdMutex);
    // Changed under openingMutex and writeFdMutex.
    std::atomic<uint32_t> opening{0};

    const std::string targetCon;
    // Written before the pipe is published in the table.
    std::atomic<int32_t> pipeFd{-1};
    std::string workerName = "-1";
    const ServiceHandler serviceHandler;
    const int32_t timeout; // open time-out, ms
    const TarvoMode mode;
    const uint32_t gid;
    const TarvoPriority priority;
    const int32_t targetPid;
    const bool isConcur;
    const TarvoDomain domain;
    const DataMonitorType monitorType;
    std::string writeFifoName;
    std::string readFifoName;
    const bool isHeartbeat;

    Mutex inRequestMutex ACQUIRED_BEFORE(openingMutex);
    std::list<std::shared_ptr<InRequest>> inRequests GUARDED_BY(inRequestMutex);
    // Its size, for the common case that there is none.
    std::atomic<uint32_t> cachedRequests{0};
    std::atomic<uint32_t> concurrentCallbacks{0};
    std::atomic<int32_t> callbackHandleRemoteClose{0};
    Mutex recordMutex ACQUIRED_AFTER(lock_order::leaves) ACQUIRED_BEFORE(lock_order::logging);
    std::map<unsigned int, std::shared_ptr<Tarvo::TimedRPCRecord>> timedRecords GUARDED_BY(recordMutex);

    std::atomic<uint32_t> nextId{0};
    // Held while a response is given to its request, so that nobody gives one to a request taken out under it.
    Mutex outRequestMutex ACQUIRED_BEFORE(lock_order::calls);
    OutRequestList outRequests;

    Mutex remoteCloseMutex ACQUIRED_AFTER(lock_order::pipe) ACQUIRED_BEFORE(inRequestMutex);
    // The opening of whose end the callback has been told.
    std::optional<uint32_t> toldOpening GUARDED_BY(remoteCloseMutex);
};

#endif // TARVO_PIPE_TARVOPIPEIMPL_H
