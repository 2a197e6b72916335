#ifndef TARVO_PIPE_OUTREQUESTLIST_H
#define TARVO_PIPE_OUTREQUESTLIST_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/LockOrder.h"
#include "base/Mutex.h"
#include "pipe/OutRequest.h"

// The requests of one pipe that wait for their responses, in the order in which they were made.
// Owns: references to at most 1000 requests. Threads: any. Locks: mutex. Ends: disabled, so that no caller waits.
class OutRequestList {
public:
    // From now on requests are accepted.
    void Enable() EXCLUDES(mutex);
    // Refuses new requests and ends the wait of all that are there, without a response.
    void Disable() EXCLUDES(mutex);

    // 0, -ENOMEM when full, -EPIPE when not enabled.
    int PushBack(const std::shared_ptr<OutRequest> &request) EXCLUDES(mutex);
    // The same, taking the caller's reference over on success.
    int PushBack(std::shared_ptr<OutRequest> &&request) EXCLUDES(mutex);
    // The request with this id, taken out of the list; empty when there is none.
    std::shared_ptr<OutRequest> Pop(uint32_t id) EXCLUDES(mutex);
    // The request with this id, left in the list; empty when there is none.
    std::shared_ptr<OutRequest> Find(uint32_t id) EXCLUDES(mutex);
    void Erase(uint32_t id) EXCLUDES(mutex);
    std::size_t Size() EXCLUDES(mutex);

private:
    // Keeps its memory, so that a call allocates none for its place.
    using Requests = std::vector<std::shared_ptr<OutRequest>>;

    Requests::iterator Locate(uint32_t id) REQUIRES(mutex);

    Requests requests GUARDED_BY(mutex);
    bool valid GUARDED_BY(mutex) = false;
    Mutex mutex ACQUIRED_AFTER(lock_order::calls) ACQUIRED_BEFORE(lock_order::submission);
};

#endif // TARVO_PIPE_OUTREQUESTLIST_H
