#include "loop/LoopKit.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <thread>

#include "support/Interpose.h"

namespace tarvo_test {
namespace {

constexpr int LIMIT_MS = 30000;
// More than any test has the loop do at once.
constexpr int MOST_ROUNDS = 1000000;

// Sleeps until one of the descriptors can be read; false after 30 s.
bool Sleep(int loopFd, int otherFd) {
    pollfd entries[] = {{loopFd, POLLIN, 0}, {otherFd, POLLIN, 0}};
    return poll(entries, otherFd < 0 ? 1 : 2, LIMIT_MS) > 0;
}

} // namespace

TarvoBytes View(const std::string &bytes) { return {bytes.data(), static_cast<uint32_t>(bytes.size())}; }

std::string Text(TarvoBytes bytes) { return bytes.data == nullptr ? "" : std::string(bytes.data, bytes.size); }

// ---- The loop ----

TestLoop::TestLoop() { EXPECT_EQ(TarvoLoopCreate(&loop), 0); }

TestLoop::~TestLoop() { Destroy(); }

void TestLoop::Destroy() {
    EXPECT_EQ(TarvoLoopDestroy(loop), 0);
    loop = nullptr;
}

void TestLoop::DispatchOnce() {
    const int callbacks = TarvoLoopDispatch(loop, max);
    ASSERT_GE(callbacks, 0);
    ASSERT_LE(callbacks, max);
}

bool TestLoop::RunUntil(const std::function<bool()> &done) {
    while (!done()) {
        if (!Sleep(TarvoLoopFd(loop), -1)) {
            return false;
        }
        DispatchOnce();
    }
    return true;
}

void TestLoop::RunBeside(const std::function<void()> &blocking) {
    const int over = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::exception_ptr thrown;
    std::thread beside([&] {
        try {
            blocking();
        } catch (...) {
            thrown = std::current_exception();
        }
        eventfd_write(over, 1);
    });
    eventfd_t ended = 0;
    while (eventfd_read(over, &ended) != 0) {
        EXPECT_TRUE(Sleep(TarvoLoopFd(loop), over));
        DispatchOnce();
    }
    beside.join();
    close(over);
    if (thrown != nullptr) {
        std::rethrow_exception(thrown);
    }
}

int TestLoop::RunWhileReadable() {
    int callbacks = 0;
    for (int round = 0; Readable(); ++round) {
        EXPECT_LT(round, MOST_ROUNDS) << "readable without end";
        if (round >= MOST_ROUNDS) {
            break;
        }
        const int ran = TarvoLoopDispatch(loop, max);
        EXPECT_GE(ran, 0);
        callbacks += ran;
    }
    return callbacks;
}

bool TestLoop::Readable(int waitMs) const {
    pollfd entry = {TarvoLoopFd(loop), POLLIN, 0};
    return poll(&entry, 1, waitMs) > 0;
}

// ---- Links ----

TarvoLinkCallbacks Probe::Callbacks() {
    TarvoLinkCallbacks callbacks = {};
    callbacks.size = sizeof(callbacks);
    callbacks.opened = Opened;
    callbacks.request = Request;
    callbacks.closed = Closed;
    callbacks.writable = Writable;
    return callbacks;
}

TarvoLinkOptions Probe::Options(const std::string &target, const std::string &self) {
    TarvoLinkOptions options = {};
    options.size = sizeof(options);
    options.kind = TARVO_LINK_TO_SERVER;
    options.target = target.c_str();
    options.self = self.c_str();
    options.gid = TARVO_LOOP_ANY_GROUP;
    options.timeoutMs = OPEN_LIMIT_MS;
    return options;
}

int Probe::Open(TarvoLinkKind kind, const std::string &target, const std::string &self, int timeoutMs) {
    TarvoLinkOptions options = Options(target, self);
    options.kind = kind;
    options.timeoutMs = timeoutMs;
    return OpenWith(options);
}

int Probe::OpenWith(TarvoLinkOptions options) {
    const TarvoLinkCallbacks callbacks = Callbacks();
    options.context = this;
    options.callbacks = &callbacks;
    return TarvoLinkOpen(loop.Get(), &options, &link);
}

void Probe::Adopt(TarvoLink *adopted) {
    link = adopted;
    EXPECT_EQ(TarvoLinkSetContext(link, this), 0);
}

int Probe::Close() {
    TarvoLink *const closing = link;
    link = nullptr;
    return closing == nullptr || loop.Get() == nullptr ? 0 : TarvoLinkClose(closing);
}

int64_t Probe::Call(const std::string &text, const std::string &tag, int timeoutMs) {
    {
        const OwnMemory mine;
        calls.push_back({this, tag});
    }
    return TarvoLinkCall(link, View(text), timeoutMs, Done, &calls.back());
}

bool Probe::Await(const std::string &event) {
    return loop.RunUntil([&] { return Has(event); });
}

bool Probe::AwaitCount(std::size_t count) {
    return loop.RunUntil([&] { return events.size() >= count; });
}

bool Probe::Has(const std::string &event) const {
    return std::find(events.begin(), events.end(), event) != events.end();
}

std::size_t Probe::Count(const std::string &start) const {
    return static_cast<std::size_t>(std::count_if(events.begin(), events.end(), [&](const std::string &event) {
        return event.compare(0, start.size(), start) == 0;
    }));
}

std::vector<std::string> Probe::Take() {
    std::vector<std::string> taken;
    taken.swap(events);
    return taken;
}

void Probe::Note(const std::string &event) {
    const OwnMemory mine;
    events.push_back(event);
}

void Probe::Opened(void *context, TarvoLink *link, int result) {
    auto &probe = *static_cast<Probe *>(context);
    EXPECT_EQ(link, probe.link);
    probe.Note("opened " + std::to_string(result));
    if (probe.onOpened) {
        probe.onOpened();
    }
}

void Probe::Request(void *context, TarvoLink *link, uint32_t request, TarvoBytes payload) {
    auto &probe = *static_cast<Probe *>(context);
    EXPECT_EQ(link, probe.link);
    std::string text;
    {
        const OwnMemory mine;
        text = Text(payload);
        probe.requests.push_back(request);
        probe.Note("request " + text);
    }
    if (probe.onRequest) {
        probe.onRequest(request, text);
    }
}

void Probe::Closed(void *context, TarvoLink *link) {
    auto &probe = *static_cast<Probe *>(context);
    EXPECT_EQ(link, probe.link);
    probe.Note("closed");
    if (probe.onClosed) {
        probe.onClosed();
    }
}

void Probe::Writable(void *context, TarvoLink *link) {
    auto &probe = *static_cast<Probe *>(context);
    EXPECT_EQ(link, probe.link);
    probe.Note("writable");
    if (probe.onWritable) {
        probe.onWritable();
    }
}

void Probe::Done(void *context, int result, TarvoBytes answer) {
    const auto &call = *static_cast<Pending *>(context);
    Probe &probe = *call.probe;
    EXPECT_TRUE(result == 0 || answer.size == 0);
    {
        const OwnMemory mine;
        const std::string text = Text(answer);
        probe.Note("done " + call.tag + " " + std::to_string(result) + (text.empty() ? "" : " " + text));
    }
    if (probe.onDone) {
        probe.onDone(call.tag);
    }
}

// ---- Services ----

TarvoServiceOptions ServiceProbe::Options(const std::string &name) {
    TarvoServiceOptions options = {};
    options.size = sizeof(options);
    options.name = name.c_str();
    options.gid = TARVO_LOOP_ANY_GROUP;
    return options;
}

int ServiceProbe::Open(const std::string &name, bool replace) {
    TarvoServiceOptions options = Options(name);
    options.replace = replace ? 1 : 0;
    return OpenWith(options);
}

int ServiceProbe::OpenWith(TarvoServiceOptions options) {
    const TarvoLinkCallbacks callbacks = Probe::Callbacks();
    options.context = this;
    options.client = Client;
    options.callbacks = &callbacks;
    return TarvoServiceOpen(loop.Get(), &options, &service);
}

int ServiceProbe::Close() {
    TarvoService *const closing = service;
    service = nullptr;
    return closing == nullptr || loop.Get() == nullptr ? 0 : TarvoServiceClose(closing);
}

bool ServiceProbe::AwaitClients(std::size_t count) {
    return loop.RunUntil([&] { return names.size() >= count; });
}

void ServiceProbe::Client(void *context, TarvoService *service, TarvoLink *link, const char *name) {
    auto &probe = *static_cast<ServiceProbe *>(context);
    EXPECT_EQ(service, probe.service);
    EXPECT_STREQ(TarvoLinkPeer(link), name);
    Probe *client = nullptr;
    {
        const OwnMemory mine;
        probe.names.emplace_back(name);
        client = &probe.clients.emplace_back(probe.loop);
        // The library closes such a link once its remote is gone.
        client->onClosed = [client] { client->Forget(); };
    }
    client->Adopt(link);
    if (probe.onClient) {
        probe.onClient(*client);
    }
}

void MakeEcho(Probe &probe) {
    probe.onRequest = [&probe](uint32_t request, const std::string &text) { EXPECT_EQ(probe.Reply(request, text), 0); };
}

} // namespace tarvo_test
