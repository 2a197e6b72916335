#include "loop/LoopScenes.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "faults/Scenes.h"
#include "loop/LoopKit.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

// A write that fails other than for room or for a signal ends what the link sends, as does room that cannot be waited
// for.
bool MayBreak() {
    const Fault &fault = CurrentFault();
    return fault.call == Call::EpollCtl || (fault.call == Call::Write && fault.error != EINTR && fault.error != EAGAIN);
}

constexpr int SHORT_MS = 300;
constexpr int ROUNDS = 400;

// Dispatches until `done`, or until nothing can be hoped for any more: a fault may have taken the round's chance. A
// dispatch may fail, but must not go wrong.
bool Hope(TarvoLoop *loop, const std::function<bool()> &done) {
    for (int round = 0; round < ROUNDS && !done(); ++round) {
        pollfd entry = {TarvoLoopFd(loop), POLLIN, 0};
        if (poll(&entry, 1, 2 * SHORT_MS) == 0) {
            break;
        }
        TarvoLoopDispatch(loop, 100);
    }
    return done();
}

// What the remote does, which no fault is meant for: on another thread, and with memory of the test's.
void Apart(const std::function<void()> &remotes) {
    const OwnMemory mine;
    std::thread([&remotes] { remotes(); }).join();
}

void EchoIfPossible(Probe &probe) {
    probe.onRequest = [&probe](uint32_t request, const std::string &text) { probe.Reply(request, text); };
}

int ResultOf(const Probe &link) { return link.events.empty() ? 1 : std::atoi(link.events[0].substr(7).c_str()); }

class Creation : public Scene {
public:
    int Act() override { return TarvoLoopCreate(&loop); }
    void GoOn(int result) override {
        EXPECT_EQ(result < 0, loop == nullptr);
        if (loop == nullptr) {
            EXPECT_EQ(TarvoLoopCreate(&loop), 0);
        }
        EXPECT_EQ(TarvoLoopRun(loop, 1), -ETIMEDOUT);
    }
    ~Creation() override { EXPECT_EQ(TarvoLoopDestroy(loop), 0); }

private:
    TarvoLoop *loop = nullptr;
};

class LoopScene : public Scene {
protected:
    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    TestLoop loop;
};

// A link that this side makes the files of, or the other.
class Opening : public LoopScene {
public:
    explicit Opening(TarvoLinkKind wanted) : kind(wanted) {
        if (kind == TARVO_LINK_ARRANGED_CLIENT) {
            peer.CreateFiles();
        }
    }

    int Act() override {
        const int refused = link.Open(kind, remote, self, SHORT_MS);
        if (refused != 0) {
            EXPECT_EQ(link.link, nullptr);
            return refused;
        }
        Hope(loop.Get(), [this] { return !link.events.empty(); });
        return ResultOf(link);
    }

    void GoOn(int) override {
        link.Close();
        peer.CloseRead();
        peer.CloseWrite();
        joined = true; // by hand this time
        if (kind == TARVO_LINK_ARRANGED_CLIENT) {
            peer.CreateFiles();
        }
        link.events.clear();
        ASSERT_EQ(link.Open(kind, remote, self), 0);
        loop.RunBeside([this] {
            if (kind == TARVO_LINK_ARRANGED_CLIENT) {
                peer.OpenWrite();
            } else {
                peer.OpenBoth();
            }
        });
        ASSERT_TRUE(link.Await("opened 0"));
        peer.Send(RawRequest(1, "hello"));
        EXPECT_TRUE(link.Await("request hello"));
        EXPECT_EQ(link.Send("back"), 0);
        EXPECT_EQ(peer.Receive().payload, "back");
    }

private:
    // The remote opens its ends once it can.
    void Join() {
        if (kind != TARVO_LINK_ARRANGED_SERVER || joined || access(peer.ReadFile().c_str(), F_OK) != 0 ||
            access(peer.WriteFile().c_str(), F_OK) != 0) {
            return;
        }
        joined = true;
        peer.OpenRead();
    }

    const TarvoLinkKind kind;
    bool joined = false;
    RawPeer peer{remote, self};
    Probe link{loop};
    // Whenever the scene waits.
    const ScopedHook joins{Call::Poll,
                           [this](const CallInfo &) {
                               const OwnMemory mine;
                               Join();
                           },
                           Where().Always().ThisThread()};
};

