// One failure after another, of memory, of system calls and of descriptors: each is told, leaves nothing behind, and
// the loop goes on.
#include <fcntl.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "LoopKit.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/RawFrame.h"
#include "support/RawPeer.h"
#include "support/Sanitized.h"
#include "support/SyslogCapture.h"

namespace tarvo_test {
namespace {

const int SHORT_MS = EMULATED ? 600 : 60;

// Serves a name, opens a link to it, makes a call, gets its answer, and closes everything. Whether all of it succeeded.
class Life {
public:
    // `limitMs` for each step: what a fault has cut off may wait for it in vain.
    explicit Life(TarvoLoop *ownLoop, int limitMs = PATIENCE_MS)
        : loop(ownLoop), limit(limitMs), name(UniqueName("srv")), self(UniqueName("cli")) {}

    bool Live() {
        const bool whole = Serve() && Connect() && Talk();
        TarvoLinkClose(link);
        TarvoServiceClose(service);
        // What a failure has cut off comes to its end by its time.
        Step([this] { return open == 0 && calls == 0; });
        return whole;
    }
    bool IsOver() const { return open == 0 && calls == 0; }

private:
    bool Step(const std::function<bool()> &condition) {
        for (int i = 0; !condition() && i < 200; ++i) {
            if (IsReadable(loop, 2 * limit)) {
                TarvoLoopDispatch(loop, INT_MAX);
            } else {
                return false;
            }
        }
        return condition();
    }
    bool Serve() {
        TarvoLinkCallbacks callbacks{};
        callbacks.size = sizeof(callbacks);
        callbacks.request = [](void *, TarvoLink *on, uint32_t number, TarvoBytes payload) {
            TarvoLinkReply(on, number, payload);
        };
        callbacks.closed = [](void *context, TarvoLink *) { --static_cast<Life *>(context)->open; };
        TarvoServiceOptions options{};
        options.size = sizeof(options);
        options.name = name.c_str();
        options.gid = TARVO_LOOP_ANY_GROUP;
        options.context = this;
        options.client = [](void *context, TarvoService *, TarvoLink *, const char *) {
            ++static_cast<Life *>(context)->open;
        };
        options.callbacks = &callbacks;
        return TarvoServiceOpen(loop, &options, &service) == 0;
    }
    bool Connect() {
        TarvoLinkCallbacks callbacks{};
        callbacks.size = sizeof(callbacks);
        callbacks.opened = [](void *context, TarvoLink *, int ended) { static_cast<Life *>(context)->result = ended; };
        TarvoLinkOptions options{};
        options.size = sizeof(options);
        options.target = name.c_str();
        options.self = self.c_str();
        options.gid = TARVO_LOOP_ANY_GROUP;
        options.timeoutMs = limit;
        options.context = this;
        options.callbacks = &callbacks;
        return TarvoLinkOpen(loop, &options, &link) == 0 && Step([this] { return result <= 0; }) && result == 0;
    }
    bool Talk() {
        const int64_t call = TarvoLinkCall(link, Bytes("hello"), limit, Done, this);
        calls += call > 0 ? 1 : 0;
        return call > 0 && Step([this] { return calls == 0; }) && answered;
    }
    static void Done(void *context, int ended, TarvoBytes answer) {
        auto &self = *static_cast<Life *>(context);
        --self.calls;
        self.answered = ended == 0 && Text(answer) == "hello";
    }

    TarvoLoop *const loop;
    const int limit;
    const std::string name;
    const std::string self;
    TarvoService *service = nullptr;
    TarvoLink *link = nullptr;
    int result = 1;
    int open = 0; // links of the service's clients
    int calls = 0;
    bool answered = false;
};

// The first life takes the memory that a loop keeps, and what the process keeps.
class FaultTest : public LoopTest {
protected:
    FaultTest() {
        EXPECT_TRUE(Life(loop).Live());
        // A client's link that never opened ends within the time that a server gives it.
        EXPECT_TRUE(Life(loop).Live());
    }

    void ExpectGoesOn(const std::string &after) {
        EXPECT_TRUE(Life(loop).Live()) << after;
        EXPECT_TRUE(OwnFifoFiles().empty()) << after << ": " << OwnFifoFiles().front();
    }

