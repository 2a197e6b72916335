// Outgoing requests: registering a call, waiting for its response, handing the response over.
#include <cerrno>
#include <string_view>
#include <utility>

#include "api/EnvManager.h"
#include "diag/velm_syslog.h"
#include "pipe/TarvoPipeImpl.h"

namespace {

constexpr char LOG_TAG[] = "TarvoPipeImplRequest";
constexpr std::string_view DEBUG_RUN_MODE = "1";
// Five hours: a process stopped in a debugger must not time out.
constexpr int DEBUG_TIMEOUT_MS = 18000000;

} // namespace

int TarvoPipeImpl::RecordOutRequest(TarvoRequest &req, TarvoResponse &rsp, int timeoutMs) {
    return outRequests.PushBack(MakeOutRequest(req, rsp, timeoutMs));
}

std::shared_ptr<OutRequest> TarvoPipeImpl::MakeOutRequest(TarvoRequest &req, TarvoResponse &rsp, int timeoutMs) {
    const std::string runMode = EnvManager::GetRunMode();
    TARVO_LOG(LOG_INFO, "RUN_MODE=%s", runMode.c_str());
    if (std::string_view(runMode) == DEBUG_RUN_MODE) {
        timeoutMs = DEBUG_TIMEOUT_MS;
    }
    req.id = AllocateId();
    auto request = std::make_shared<OutSyncTimedRequest>(weak_from_this(), req.id, rsp, timeoutMs);
    request->Init();
    return request;
}

int TarvoPipeImpl::WaitForResponse(const TarvoRequest &req, int timeoutMs) {
    std::shared_ptr<OutRequest> request;
    {
        MutexLock lock(outRequestMutex);
        request = outRequests.Find(req.id);
    }
    return request ? AwaitResponse(*request, req, timeoutMs) : 0;
}

int TarvoPipeImpl::AwaitResponse(OutRequest &request, const TarvoRequest &req, int timeoutMs) {
    const int ret = request.Wait();
    if (ret == -EPIPE) {
        TARVO_LOG(LOG_ERR, "Self=%s, Remote=%s failed. Caught exception.", myName.c_str(), remoteName.c_str());
        // A close ends the wait before it takes the request off the list, where it must not be once the caller's block
        // is gone.
        RemoveRequest(req);
        request.Discard();
    } else if (ret < 0) {
        TARVO_LOG(LOG_ERR, "TarvoRPC WaitForResponse timeout, id=%u,size=%u,timeout=%d ms,err=%d,Remote=%s,Self=%s.",
                  req.id, req.size, timeoutMs, ret, remoteName.c_str(), myName.c_str());
    }
    return ret;
}

void TarvoPipeImpl::RemoveRequest(const TarvoRequest &req) {
    MutexLock lock(outRequestMutex);
    outRequests.Erase(req.id);
}

void TarvoPipeImpl::ProcessResponse(InMessage &msg) {
    EraseTimeRecord(msg.id, msg.timed);
    std::shared_ptr<OutRequest> request;
    bool waiting = false;
    {
        MutexLock lock(outRequestMutex);
        request = outRequests.Pop(msg.id);
        if (!request) {
            stats.Late();
            return;
        }
        TarvoResponse response{msg.id, msg.ReleaseData(), msg.payloadLen};
        waiting = request->Deliver(response);
    }
    // Only now: the woken caller takes the mutex for its next call.
    if (waiting) {
        request->Wake();
    }
}
