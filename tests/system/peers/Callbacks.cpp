#include "system/peers/Callbacks.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>

#include "system/Payload.h"
#include "system/peers/Line.h"

namespace tarvo_test {
namespace {

// Never destroyed: callbacks may still run while the process exits.
struct Gate {
    std::mutex mutex;
    std::condition_variable opened;
    int permits = 0;
};

Gate &TheGate() {
    static Gate *const gate = new Gate;
    return *gate;
}

std::atomic<int> forwardFd(-1);
std::atomic<int> forwardTimeout(-1);
std::atomic<int> echoCount(0);

std::string Described(int fd, const TarvoRequest &request) {
    return "fd=" + std::to_string(fd) + " id=" + std::to_string(request.id) + " " +
           Digest(std::string(request.data, request.size));
}

// True when there is no request but the news that the remote has closed.
bool RemoteGone(int fd, const TarvoRequest *request) {
    if (request == nullptr) {
        PrintEvent("gone fd=" + std::to_string(fd));
    }
    return request == nullptr;
}

void Answer(int fd, uint32_t id, std::string text) {
    TarvoResponse response = {id, &text[0], static_cast<uint32_t>(text.size())};
    const int result = TarvoSendResponse(fd, &response);
    if (result != 0) {
        PrintEvent("unanswered fd=" + std::to_string(fd) + " result=" + std::to_string(result));
    }
}

void Report(int fd, TarvoRequest *request) {
    if (!RemoteGone(fd, request)) {
        PrintEvent("request " + Described(fd, *request));
    }
}

void Echo(int fd, TarvoRequest *request) {
    if (!RemoteGone(fd, request)) {
        echoCount.fetch_add(1);
        Answer(fd, request->id, std::string(request->data, request->size));
    }
}

void WaitAtGate(int fd, TarvoRequest *request) {
    if (RemoteGone(fd, request)) {
        return;
    }
    const std::string text = Described(fd, *request);
    PrintEvent("entered " + text);
    {
        Gate &gate = TheGate();
        std::unique_lock<std::mutex> lock(gate.mutex);
        gate.opened.wait(lock, [&gate] { return gate.permits > 0; });
        --gate.permits;
    }
    PrintEvent("left " + text);
    Answer(fd, request->id, std::string(request->data, request->size));
}

void Forward(int fd, TarvoRequest *request) {
    if (RemoteGone(fd, request)) {
        return;
    }
    TarvoRequest onward = {0, request->data, request->size};
    TarvoResponse back = {};
    const int result = TarvoTimedRPCSync(forwardFd, &onward, &back, forwardTimeout);
    Answer(fd, request->id, result == 0 ? std::string(back.data, back.size) : "failed:" + std::to_string(result));
    DestroyResponse(&back);
}

void Policy(int fd, TarvoRequest *request) {
    if (RemoteGone(fd, request)) {
        return;
    }
    int policy = -1;
    sched_param parameters = {};
    pthread_getschedparam(pthread_self(), &policy, &parameters);
    const std::string name = policy == SCHED_FIFO ? "fifo" : policy == SCHED_OTHER ? "other" : "unknown";
    Answer(fd, request->id, name + ":" + std::to_string(parameters.sched_priority));
}

void CloseOwnPipe(int fd, TarvoRequest *request) {
    if (!RemoteGone(fd, request)) {
        PrintEvent("closed fd=" + std::to_string(fd) + " result=" + std::to_string(TarvoClosePipe(fd)));
    }
}

std::function<int()> *reconnect = nullptr;

void Reopen(int fd, TarvoRequest *request) {
    if (RemoteGone(fd, request)) {
        TarvoClosePipe(fd);
        PrintEvent("reopened fd=" + std::to_string((*reconnect)()));
    }
}

} // namespace

void ReopenWith(const std::function<int()> &connect) { reconnect = new std::function<int()>(connect); }

RequestCallback CallbackNamed(const std::string &name) {
    static const std::map<std::string, RequestCallback> *const callbacks = new std::map<std::string, RequestCallback>{
        {"report", Report}, {"echo", Echo},           {"gate", WaitAtGate}, {"forward", Forward},
        {"policy", Policy}, {"closer", CloseOwnPipe}, {"reopen", Reopen},
    };
    const auto found = callbacks->find(name);
    return found == callbacks->end() ? nullptr : found->second;
}

void OpenGate(int permits) {
    Gate &gate = TheGate();
    {
        const std::lock_guard<std::mutex> lock(gate.mutex);
        gate.permits += permits;
    }
    gate.opened.notify_all();
}

void ForwardTo(int fd, int timeout) {
    forwardFd = fd;
    forwardTimeout = timeout;
}

int EchoCount() { return echoCount; }

} // namespace tarvo_test