// A client of a service, both of this loop: every step of both sides.
class Meeting : public LoopScene {
public:
    int Act() override {
        service.onClient = EchoIfPossible;
        const int served = service.Open(self);
        if (served != 0) {
            EXPECT_EQ(service.service, nullptr);
            return served;
        }
        const int refused = link.Open(TARVO_LINK_TO_SERVER, self, remote, SHORT_MS);
        if (refused != 0) {
            return refused;
        }
        Hope(loop.Get(), [this] { return !link.events.empty(); });
        if (ResultOf(link) == 0) {
            const int64_t call = link.Call("ping", "call", SHORT_MS);
            if (call < 0) {
                return static_cast<int>(call);
            }
            EXPECT_TRUE(Hope(loop.Get(), [this] { return link.Count("done call") == 1; }))
                << "a call ends, with its answer or without";
        }
        return ResultOf(link);
    }

    void GoOn(int) override {
        const std::string name = UniqueName("again");
        if (service.service == nullptr) {
            ASSERT_EQ(service.Open(self), 0);
        }
        Probe again(loop);
        ASSERT_EQ(again.Open(TARVO_LINK_TO_SERVER, self, name), 0);
        ASSERT_TRUE(again.AwaitCount(1));
        ASSERT_EQ(again.events[0], "opened 0");
        ASSERT_GT(again.Call("ping", "call", 20000), 0);
        ASSERT_TRUE(again.AwaitCount(2));
        EXPECT_EQ(again.events[1], "done call 0 ping");
    }

private:
    ServiceProbe service{loop};
    Probe link{loop};
};

// A link that is open, and what is done with it.
class OpenLink : public LoopScene {
public:
    OpenLink() {
        peer.CreateFiles();
        EXPECT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self), 0);
        EXPECT_TRUE(link.Await("opened 0"));
        peer.OpenWrite();
        link.events.clear();
        EchoIfPossible(link);
    }

    void GoOn(int) override {
        loop.RunWhileReadable();
        if (link.Has("closed")) {
            return; // the fault looked like the end of the remote
        }
        Drain();
        peer.Send(RawRequest(9, "after"));
        EXPECT_TRUE(link.Await("request after"));
        const int sent = link.Send("still");
        EXPECT_TRUE(sent == 0 || (sent == -EPIPE && MayBreak())) << sent;
        Drain(sent == 0 ? "still" : "");
    }

protected:
    void Drain(const std::string &until = "") {
        std::string last;
        while (peer.HasInput()) {
            last = peer.Receive().payload;
        }
        if (!until.empty()) {
            EXPECT_EQ(last, until);
        }
    }

    RawPeer peer{remote, self};
    Probe link{loop};
};

class Receiving : public OpenLink {
public:
    Receiving() {
        for (uint32_t i = 0; i < 8; ++i) {
            bytes += RawRequest(i, "request " + std::to_string(i));
        }
        bytes += RawRequest(8, "in two pieces");
    }

    int Act() override {
        Apart([&] { peer.Send(bytes.substr(0, bytes.size() - 5)); });
        Hope(loop.Get(), [this] { return link.events.size() >= 8; });
        Apart([&] { peer.Send(bytes.substr(bytes.size() - 5)); });
        return Hope(loop.Get(), [this] { return link.events.size() >= 9; }) ? 0 : -EIO;
    }

private:
    std::string bytes;
};

class Sending : public OpenLink {
public:
    int Act() override {
        int result = link.Send("send");
        TarvoLinkHold(link.link);
        for (int i = 0; i < 3 && result == 0; ++i) {
            result = link.Send(payload);
        }
        const int flushed = TarvoLinkFlush(link.link);
        return result == 0 ? flushed : result;
    }

private:
    const std::string payload = std::string(2000, 'h');
};

class Filling : public OpenLink {
public:
    int Act() override {
        int result = 0;
        while ((result = link.Send(payload)) == 0) {
        }
        Apart([this] { Drain(); });
        if (result == -EAGAIN) {
            Hope(loop.Get(), [this] { return link.Has("writable"); });
        }
        return result == -EAGAIN ? 0 : result;
    }

private:
    const std::string payload = std::string(4000, 'f');
};

