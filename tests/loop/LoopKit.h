// A loop that the test dispatches, and links and services that note what they are called with.
#ifndef TARVO_LOOP_LOOPKIT_H
#define TARVO_LOOP_LOOPKIT_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "tarvo_loop.h"

namespace tarvo_test {

constexpr int OPEN_LIMIT_MS = 30000;

TarvoBytes View(const std::string &bytes);
std::string Text(TarvoBytes bytes);

// Owns: the loop. Threads: the one that made it. Ends: any time, with everything of the loop.
class TestLoop {
public:
    TestLoop();
    ~TestLoop();
    TestLoop(const TestLoop &) = delete;
    TestLoop &operator=(const TestLoop &) = delete;

    TarvoLoop *Get() const { return loop; }
    // Dispatches until `done`. It sleeps on the descriptor and on nothing else: a readiness that is lost makes it wait
    // in vain, which after 30 s is false.
    bool RunUntil(const std::function<bool()> &done);
    // Dispatches while `blocking` runs on another thread. What that throws fails the test.
    void RunBeside(const std::function<void()> &blocking);
    // Dispatches as long as the descriptor is readable; the number of callbacks. It must come to an end.
    int RunWhileReadable();
    bool Readable(int waitMs = 0) const;
    void Destroy();
    // The loop has been destroyed by one of its callbacks.
    void Release() { loop = nullptr; }

    // What Dispatch is given.
    int max = 1000;

private:
    void DispatchOnce();

    TarvoLoop *loop = nullptr;
};

// A link and the calls on it. Everything it is called with becomes one entry of `events`: "opened 0", "request TEXT",
// "writable", "closed" and, for a call, "done TAG RESULT ANSWER".
// Owns: the link, unless the library closes it. Threads: the loop's. Ends: when no callback can come any more.
class Probe {
public:
    explicit Probe(TestLoop &testLoop) : loop(testLoop) {}
    ~Probe() { Close(); }
    Probe(const Probe &) = delete;
    Probe &operator=(const Probe &) = delete;

    static TarvoLinkCallbacks Callbacks();
    // Those of a link to a server by default.
    static TarvoLinkOptions Options(const std::string &target, const std::string &self);

    int Open(TarvoLinkKind kind, const std::string &target, const std::string &self, int timeoutMs = OPEN_LIMIT_MS);
    int OpenWith(TarvoLinkOptions options);
    void Adopt(TarvoLink *link);
    int Close();
    // The link is no longer the test's to close.
    void Forget() { link = nullptr; }

    int Send(const std::string &text) { return TarvoLinkSend(link, View(text)); }
    int Reply(uint32_t request, const std::string &text) { return TarvoLinkReply(link, request, View(text)); }
    int64_t Call(const std::string &text, const std::string &tag, int timeoutMs = -1);

    bool Await(const std::string &event);
    bool AwaitCount(std::size_t events);
    bool Has(const std::string &event) const;
    std::size_t Count(const std::string &start) const; // events that begin so
    std::vector<std::string> Take();                   // the events so far

    TestLoop &loop;
    TarvoLink *link = nullptr;
    std::vector<std::string> events;
    std::vector<uint32_t> requests; // their numbers
    // What is done besides.
    std::function<void()> onOpened;
    std::function<void(uint32_t, const std::string &)> onRequest;
    std::function<void()> onClosed;
    std::function<void()> onWritable;
    std::function<void(const std::string &)> onDone; // with the tag

private:
    struct Pending {
        Probe *probe;
        std::string tag;
    };

    void Note(const std::string &event);
    static void Opened(void *context, TarvoLink *link, int result);
    static void Request(void *context, TarvoLink *link, uint32_t request, TarvoBytes payload);
    static void Closed(void *context, TarvoLink *link);
    static void Writable(void *context, TarvoLink *link);
    static void Done(void *context, int result, TarvoBytes answer);

    std::deque<Pending> calls;
};

// A service whose clients are probes.
// Owns: the service. Threads: the loop's. Ends: when no callback can come any more.
class ServiceProbe {
public:
    explicit ServiceProbe(TestLoop &testLoop) : loop(testLoop) {}
    ~ServiceProbe() { Close(); }
    ServiceProbe(const ServiceProbe &) = delete;
    ServiceProbe &operator=(const ServiceProbe &) = delete;

    static TarvoServiceOptions Options(const std::string &name);

    int Open(const std::string &name, bool replace = false);
    int OpenWith(TarvoServiceOptions options);
    int Close();
    void Forget() { service = nullptr; }
    bool AwaitClients(std::size_t count);

    TestLoop &loop;
    TarvoService *service = nullptr;
    std::vector<std::string> names;
    std::deque<Probe> clients;
    std::function<void(Probe &)> onClient;

private:
    static void Client(void *context, TarvoService *service, TarvoLink *link, const char *name);
};

// Answers each request with its own bytes.
void MakeEcho(Probe &probe);

} // namespace tarvo_test

#endif // TARVO_LOOP_LOOPKIT_H
