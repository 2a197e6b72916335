// The exported functions: each checks its arguments, finds the table, the pipe or the server, and hands the work on.
#include "tarvo.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "api/TableFactory.h"
#include "api/tarvo_check.h"
#include "base/NoThrow.h"
#include "base/ProcessOwner.h"
#include "diag/velm_syslog.h"
#include "pipe/TarvoPipeImpl.h"
#include "server/PipeServer.h"
#include "table/TarvoTable.h"

namespace {

constexpr char LOG_TAG[] = "tarvo";

template <typename Block>
bool IsEmpty(const Block *block) {
    return block == nullptr || block->data == nullptr || block->size == 0;
}

// A synchronous call whose request is registered with its pipe: sees to it that the pipe does not write into the
// caller's response any more when the call ends without one, however it ends.
// Owns: the registration, not what it refers to. Threads: the caller's. Locks: none. Ends: before the request, the pipe
// and the caller's response.
class PendingCall {
public:
    // `callReq` is the call's own: the caller's may be given to another call meanwhile, and then holds that one's id.
    PendingCall(TarvoPipeImpl &callPipe, OutRequest &callRequest, const TarvoRequest &callReq, TarvoResponse &callResp)
        : pipe(callPipe), request(callRequest), req(callReq), resp(callResp) {}

    ~PendingCall() {
        if (answered) {
            return;
        }
        pipe.RemoveRequest(req);
        // One that came in between belongs to nobody.
        if (resp.data != nullptr) {
            pipe.Counted().Late();
        }
        DestroyResponse(&resp);
    }

    PendingCall(const PendingCall &) = delete;
    PendingCall &operator=(const PendingCall &) = delete;

    int Wait(int timeout) {
        const int ret = request.HasEnded() ? 0 : Await(timeout);
        answered = ret == 0;
        return ret;
    }

private:
    int Await(int timeout) {
        const Cancellable wait;
        return pipe.AwaitResponse(request, req, timeout);
    }

    TarvoPipeImpl &pipe;
    OutRequest &request;
    const TarvoRequest &req;
    TarvoResponse &resp;
    bool answered = false;
};

int SendAndWait(TarvoPipeImpl &pipe, int fd, TarvoRequest &req, TarvoResponse &resp, int timeout) {
    // Registered before it is sent, so that a response which comes at once finds it.
    const std::shared_ptr<OutRequest> request = pipe.MakeOutRequest(req, resp, timeout);
    CallStats counted(pipe.Counted(), fd, request->GetId());
    int ret = pipe.RecordOutRequest(request);
    if (ret < 0) {
        TARVO_LOG(LOG_INFO, "RecordOutRequest err=%d.", ret);
        return counted.NotRegistered(ret);
    }
    const TarvoRequest own{request->GetId(), req.data, req.size};
    PendingCall call(pipe, *request, own, resp);
    TARVO_LOG(LOG_INFO, "SendRPCSync id=%u, size=%u bytes", own.id, own.size);
    counted.Sending();
    ret = pipe.SendCall(own, timeout, counted.writtenAt);
    if (ret < 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Send req fail, fd=%d, err=%d.", fd, ret);
        return counted.NotSent(ret);
    }
    counted.Sent();
    ret = call.Wait(timeout);
    return counted.Waited(ret, resp.data);
}

} // namespace

// In all of these the table is declared before the pipe, so that the pipe, which refers to the table, goes first.

int TarvoOpen(TarvoAttr *attr) {
    return NoThrow([attr] {
        if (attr == nullptr || CheckInputPipeAttr(*attr) != 0) {
            TARVO_LOG(LOG_ERR, "Input variables error");
            return -EINVAL;
        }
        TARVO_LOG(LOG_INFO, "TarvoOpen start name=%s, mode=%d, t=%d, pid=%d, pr=%d, isC=%d, gid=%u, self=%s",
                  attr->targetName, attr->mode, attr->timeout, attr->targetPid, attr->priority, attr->isConcur,
                  attr->gid, attr->selfName);
        return TarvoPipeTypeOpen(attr, TARVO_NORMAL_PIPE);
    });
}

