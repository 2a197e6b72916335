#include "storm/LoopService.h"

#include <signal.h>

#include <cstring>
#include <string>
#include <vector>

#include "tarvo_loop.h"

namespace storm {
namespace {

using tarvo_test::Channel;
using tarvo_test::ChildProcess;

struct Late {
    TarvoLink *link;
    uint32_t request;
    uint64_t text;
};

struct Service {
    std::vector<Late> late; // of the one client
    unsigned count = 0;
};

void OnRequest(void *context, TarvoLink *link, uint32_t request, TarvoBytes payload) {
    auto &service = *static_cast<Service *>(context);
    Late one{link, request, 0};
    std::memcpy(&one.text, payload.data, sizeof(one.text));
    service.late.push_back(one);
    // A batch at a time, in the other order.
    if (++service.count % 8 != 0) {
        return;
    }
    while (!service.late.empty()) {
        const Late &last = service.late.back();
        // A client that is slow to read has its answers dropped, and its calls time out.
        TarvoLinkReply(last.link, last.request, {reinterpret_cast<const char *>(&last.text), sizeof(last.text)});
        service.late.pop_back();
    }
}

int Serve(Channel &channel, const std::string &name) {
    std::signal(SIGPIPE, SIG_IGN);
    TarvoLoop *loop = nullptr;
    TarvoService *service = nullptr;
    Service state;
    TarvoLinkCallbacks callbacks = {};
    callbacks.size = sizeof(callbacks);
    callbacks.request = OnRequest;
    callbacks.closed = [](void *context, TarvoLink *) { static_cast<Service *>(context)->late.clear(); };
    TarvoServiceOptions options = {};
    options.size = sizeof(options);
    options.name = name.c_str();
    options.gid = TARVO_LOOP_ANY_GROUP;
    options.context = &state;
    options.callbacks = &callbacks;
    if (TarvoLoopCreate(&loop) != 0 || TarvoServiceOpen(loop, &options, &service) != 0 || !channel.Signal()) {
        return 1;
    }
    // The client kills it.
    TarvoLoopRun(loop, -1);
    return 0;
}

} // namespace

Services::Services(std::string serviceName)
    : name(std::move(serviceName)), forker([this](Channel &channel) { return Fork(channel); }) {}

pid_t Services::Start() {
    forker.Signal();
    return static_cast<pid_t>(std::stol(forker.ToChild().Receive().value_or("0")));
}

int Services::Fork(Channel &channel) const {
    std::unique_ptr<ChildProcess> service;
    while (channel.Await()) {
        service.reset(); // killed
        service = std::make_unique<ChildProcess>([this](Channel &told) { return Serve(told, name); });
        if (!service->Await() || !channel.Send(std::to_string(service->Pid()))) {
            return 1;
        }
    }
    return 0;
}

} // namespace storm
