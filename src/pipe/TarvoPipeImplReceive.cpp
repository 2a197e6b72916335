// Receiving: reading one frame an event, and handing requests to the workers.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <optional>
#include <utility>

#include "diag/run_time_record.h"
#include "diag/velm_syslog.h"
#include "pipe/TarvoPipeImpl.h"

namespace {

constexpr char LOG_TAG[] = "TarvoPipeImplReceive";
constexpr std::size_t MAX_CACHED_REQUESTS = 1000;
constexpr uint32_t MAX_CONCURRENT_CALLBACKS = 200;
constexpr int64_t LATE_US = 2000000;

// Whether the message has its payload buffer, or is to have none as its length is not valid: false when memory has run
// out.
bool MakeBuffer(InMessage &msg, bool withRoom) {
    try {
        msg.MakeBuffer(withRoom);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

} // namespace

// A request off the wire while it waits for its worker. It is the task itself, and lies behind its payload where the
// message has room, so that a message takes one block from the heap and not three.
// Owns: once bound, a reference to the pipe, which thereby outlives its queued callbacks, and a copy of the user's
// callback. Threads, Locks, Ends: as InRequest, then as TarvoTask.
class RequestTask : public InRequest, public TarvoTask {
public:
    static std::shared_ptr<RequestTask> Make(InMessage &msg);

    // `behindPayload`: the payload's block is this object's own, and is freed after it and not by it.
    RequestTask(InMessage &msg, bool behindPayload) noexcept
        : InRequest(msg), TarvoTask(nullptr), sharesBlock(behindPayload) {}
    ~RequestTask() override {
        if (sharesBlock) {
            static_cast<void>(data.release());
        }
    }

    const TarvoTask *Bind(const std::shared_ptr<TarvoPipeImpl> &owner,
                          const TarvoPipeImpl::ServiceHandler &callback) override {
        handler = callback;
        pipe = owner;
        return this;
    }
    void operator()() const override { pipe->RunCallback(handler, this); }

private:
    std::shared_ptr<TarvoPipeImpl> pipe;
    TarvoPipeImpl::ServiceHandler handler;
    const bool sharesBlock;
};

namespace {

// Where a shared object lies that is made behind a message's payload; frees the block of both.
// Owns: the block, from allocate() to deallocate(). Threads: one at a time. Locks: none. Ends: any time.
template <typename T>
class BehindPayload {
public:
    using value_type = T;

    BehindPayload(char *payload, std::size_t payloadLength) : block(payload), length(payloadLength) {}
    template <typename U>
    explicit BehindPayload(const BehindPayload<U> &other) : block(other.block), length(other.length) {}

    T *allocate(std::size_t) {
        static_assert(sizeof(T) + alignof(T) <= InMessage::ROOM, "fits behind the payload, wherever that ends");
        static_assert(alignof(T) <= alignof(std::max_align_t), "the block is aligned for it");
        return reinterpret_cast<T *>(block + (length + alignof(T) - 1) / alignof(T) * alignof(T));
    }
    void deallocate(T *, std::size_t) { delete[] block; }

    template <typename U>
    bool operator==(const BehindPayload<U> &other) const {
        return block == other.block;
    }
    template <typename U>
    bool operator!=(const BehindPayload<U> &other) const {
        return block != other.block;
    }

private:
    template <typename U>
    friend class BehindPayload;

    char *block;
    std::size_t length;
};

} // namespace

std::shared_ptr<RequestTask> RequestTask::Make(InMessage &msg) {
    if (!msg.HasRoom()) {
        return std::make_shared<RequestTask>(msg, false);
    }
    return std::allocate_shared<RequestTask>(BehindPayload<RequestTask>(msg.GetData(), msg.payloadLen), msg, true);
}

int TarvoPipeImpl::Recv(void *buf, unsigned long len) {
    if (buf == nullptr) {
        TARVO_LOG(LOG_ERR, "Input addrress is nullptr");
        return -1;
    }
    int fd = -1;
    ssize_t received = -1;
    int error = 0;
    {
        ReadLock use(descriptorUse);
        fd = readFd;
        received = read(fd, buf, len);
        error = static_cast<unsigned long>(received) == len ? 0 : errno;
    }
    if (received < 0) {
        // A failed read of a pipe that this process has just closed is nobody's trouble, here as below.
        TARVO_LOG(error == EAGAIN || IsClosing() ? LOG_INFO : LOG_ERR,
                  "The readFd(%d) read fail, errno = %d, remoteName: %s", fd, error, remoteName.c_str());
        return -error;
    }
    if (received == 0) {
        return 0;
    }
    if (static_cast<unsigned long>(received) != len) {
        TARVO_LOG(LOG_ERR, "The readFd(%d) read size %ld instead of %lu, errno = %d, remoteName: %s", fd, received, len,
                  error, remoteName.c_str());
        return -1;
    }
    return static_cast<int>(received);
}

void TarvoPipeImpl::HandleEvent(const epoll_event &ev, Tarvo::EpollTimeRecord &rec) { HandleEvent(ev, rec, opening); }

void TarvoPipeImpl::HandleEvent(const epoll_event &ev, Tarvo::EpollTimeRecord &rec, uint32_t ofOpening) {
    if ((ev.events & EPOLLIN) != 0) {
        HandleMessage(rec);
    }
    if ((ev.events & EPOLLHUP) != 0) {
        TARVO_LOG(LOG_INFO, "%s=>%s readFd(%d) read msg 0, remote is closed", myName.c_str(), remoteName.c_str(),
                  readFd.load());
        HandleRemoteClosed(ofOpening);
    }
}

template <typename Receive>
void TarvoPipeImpl::HandleReceived(Receive receive) {
    try {
        std::optional<InMessage> msg = receive();
        if (msg) {
            ProcessMessage(*msg);
        }
    } catch (const std::bad_alloc &) {
        TARVO_LOG(LOG_ERR, "Recv msg head failed for remote(%s), ret = %d", remoteName.c_str(), -ENOMEM);
    }
}

void TarvoPipeImpl::HandleMessage(Tarvo::EpollTimeRecord &rec) {
    HandleReceived([&] { return RecvMessage(rec); });
}

bool TarvoPipeImpl::HasLostRemote(Tarvo::EpollTimeRecord &rec) {
    MsgHead head{};
    const int ret = Recv(&head, sizeof(head));
    if (ret > 0) {
        HandleReceived([&] { return RecvPayload(head, rec); });
    }
    return ret == 0;
}

std::optional<InMessage> TarvoPipeImpl::RecvMessage(Tarvo::EpollTimeRecord &rec) {
    MsgHead head{};
    const int ret = Recv(&head, sizeof(head));
    if (ret < 1) {
        TARVO_LOG(IsClosing() ? LOG_INFO : LOG_ERR, "Recv msg head failed for remote(%s), ret = %d", remoteName.c_str(),
                  ret);
        return std::nullopt;
    }
    return RecvPayload(head, rec);
}

std::optional<InMessage> TarvoPipeImpl::RecvPayload(const MsgHead &head, Tarvo::EpollTimeRecord &rec) {
    if (head.magic != MAGIC) {
        TARVO_LOG(LOG_ERR, "RecvMagic, result != MAGIC_OK, remote(%s), result=%u.", remoteName.c_str(), head.magic);
        return std::nullopt;
    }
    std::optional<InMessage> msg(std::in_place, head.id, head.type, head.payloadLen);
    int ret = -ENOMEM;
    if (MakeBuffer(*msg, head.type == MSG_TYPE_REQUEST && serviceHandler)) {
        ret = Recv(msg->GetData(), head.payloadLen);
    } else {
        // The payload has to leave the FIFO all the same: the next read expects a head.
        std::array<char, Message::MAX_PAYLOAD_LEN> unwanted{};
        Recv(unwanted.data(), std::min<uint64_t>(head.payloadLen, unwanted.size()));
    }
    if (ret < 1) {
        TARVO_LOG(IsClosing() ? LOG_INFO : LOG_ERR,
                  "Recv msg failed, remote(%s), received payloadLen should be %u, received timeout = %d ms, received "
                  "writeStartTime = %ld, ret = %d",
                  remoteName.c_str(), head.payloadLen, head.timeout, head.writeStartTime, ret);
        return std::nullopt;
    }
    if (msg->Checksum() != head.checksum) {
        TARVO_LOG(LOG_ERR, "Recv msg failed, send checksum = %u, but recv checksum = %u for readFd(%d) remote(%s)",
                  head.checksum, msg->checksum, readFd.load(), remoteName.c_str());
        return std::nullopt;
    }
    msg->timed = CheckEpollTime(head, rec);
    return msg;
}

void TarvoPipeImpl::ProcessMessage(InMessage &msg) {
    if (msg.type == MSG_TYPE_REQUEST) {
        ProcessRequest(msg);
    } else if (msg.type == MSG_TYPE_RESPONSE) {
        ProcessResponse(msg);
    } else {
        EraseTimeRecord(msg.id, msg.timed);
    }
}

void TarvoPipeImpl::ProcessRequest(InMessage &msg) {
    // Not copied here: each task gets its copy.
    if (serviceHandler) {
        auto req = RequestTask::Make(msg);
        ProcessCachedRequests(serviceHandler);
        if (HandleRequest(std::move(req), serviceHandler) != 0) {
            EraseTimeRecord(msg.id, msg.timed);
        }
        return;
    }
    CacheRequest(std::make_shared<InRequest>(msg));
    const ServiceHandler installed = GetServiceHandler();
    if (installed) {
        ProcessCachedRequests(installed);
    }
}

void TarvoPipeImpl::CacheRequest(const std::shared_ptr<InRequest> &req) {
    MutexLock lock(inRequestMutex);
    if (inRequests.size() >= MAX_CACHED_REQUESTS) {
        TARVO_LOG(LOG_ERR, "Add InRequest failed, out of space");
        EraseTimeRecord(req->id, req->timed);
        return;
    }
    inRequests.push_back(req);
    ++cachedRequests;
}

void TarvoPipeImpl::ProcessCachedRequests(const ServiceHandler &handler) {
    if (cachedRequests == 0) {
        return;
    }
    MutexLock lock(inRequestMutex);
    for (const std::shared_ptr<InRequest> &req : inRequests) {
        // Whose delivery time nobody asks for when it is dropped.
        if (HandleRequest(req, handler) != 0) {
            EraseTimeRecord(req->id, req->timed);
        }
    }
    inRequests.clear();
    cachedRequests = 0;
}

int TarvoPipeImpl::HandleRequest(std::shared_ptr<InRequest> req, const ServiceHandler &handler) {
    const int refused = RefuseCallback();
    return refused != 0 ? refused : Submit(MakeTask(std::move(req), handler));
}

int TarvoPipeImpl::HandleNotice(const std::shared_ptr<const TarvoTask> &notice) {
    const int refused = RefuseCallback();
    return refused != 0 ? refused : Submit(std::shared_ptr<const TarvoTask>(notice));
}

int TarvoPipeImpl::RefuseCallback() {
    if (IsClosing()) {
        return -ECANCELED;
    }
    if (isConcur && concurrentCallbacks >= MAX_CONCURRENT_CALLBACKS) {
        TARVO_LOG_RESTRAINED(LOG_ERR,
                             "Callback occupied over 200 threads fail. Drop the current callback for Remote=%s, fd=%d.",
                             remoteName.c_str(), GetPipeFd());
        return -EBUSY;
    }
    return 0;
}

int TarvoPipeImpl::Submit(std::shared_ptr<const TarvoTask> &&task) {
    int ret = -ENOMEM;
    try {
        if (task && isConcur) {
            // Taken back by the finished callback only: a refused submission keeps its place.
            concurrentCallbacks.fetch_add(1, std::memory_order_relaxed);
            ret = observer.OnAsyncTaskIn(std::move(task), priority);
        } else if (task) {
            ret = observer.OnTaskIn(workerName, std::move(task), priority);
            if (IsClosing()) {
                // A close since the test in RefuseCallback has given the pipe's worker back already; the submission
                // allocated one anew, which nobody else would ever give back.
                observer.OnFreeSelfWorker(workerName);
            }
        }
    } catch (const std::bad_alloc &) {
        ret = -ENOMEM;
    }
    if (ret != 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Observer handle request failed(%d) for readFd(%d) remote(%s)", ret,
                             readFd.load(), remoteName.c_str());
    }
    return ret;
}

std::shared_ptr<const TarvoTask> TarvoPipeImpl::MakeTask(std::shared_ptr<InRequest> &&req,
                                                         const ServiceHandler &handler) {
    try {
        std::shared_ptr<TarvoPipeImpl> self = shared_from_this();
        if (const TarvoTask *const task = req ? req->Bind(self, handler) : nullptr) {
            std::shared_ptr<const TarvoTask> bound(req, task);
            // The user's callback goes with the task: on the worker, and not here after the task has run.
            req.reset();
            return bound;
        }
        return std::make_shared<const SyncTask>([self = std::move(self), callback = handler, req = std::move(req)] {
            self->RunCallback(callback, req.get());
        });
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void TarvoPipeImpl::RunCallback(const ServiceHandler &handler, const InRequest *req) {
    if (!isConcur && retired) {
        // Handed in while the pipe was being closed, behind the dropping of what waited: the next worker of the pipe's
        // name would start it after the close.
        return;
    }
    if (req != nullptr) {
        UpdateTimeRecord(req->id);
        TarvoRequest view{req->id, req->data.get(), req->length};
        handler(pipeFd, &view);
        OnCallbackFinished();
        return;
    }
    callbackHandleRemoteClose = 1;
    handler(pipeFd, nullptr);
    OnCallbackFinished();
    // Cleared before the close, which therefore gives the named worker back while that worker still runs this task.
    // Safe, since whatever the worker's next owner submits queues behind it.
    callbackHandleRemoteClose = 0;
    TarvoClosePipe(pipeFd);
    OnRemoteClosedFinished();
}

void TarvoPipeImpl::OnCallbackFinished() {
    if (isConcur) {
        concurrentCallbacks.fetch_sub(1, std::memory_order_relaxed);
    }
}

bool TarvoPipeImpl::CheckEpollTime(const MsgHead &head, Tarvo::EpollTimeRecord &rec) {
    return isHeartbeat && RecordTimes(head, rec);
}

bool TarvoPipeImpl::RecordTimes(const MsgHead &head, const Tarvo::EpollTimeRecord &rec) {
    const auto now = static_cast<int64_t>(Tarvo::GetCurrentTime());
    const int64_t total = Tarvo::Elapsed(head.writeStartTime, now);
    const int64_t waitStart = Tarvo::Elapsed(head.writeStartTime, rec.epollWaitT);
    if (total > LATE_US && !IsCrossDomainPipe(domain)) {
        TARVO_LOG_RESTRAINED(LOG_WARNING,
                             "Send too slow, msgType=%u, T=%ldus, T0=%ld, T1=%ld, Tp=%ld, Ev:%dof%d, %s=>%s, "
                             "writeStartT=%ld, epoolRecvT=%ld",
                             head.type, total, Tarvo::Elapsed(head.writeStartTime, rec.epollRecvT),
                             now - rec.epollRecvT, waitStart, rec.eventIdx, rec.eventNum, remoteName.c_str(),
                             myName.c_str(), head.writeStartTime, rec.epollRecvT);
    }
    const int64_t waited = std::max<int64_t>(waitStart, 0);
    const auto record = std::make_shared<Tarvo::TimedRPCRecord>(
        Tarvo::TimedRPCRecord{head.timeout, head.writeStartTime, rec.epollRecvT, -1, waited});
    MutexLock lock(recordMutex);
    const bool inserted = timedRecords.emplace(head.id, record).second;
    if (!inserted) {
        TARVO_LOG(LOG_ERR, "Rpc id already exist, id=%u, timeout=%d", head.id, head.timeout);
    }
    return inserted;
}

void TarvoPipeImpl::UpdateTimeRecord(unsigned int id) {
    if (!isHeartbeat) {
        return;
    }
    MutexLock lock(recordMutex);
    const auto found = timedRecords.find(id);
    if (found == timedRecords.end()) {
        return;
    }
    Tarvo::TimedRPCRecord &record = *found->second;
    record.callbackT = static_cast<int64_t>(Tarvo::GetCurrentTime());
    if (Tarvo::Elapsed(record.writeT, record.callbackT) > LATE_US) {
        TARVO_LOG_RESTRAINED(LOG_WARNING, "Callback %s=>%s start late, writeT=%ld, epollT=%ld, callbackT=%ld",
                             remoteName.c_str(), myName.c_str(), record.writeT, record.epollT, record.callbackT);
    }
    timedRecords.erase(found);
}

void TarvoPipeImpl::EraseTimeRecord(unsigned int id, bool timed) {
    if (!timed) {
        return;
    }
    MutexLock lock(recordMutex);
    timedRecords.erase(id);
}
