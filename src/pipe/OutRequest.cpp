#include "pipe/OutRequest.h"

#include <cerrno>
#include <chrono>
#include <utility>

#include "pipe/TarvoPipeImpl.h"

int OutTimedRequest::Wait() {
    if (timeout < 0) {
        ended.Wait();
        return 0;
    }
    if (ended.WaitFor(std::chrono::milliseconds(timeout))) {
        return 0;
    }
    if (const std::shared_ptr<TarvoPipeImpl> owner = pipe.lock()) {
        TarvoRequest request{};
        request.id = id;
        owner->OnRequestCancelled(request);
    }
    return -ETIMEDOUT;
}

void OutTimedRequest::Cancel() {
    // The request outlives the call: whoever ends the wait holds a reference of its own.
    ended.Post();
}

void OutTimedRequest::Wake() { ended.Wake(); }

void OutTimedRequest::CountLate() const {
    if (const std::shared_ptr<TarvoPipeImpl> owner = pipe.lock()) {
        owner->Counted().Late();
    }
}

OutSyncTimedRequest::OutSyncTimedRequest(std::shared_ptr<TarvoPipeImpl> owner, uint32_t requestId, TarvoResponse &rsp,
                                         int timeoutMs)
    : OutSyncTimedRequest(std::weak_ptr<TarvoPipeImpl>(owner), requestId, rsp, timeoutMs) {}

OutSyncTimedRequest::OutSyncTimedRequest(std::weak_ptr<TarvoPipeImpl> &&owner, uint32_t requestId, TarvoResponse &rsp,
                                         int timeoutMs)
    : OutTimedRequest(std::move(owner), requestId, timeoutMs), response(&rsp) {
    response->data = nullptr;
    response->size = 0;
}

void OutSyncTimedRequest::Process(TarvoResponse &in) {
    if (Deliver(in)) {
        Wake();
    }
}

bool OutSyncTimedRequest::Deliver(TarvoResponse &in) {
    *response = in;
    return Count();
}

int OutSyncTimedRequest::Wait() {
    const int ret = OutTimedRequest::Wait();
    if (ret < 0) {
        Discard();
        return ret;
    }
    return response->data != nullptr ? 0 : -EPIPE;
}

void OutSyncTimedRequest::Discard() {
    if (response->data != nullptr) {
        CountLate();
    }
    delete[] response->data;
    response->data = nullptr;
    response->size = 0;
}
