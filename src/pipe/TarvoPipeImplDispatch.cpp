// What becomes of a message that has come: requests on their way to a worker, and their callbacks.
#include <cerrno>
#include <cstddef>
#include <new>
#include <utility>

#include "base/Probe.h"
#include "diag/velm_syslog.h"
#include "pipe/TarvoPipeImpl.h"

namespace {

// One component with the receiving, one source tag.
constexpr char LOG_TAG[] = "TarvoPipeImplReceive";
constexpr std::size_t MAX_CACHED_REQUESTS = 1000;
constexpr uint32_t MAX_CONCURRENT_CALLBACKS = 200;

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
        if (pipe && !begun) {
            // Refused by its worker, or by nobody but the close that has emptied the worker's queue.
            pipe->Drop(id, pipe->IsClosing() ? TARVO_STATS_DROP_CLOSING : TARVO_STATS_DROP_QUEUE);
        }
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
    void operator()() const override {
        begun = true;
        pipe->RunCallback(handler, this);
    }

private:
    std::shared_ptr<TarvoPipeImpl> pipe;
    TarvoPipeImpl::ServiceHandler handler;
    const bool sharesBlock;
    mutable bool begun = false; // by the one thread that runs it
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

void TarvoPipeImpl::Drop(uint32_t id, unsigned reason) {
    TARVO_PROBE_DROPPED(pipeFd.load(), id, reason);
    stats.Dropped(reason);
}

template <typename Make>
auto TarvoPipeImpl::MakeRequest(const InMessage &msg, Make make) {
    try {
        return make();
    } catch (const std::bad_alloc &) {
        Drop(msg.id, TARVO_STATS_DROP_MEMORY);
        throw;
    }
}

void TarvoPipeImpl::ProcessRequest(InMessage &msg) {
    // Not copied here: each task gets its copy.
    if (serviceHandler) {
        auto req = MakeRequest(msg, [&] { return RequestTask::Make(msg); });
        ProcessCachedRequests(serviceHandler);
        if (HandleRequest(std::move(req), serviceHandler) != 0) {
            EraseTimeRecord(msg.id, msg.timed);
        }
        return;
    }
    MakeRequest(msg, [&] {
        CacheRequest(std::make_shared<InRequest>(msg));
        return 0;
    });
    const ServiceHandler installed = GetServiceHandler();
    if (installed) {
        ProcessCachedRequests(installed);
    }
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

void TarvoPipeImpl::CacheRequest(const std::shared_ptr<InRequest> &req) {
    MutexLock lock(inRequestMutex);
    if (inRequests.size() >= MAX_CACHED_REQUESTS) {
        TARVO_LOG(LOG_ERR, "Add InRequest failed, out of space");
        EraseTimeRecord(req->id, req->timed);
        Drop(req->id, TARVO_STATS_DROP_CACHE);
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
    const bool isNotice = !req;
    const uint32_t id = isNotice ? 0 : req->id;
    const int refused = RefuseCallback();
    if (refused != 0 && !isNotice) {
        Drop(id, refused == -EBUSY ? TARVO_STATS_DROP_CALLBACKS : TARVO_STATS_DROP_CLOSING);
    }
    if (refused != 0) {
        return refused;
    }
    std::shared_ptr<const TarvoTask> task = MakeTask(std::move(req), handler);
    if (!task && !isNotice) {
        Drop(id, TARVO_STATS_DROP_MEMORY);
    }
    return Submit(std::move(task));
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
    if (!isConcur && retired && IsClosing()) {
        // Handed in while the pipe was being closed, behind the dropping of what waited: the next worker of the pipe's
        // name would start it after the close.
        if (req != nullptr) {
            Drop(req->id, TARVO_STATS_DROP_CLOSING);
        }
        return;
    }
    if (req != nullptr) {
        UpdateTimeRecord(req->id);
        TarvoRequest view{req->id, req->data.get(), req->length};
        const uint64_t begunAt = stats.CallbackBegins(req->readAt);
        TARVO_PROBE_CALLBACK_START(pipeFd.load(), req->id);
        handler(pipeFd, &view);
        TARVO_PROBE_CALLBACK_END(pipeFd.load(), req->id);
        stats.CallbackEnds(begunAt);
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