int TarvoOpen(const char *targetName, void (*callback)(int, TarvoRequest *), int timeout, TarvoMode mode) {
    TarvoAttr attr;
    attr.targetName = targetName;
    // A null pointer makes an empty function object, not one that calls null.
    attr.callback = callback;
    attr.timeout = timeout;
    attr.mode = mode;
    return TarvoOpen(&attr);
}

int TarvoCreateClient(TarvoAttr *attr) {
    return NoThrow([attr] {
        if (attr == nullptr || CheckInputPipeAttr(*attr) != 0) {
            TARVO_LOG(LOG_ERR, "Input variables error");
            return -EINVAL;
        }
        TARVO_LOG(LOG_INFO, "TarvoCreateClient name=%s, mode=%d, t=%d, pid=%d, pr=%d, isC=%d, gid=%u, self=%s",
                  attr->targetName, attr->mode, attr->timeout, attr->targetPid, attr->priority, attr->isConcur,
                  attr->gid, attr->selfName);
        return TarvoPipeTypeOpen(attr, TARVO_CLIENT_PIPE);
    });
}

int TarvoCreateServer(TarvoServerAttr *attr) {
    return NoThrow([attr] {
        if (attr == nullptr || CheckInputServerAttr(*attr) != 0) {
            TARVO_LOG(LOG_ERR, "Input attr is nullptr");
            return -EINVAL;
        }
        ProcessOwner::Claim();
        const std::shared_ptr<PipeServer> server = PipeServer::GetInstance();
        if (!server) {
            TARVO_LOG(LOG_ERR, "Pipe server init failed");
            return -ENOENT;
        }
        TARVO_LOG(LOG_INFO, "TarvoCreateServer selfName=%s, gid=%u, priority=%d", attr->selfName, attr->gid,
                  attr->priority);
        return server->Init(*attr);
    });
}

int TarvoSendRequest(int fd, TarvoRequest *req) {
    return NoThrow([fd, req] {
        if (IsEmpty(req)) {
            TARVO_LOG(LOG_ERR, "Argument invalid.");
            return -EINVAL;
        }
        TARVO_LOG(LOG_INFO, "SendRequest id=%u, size=%u bytes", req->id, req->size);
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        if (!table) {
            TARVO_LOG(LOG_INFO, "TarvoSendRequest unfinished, because table is destroyed");
            return -ENOENT;
        }
        const std::shared_ptr<TarvoPipeImpl> pipe = table->GetPipe(fd);
        if (!pipe) {
            TARVO_LOG(LOG_ERR, "SendRequest fail, because pipe is NULL, fd=%d.", fd);
            return -ENOENT;
        }
        return pipe->Send(*req, -1);
    });
}

int TarvoSendResponse(int fd, TarvoResponse *resp) {
    return NoThrow([fd, resp] {
        if (IsEmpty(resp)) {
            TARVO_LOG(LOG_ERR, "Input resp == NULL.");
            return -EINVAL;
        }
        TARVO_LOG(LOG_INFO, "SendResponse id=%u, size=%u bytes", resp->id, resp->size);
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        if (!table) {
            TARVO_LOG(LOG_INFO, "TarvoSendResponse unfinished, because table is destroyed");
            return -ENOENT;
        }
        const std::shared_ptr<TarvoPipeImpl> pipe = table->GetPipe(fd);
        if (!pipe) {
            TARVO_LOG(LOG_ERR, "GetPipe fail, please check input fd(%d).", fd);
            return -ENOENT;
        }
        const int ret = pipe->Send(*resp);
        if (ret < 0) {
            TARVO_LOG(LOG_ERR, "TarvoSendResponse fail, ret=%d.", ret);
        }
        return ret;
    });
}

