#include "pipe/OutRequestList.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "diag/velm_syslog.h"

namespace {

constexpr char LOG_TAG[] = "OutRequestList";
constexpr std::size_t CAPACITY = 1000;

} // namespace

void OutRequestList::Enable() {
    MutexLock lock(mutex);
    valid = true;
}

void OutRequestList::Disable() {
    MutexLock lock(mutex);
    valid = false;
    for (const std::shared_ptr<OutRequest> &request : requests) {
        request->Cancel();
    }
    requests.clear();
}

int OutRequestList::PushBack(const std::shared_ptr<OutRequest> &request) {
    return PushBack(std::shared_ptr<OutRequest>(request));
}

int OutRequestList::PushBack(std::shared_ptr<OutRequest> &&request) {
    MutexLock lock(mutex);
    if (requests.size() >= CAPACITY) {
        TARVO_LOG(LOG_ERR, "Add OutRequest failed, outReqList size=%zu bytes.", requests.size());
        return -ENOMEM;
    }
    if (!valid) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Add OutRequest failed, outReqList is not valid.");
        return -EPIPE;
    }
    requests.push_back(std::move(request));
    return 0;
}

std::shared_ptr<OutRequest> OutRequestList::Pop(uint32_t id) {
    MutexLock lock(mutex);
    const auto found = Locate(id);
    if (found == requests.end()) {
        return nullptr;
    }
    std::shared_ptr<OutRequest> request = std::move(*found);
    requests.erase(found);
    return request;
}

std::shared_ptr<OutRequest> OutRequestList::Find(uint32_t id) {
    MutexLock lock(mutex);
    const auto found = Locate(id);
    return found != requests.end() ? *found : nullptr;
}

void OutRequestList::Erase(uint32_t id) {
    MutexLock lock(mutex);
    const auto found = Locate(id);
    if (found != requests.end()) {
        requests.erase(found);
    }
}

std::size_t OutRequestList::Size() {
    MutexLock lock(mutex);
    return requests.size();
}

OutRequestList::Requests::iterator OutRequestList::Locate(uint32_t id) {
    return std::find_if(requests.begin(), requests.end(),
                        [id](const std::shared_ptr<OutRequest> &request) { return request->GetId() == id; });
}