class Calling : public OpenLink {
public:
    int Act() override {
        int64_t calls[3];
        for (int i = 0; i < 3; ++i) {
            calls[i] = link.Call("ask", std::to_string(i), i == 0 ? 5 : SHORT_MS);
            begun += calls[i] > 0 ? 1 : 0;
        }
        if (calls[1] > 0) {
            TarvoLinkCancel(link.link, calls[1]);
        }
        Hope(loop.Get(), [this] { return link.Count("done") == begun; });
        return calls[2] < 0 ? static_cast<int>(calls[2]) : 0;
    }

    void GoOn(int result) override {
        EXPECT_TRUE(loop.RunUntil([this] { return link.Count("done") == begun; })) << "each call has its end";
        OpenLink::GoOn(result);
    }

private:
    std::size_t begun = 0;
};

class Waiting : public OpenLink {
public:
    int Act() override {
        char room[8];
        uint32_t size = sizeof(room);
        return TarvoLinkCallSync(link.link, {"ask", 3}, 20, room, &size);
    }
};

class Posting : public LoopScene {
public:
    int Act() override {
        const int result = TarvoLoopPost(loop.Get(), Run, this);
        Hope(loop.Get(), [this] { return ran == (1U); });
        return result;
    }
    void GoOn(int result) override {
        loop.RunWhileReadable();
        EXPECT_EQ(ran, result == 0 ? 1U : 0U);
        EXPECT_EQ(TarvoLoopPost(loop.Get(), Run, this), 0);
        EXPECT_TRUE(loop.RunUntil([&] { return ran == (result == 0 ? 2U : 1U); }));
    }

private:
    static void Run(void *context) { ++static_cast<Posting *>(context)->ran; }
    unsigned ran = 0;
};

class Ending : public OpenLink {
public:
    int Act() override {
        begun = link.Call("ask", "call") > 0 ? 1U : 0U;
        Apart([this] {
            peer.Send(RawRequest(1, "last"));
            peer.CloseWrite();
            peer.CloseRead();
        });
        Hope(loop.Get(), [this] { return link.Has("closed"); });
        return link.Close();
    }
    void GoOn(int) override { EXPECT_EQ(link.Count("done"), begun); }

private:
    std::size_t begun = 0;
};

class Closing : public LoopScene {
public:
    Closing() {
        EXPECT_EQ(service.Open(self), 0);
        EXPECT_EQ(link.Open(TARVO_LINK_TO_SERVER, self, remote), 0);
        EXPECT_TRUE(link.Await("opened 0"));
        EXPECT_TRUE(service.AwaitClients(1));
        EXPECT_EQ(pending.Open(TARVO_LINK_ARRANGED_SERVER, remote, self), 0);
    }
    int Act() override {
        begun = link.Call("ask", "call") > 0 ? 1U : 0U;
        int result = link.Close();
        result |= pending.Close();
        result |= service.Close();
        return result;
    }
    void GoOn(int) override {
        loop.RunWhileReadable();
        EXPECT_EQ(link.Count("done"), begun);
    }

private:
    std::size_t begun = 0;
    ServiceProbe service{loop};
    Probe link{loop};
    Probe pending{loop};
};

} // namespace

Fault &CurrentFault() {
    static Fault fault;
    return fault;
}

std::vector<Function> LoopFunctions() {
    return {
        {"Create", Returns::Code, Making<Creation>()},
        {"OpenAndCreateTheFiles", Returns::Code, Making<Opening>(TARVO_LINK_ARRANGED_SERVER)},
        {"OpenAndJoin", Returns::Code, Making<Opening>(TARVO_LINK_ARRANGED_CLIENT)},
        {"ServeAndConnect", Returns::Code, Making<Meeting>()},
        {"Receive", Returns::Code, Making<Receiving>()},
        {"Send", Returns::Code, Making<Sending>()},
        {"FillUp", Returns::Code, Making<Filling>()},
        {"Call", Returns::Code, Making<Calling>()},
        {"CallAndWait", Returns::Code, Making<Waiting>()},
        {"Post", Returns::Code, Making<Posting>()},
        {"SeeTheRemoteEnd", Returns::Code, Making<Ending>()},
        {"Close", Returns::Code, Making<Closing>()},
    };
}

} // namespace tarvo_test