int TarvoTimedRPCSync(int fd, TarvoRequest *req, TarvoResponse *resp, int timeout) {
    return NoThrow([=] {
        if (IsEmpty(req)) {
            TARVO_LOG(LOG_ERR, "Argument invalid.");
            return -EINVAL;
        }
        if (resp == nullptr) {
            return TarvoSendRequest(fd, req);
        }
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        if (!table) {
            TARVO_LOG(LOG_ERR, "TarvoTimedRPCSync failed, because table is destroyed");
            return -ENOENT;
        }
        const std::shared_ptr<TarvoPipeImpl> pipe = table->GetPipe(fd);
        if (!pipe) {
            TARVO_LOG_RESTRAINED(LOG_ERR, "GetPipe fail, please check input fd(%d).", fd);
            return -ENOENT;
        }
        return SendAndWait(*pipe, fd, *req, *resp, timeout);
    });
}

int TarvoRPCSync(int fd, TarvoRequest *req, TarvoResponse *resp) { return TarvoTimedRPCSync(fd, req, resp, -1); }

void DestroyResponse(TarvoResponse *resp) {
    if (resp == nullptr) {
        return;
    }
    delete[] resp->data;
    resp->data = nullptr;
}

int TarvoClosePipe(int fd) {
    return NoThrow([fd] {
        TARVO_LOG(LOG_INFO, "TarvoClosePipe start fd=%d.", fd);
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        if (!table) {
            TARVO_LOG(LOG_INFO, "TarvoClosePipe unfinished, because table is destroyed");
            return -ENOENT;
        }
        table->CloseTarvoPipe(fd);
        TARVO_LOG(LOG_INFO, "TarvoClosePipe success fd=%d.", fd);
        return 0;
    });
}

int TarvoCleanPipe(int fd) {
    return NoThrow([fd] {
        TARVO_LOG(LOG_INFO, "TarvoCleanPipe start fd=%d.", fd);
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        if (!table) {
            TARVO_LOG(LOG_INFO, "TarvoCleanPipe unfinished, because table is destroyed");
            return -ENOENT;
        }
        table->CleanTarvoPipe(fd);
        TARVO_LOG(LOG_INFO, "TarvoCleanPipe success fd=%d.", fd);
        return 0;
    });
}

int TarvoGetRemoteName(int fd, char *name, uint32_t size) {
    return NoThrow([=] {
        if (name == nullptr) {
            return -EINVAL;
        }
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        const std::shared_ptr<TarvoPipeImpl> pipe = table ? table->GetPipe(fd) : nullptr;
        if (!pipe) {
            return -ENOENT;
        }
        const std::string &remote = pipe->GetRemoteName();
        if (remote.size() >= size) {
            return -EINVAL;
        }
        std::memcpy(name, remote.c_str(), remote.size() + 1);
        return 0;
    });
}

void TarvoCfgFinishServer(void) {
    NoThrow([] {
        // There is no way back from it for children either.
        ProcessOwner::Claim();
        const std::shared_ptr<PipeServer> server = PipeServer::GetInstance();
        if (!server) {
            TARVO_LOG(LOG_ERR, "Pipe server finish failed.");
            return 0;
        }
        server->Close();
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        if (table) {
            table->DisableTarvoTable();
        }
        return 0;
    });
}

void TarvoExceptionHandler(int signo) {
    NoThrow([signo] {
        TARVO_LOG(LOG_ERR, "Recv a signal %d.", signo);
        ProcessOwner::LookAgain();
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        if (!table) {
            TARVO_LOG(LOG_ERR, "TarvoExceptionHandler failed, because table is destroyed.");
            return 0;
        }
        table->ExceptionHandler();
        const std::shared_ptr<PipeServer> server = PipeServer::GetInstance();
        if (!server) {
            TARVO_LOG(LOG_ERR, "TarvoExceptionHandler failed, because server is destroyed.");
            return 0;
        }
        server->ExceptionHandler();
        return 0;
    });
}
