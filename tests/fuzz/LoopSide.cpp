#include "fuzz/LoopSide.h"

#include <poll.h>

#include "fuzz/Target.h"
#include "support/Names.h"

namespace tarvo_test {
namespace {

constexpr int LIMIT_MS = 60000;
// Few enough for rounds to leave something over.
constexpr int CALLBACKS = 3;

void Dispatch() {
    const int ran = TarvoLoopDispatch(TheLoop(), CALLBACKS);
    Require(ran >= 0 && ran <= CALLBACKS, "a dispatch runs as many callbacks as it may");
}

bool Readable(int waitMs) {
    pollfd entry = {TarvoLoopFd(TheLoop()), POLLIN, 0};
    return poll(&entry, 1, waitMs) > 0;
}

const std::string &HonestName() {
    static const auto *const name = new std::string(UniqueName("honest_service"));
    return *name;
}

void Serve() {
    static TarvoService *service = nullptr;
    TarvoLinkCallbacks callbacks = {};
    callbacks.size = sizeof(callbacks);
    callbacks.request = [](void *, TarvoLink *remote, uint32_t request, TarvoBytes payload) {
        Require(TarvoLinkReply(remote, request, payload) == 0, "an honest request can be answered");
    };
    TarvoServiceOptions options = {};
    options.size = sizeof(options);
    options.name = HonestName().c_str();
    options.gid = TARVO_LOOP_ANY_GROUP;
    options.callbacks = &callbacks;
    Require(TarvoServiceOpen(TheLoop(), &options, &service) == 0, "a service can be opened");
}

} // namespace

TarvoLoop *TheLoop() {
    // Never destroyed: the process ends under it.
    static TarvoLoop *const loop = [] {
        TarvoLoop *created = nullptr;
        Require(TarvoLoopCreate(&created) == 0, "a loop can be created");
        return created;
    }();
    return loop;
}

void DispatchUntil(const std::function<bool()> &done) {
    while (!done()) {
        Require(Readable(LIMIT_MS), "what is waited for makes the loop readable");
        Dispatch();
    }
}

void DispatchAll() {
    while (Readable(0)) {
        Dispatch();
    }
}

TarvoLink *OpenLink(TarvoLinkKind kind, const std::string &target, const std::string &self,
                    const TarvoLinkCallbacks &callbacks, void *context) {
    TarvoLinkOptions options = {};
    options.size = sizeof(options);
    options.kind = kind;
    options.target = target.c_str();
    options.self = self.c_str();
    options.gid = TARVO_LOOP_ANY_GROUP;
    options.timeoutMs = LIMIT_MS;
    options.context = context;
    options.callbacks = &callbacks;
    TarvoLink *link = nullptr;
    Require(TarvoLinkOpen(TheLoop(), &options, &link) == 0, "a link can be opened");
    return link;
}

HonestLink::HonestLink() {
    Serve();
    TarvoLinkCallbacks callbacks = {};
    callbacks.size = sizeof(callbacks);
    callbacks.opened = Opened;
    link = OpenLink(TARVO_LINK_TO_SERVER, HonestName(), UniqueName("honest_client"), callbacks, this);
    DispatchUntil([this] { return open; });
}

void HonestLink::Opened(void *context, TarvoLink *, int result) {
    Require(result == 0, "an honest client can connect");
    static_cast<HonestLink *>(context)->open = true;
}

void HonestLink::Done(void *context, int result, TarvoBytes answer) {
    auto &honest = *static_cast<HonestLink *>(context);
    Require(result == 0 && std::string(answer.data, answer.size) == honest.text, "the honest link gets its answer");
    honest.ended = true;
}

void HonestLink::Call() {
    ++calls;
    text = "call " + std::to_string(calls) + " ";
    text.resize(1 + calls % MAX_PAYLOAD, static_cast<char>(calls));
    ended = false;
    Require(TarvoLinkCall(link, {text.data(), static_cast<uint32_t>(text.size())}, LIMIT_MS, Done, this) > 0,
            "an honest call begins");
    DispatchUntil([this] { return ended; });
}

HonestLink &TheHonestLink() {
    static auto *const link = new HonestLink;
    return *link;
}

} // namespace tarvo_test