    // Fails the first, second ... matching call, until a whole life meets none.
    void FailEachInTurn(Call call, int error, const char *what) {
        unsigned hits = 1;
        unsigned nth = 1;
        for (; hits > 0 && nth < 200; ++nth) {
            const std::string description = std::string(what) + " " + std::to_string(nth);
            SCOPED_TRACE(description);
            {
                const ScopedLeakCheck leaks;
                const ScopedFault fault(call, error, Where().Nth(nth).ThisThread());
                Life life(loop, SHORT_MS);
                life.Live();
                hits = fault.Hits();
            }
            ExpectGoesOn(description);
        }
        EXPECT_GT(nth, 2U);
    }
};

TEST_F(FaultTest, Allocations) {
    unsigned nth = 1;
    for (bool hit = true; hit && nth < 1000; ++nth) {
        {
            const ScopedLeakCheck leaks;
            Life life(loop, SHORT_MS);
            const AllocFault fault(nth);
            life.Live();
            hit = fault.Hit();
        }
        ExpectGoesOn("allocation " + std::to_string(nth));
    }
    EXPECT_GT(nth, 10U);
}

TEST_F(FaultTest, AllocationsOfALoop) {
    unsigned nth = 1;
    for (bool hit = true; hit; ++nth) {
        const ScopedLeakCheck leaks;
        TarvoLoop *mine = nullptr;
        const AllocFault fault(nth);
        const int ret = TarvoLoopCreate(&mine);
        hit = fault.Hit();
        EXPECT_EQ(ret, hit ? -ENOMEM : 0);
        EXPECT_EQ(mine == nullptr, hit);
        TarvoLoopDestroy(mine);
    }
    EXPECT_GT(nth, 2U);
}

TEST_F(FaultTest, ClientForWhichThereIsNoMemoryIsToldOfAsSuch) {
    const std::string name = UniqueName("srv");
    TarvoServiceOptions options{};
    options.size = sizeof(options);
    options.name = name.c_str();
    options.gid = TARVO_LOOP_ANY_GROUP;
    TarvoService *service = nullptr;
    ASSERT_EQ(TarvoServiceOpen(loop, &options, &service), 0);
    const SyslogCapture log;
    unsigned nth = 1;
    for (bool hit = true; hit; ++nth) {
        WriteToRawServer(name, RawConnectPacket(UniqueName("cli"), getgid(), getpid()));
        const AllocFault fault(nth);
        Drain(loop);
        hit = fault.Hit();
    }
    const std::string line = "Open link of a client of " + name + " failed ";
    EXPECT_GT(log.CountExactly(LOG_ERR, line + "-12."), 2U);
    EXPECT_EQ(log.Count(LOG_ERR, line), log.CountExactly(LOG_ERR, line + "-12."));
    EXPECT_EQ(TarvoServiceClose(service), 0);
}

TEST_F(FaultTest, Mkfifo) { FailEachInTurn(Call::Mkfifo, ENOSPC, "mkfifo"); }
TEST_F(FaultTest, Link) { FailEachInTurn(Call::Link, ENOSPC, "link"); }
TEST_F(FaultTest, Open) { FailEachInTurn(Call::Open, EMFILE, "open"); }
TEST_F(FaultTest, Lstat) { FailEachInTurn(Call::Lstat, ENOMEM, "lstat"); }
TEST_F(FaultTest, Fstat) { FailEachInTurn(Call::Fstat, ENOMEM, "fstat"); }
TEST_F(FaultTest, EpollCtl) { FailEachInTurn(Call::EpollCtl, ENOSPC, "epoll_ctl"); }
TEST_F(FaultTest, Write) { FailEachInTurn(Call::Write, EIO, "write"); }
TEST_F(FaultTest, Flock) { FailEachInTurn(Call::Flock, ENOLCK, "flock"); }

TEST_F(FaultTest, Descriptors) {
    // One more is free each time.
    const int last = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(last);
    for (int more = 0; more < 14; ++more) {
        rlimit old{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
        const rlimit tight{static_cast<rlim_t>(last + more), old.rlim_max};
        {
            Life life(loop, SHORT_MS);
            ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
            life.Live();
            TarvoLoop *mine = nullptr;
            const int ret = TarvoLoopCreate(&mine);
            EXPECT_TRUE(ret == 0 || ret == -EMFILE) << ret;
            EXPECT_EQ(ret == 0, mine != nullptr);
            TarvoLoopDestroy(mine);
            ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
        }
        ExpectGoesOn("descriptors " + std::to_string(more));
    }
}

TEST_F(FaultTest, WithoutADirectoryWatchTheTimerLooks) {
    // After the service's FIFO it is the watch that has no room in the epoll set.
    const ScopedFault fault(Call::EpollCtl, ENOSPC, Where().Nth(2).ThisThread());
    EXPECT_TRUE(Life(loop).Live());
    EXPECT_EQ(fault.Hits(), 1U);
}

TEST_F(LoopTest, APostInsideACallbackWithoutMemoryIsRefused) {
    struct Poster {
        TarvoLoop *loop;
        int refused = 0;
        int runs = 0;
    } poster{loop};
    const auto post = [](void *context) {
        auto &self = *static_cast<Poster *>(context);
        ++self.runs;
        const AllocFault fault(1);
        self.refused = TarvoLoopPost(
            self.loop, [](void *) { FAIL(); }, &self);
    };
    ASSERT_EQ(TarvoLoopPost(loop, post, &poster), 0);
    Drain(loop);
    EXPECT_EQ(poster.refused, -ENOMEM);
    EXPECT_EQ(poster.runs, 1);
    EXPECT_EQ(TarvoLoopDispatch(loop, 10), 0);
}

// What a round has read and not delivered is kept elsewhere at its end, or delivered where there is no memory for that.
TEST_F(LinkTest, ADestroyedLoopDeliversNothingMoreAlsoWithoutMemory) {
    std::optional<AllocFault> fault;
    server.links.onRequest = [&](TarvoLink *, uint32_t, TarvoBytes) {
        EXPECT_EQ(TarvoLoopDestroy(loop), 0);
        fault.emplace(1U);
    };
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(TarvoLinkSend(link, Bytes("x")), 0);
    }
    EXPECT_EQ(TarvoLoopDispatch(loop, INT_MAX), -ECANCELED);
    fault.reset();
    EXPECT_EQ(server.links.requests.size(), 1U);
    loop = nullptr;
}

TEST_F(LinkTest, WithoutMemoryForTheRestOfARoundSomeOfItIsDeliveredAtOnce) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(TarvoLinkSend(link, Bytes(std::to_string(i))), 0);
    }
    std::optional<AllocFault> fault;
    server.links.onRequest = [&](TarvoLink *, uint32_t, TarvoBytes) {
        if (!fault) {
            fault.emplace(1U);
        }
    };
    EXPECT_EQ(TarvoLoopDispatch(loop, 1), 2);
    EXPECT_TRUE(fault->Hit());
    fault.reset();
    EXPECT_EQ(server.links.requests.back().payload, "1");
    EXPECT_TRUE(IsReadable(loop));
    EXPECT_EQ(TarvoLoopDispatch(loop, 1), 1);
    EXPECT_EQ(server.links.requests.back().payload, "2");
}

} // namespace
} // namespace tarvo_test
