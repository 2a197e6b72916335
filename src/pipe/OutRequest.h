// The waiting side of synchronous calls: what a caller sleeps on until the response, the time-out or the close.
#ifndef TARVO_PIPE_OUTREQUEST_H
#define TARVO_PIPE_OUTREQUEST_H

#include <cstdint>
#include <memory>
#include <utility>

#include "base/Semaphore.h"
#include "tarvo.h"

class TarvoPipeImpl;

// One outstanding request of a pipe, as its list sees it.
// Owns: nothing. Threads: one caller waits, any may end the wait. Locks: none of its own; the pipe's out-request mutex
// is held while it is given its response. Ends: by the last of the pipe's list, the caller and whoever ends the wait.
class OutRequest {
public:
    explicit OutRequest(uint32_t requestId) : id(requestId) {}
    virtual ~OutRequest() = default;
    OutRequest(const OutRequest &) = delete;
    OutRequest &operator=(const OutRequest &) = delete;

    // Takes the response and ends the wait; the caller holds the pipe's out-request mutex.
    virtual void Process(TarvoResponse &in) = 0;
    // Waits for Cancel(): 0 or a negated errno.
    virtual int Wait() = 0;
    // Whether the wait has ended before it began.
    virtual bool HasEnded() const = 0;
    virtual void Init() = 0;
    // Ends the wait, whether it has begun or not.
    virtual void Cancel() = 0;
    // Process() in two steps, of which the second needs no lock: the woken caller may want the very mutex. True: the
    // caller waits, and Wake() has to follow.
    virtual bool Deliver(TarvoResponse &in) = 0;
    virtual void Wake() = 0;
    // Frees a response that nobody will look at. The request must be out of the pipe's list.
    virtual void Discard() = 0;

    uint32_t GetId() const { return id; }

protected:
    uint32_t id;
};

// An outstanding request with a one-shot semaphore and a time-out.
// Owns: nothing. Threads: one caller waits, one thread posts. Locks: none. Ends: when neither the pipe's
// list nor the caller refers to it.
class OutTimedRequest : public OutRequest {
public:
    OutTimedRequest(std::weak_ptr<TarvoPipeImpl> &&owner, uint32_t requestId, int timeoutMs)
        : OutRequest(requestId), pipe(std::move(owner)), timeout(timeoutMs) {}

    // 0, or -ETIMEDOUT after `timeout` ms (negative: no limit), then with the request out of the pipe's list.
    int Wait() override;
    bool HasEnded() const override { return ended.HasPosts(); }
    void Init() override {}
    void Cancel() override;
    void Wake() override;

protected:
    // Counts the end of the wait; true when Wake() has to follow.
    bool Count() { return ended.Count(); }
    // A response has come that nobody waited for any more.
    void CountLate() const;

private:
    std::weak_ptr<TarvoPipeImpl> pipe;
    Semaphore ended;
    int32_t timeout;
};

// A request whose response goes into a block of the caller.
// Owns: nothing; points to the caller's response. Threads, Locks: as OutTimedRequest. Ends: as OutTimedRequest, and the
// response not before the request has left the pipe's list.
class OutSyncTimedRequest : public OutTimedRequest {
public:
    OutSyncTimedRequest(std::shared_ptr<TarvoPipeImpl> owner, uint32_t requestId, TarvoResponse &rsp, int timeoutMs);
    OutSyncTimedRequest(std::weak_ptr<TarvoPipeImpl> &&owner, uint32_t requestId, TarvoResponse &rsp, int timeoutMs);

    void Process(TarvoResponse &in) override;
    bool Deliver(TarvoResponse &in) override;
    // As the base; -EPIPE when the wait ended without a response. Frees a response that came after the time-out.
    int Wait() override;
    void Discard() override;

private:
    TarvoResponse *response;
};

#endif // TARVO_PIPE_OUTREQUEST_H
