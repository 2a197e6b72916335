// Who is refused, and what with: structures of other versions and of nobody's, other threads while the loop runs, and
// children that were forked inside a callback.
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "loop/LoopFixture.h"
#include "support/Process.h"

namespace tarvo_test {
namespace {

using RefusalsTest = LoopTest;

// A structure as a program has it that was built with a version which knows `more` bytes of it.
template <typename Options>
class Newer {
public:
    Newer(Options options, uint32_t more, char last) : bytes(sizeof(options) + more, 0) {
        options.size = static_cast<uint32_t>(bytes.size());
        std::memcpy(bytes.data(), &options, sizeof(options));
        bytes.back() = last;
    }
    const Options *Get() const { return reinterpret_cast<const Options *>(bytes.data()); }

private:
    std::vector<char> bytes;
};

class SizesTest : public LoopTest {
protected:
    int OpenService(const TarvoServiceOptions *options) {
        TarvoService *service = nullptr;
        const int ret = TarvoServiceOpen(loop.Get(), options, &service);
        EXPECT_EQ(service != nullptr, ret == 0);
        TarvoServiceClose(service);
        return ret;
    }
    int OpenLink(const TarvoLinkOptions *options) {
        TarvoLink *opened = nullptr;
        const int ret = TarvoLinkOpen(loop.Get(), options, &opened);
        EXPECT_EQ(opened != nullptr, ret == 0);
        TarvoLinkClose(opened);
        return ret;
    }
    // The results of opens whose options, and whose callbacks, are of that size.
    std::vector<int> OpenWithSizes(uint32_t more, char last) {
        const TarvoServiceOptions serviceOptions = ServiceProbe::Options(free);
        const TarvoLinkOptions linkOptions = Probe::Options(free, free);
        const Newer<TarvoLinkCallbacks> callbacks(Probe::Callbacks(), more, last);
        TarvoServiceOptions serviceWithCallbacks = serviceOptions;
        TarvoLinkOptions linkWithCallbacks = linkOptions;
        serviceWithCallbacks.callbacks = callbacks.Get();
        linkWithCallbacks.callbacks = callbacks.Get();
        return {OpenService(Newer<TarvoServiceOptions>(serviceOptions, more, last).Get()),
                OpenLink(Newer<TarvoLinkOptions>(linkOptions, more, last).Get()), OpenService(&serviceWithCallbacks),
                OpenLink(&linkWithCallbacks)};
    }

    const std::string free = UniqueName("free");
};

TEST_F(SizesTest, StructuresOfANewerVersionAreTakenThatAskForNothingNew) {
    EXPECT_EQ(OpenWithSizes(8, 0), std::vector<int>(4, 0));
    EXPECT_EQ(OpenWithSizes(200, 0), std::vector<int>(4, 0));
}

TEST_F(SizesTest, WhatANewerVersionAsksForBeyondThisOneIsRefused) {
    EXPECT_EQ(OpenWithSizes(8, 1), std::vector<int>(4, -EINVAL));
    EXPECT_EQ(OpenWithSizes(200, 1), std::vector<int>(4, -EINVAL));
    EXPECT_TRUE(OwnFifoFiles().empty());
}

// A structure with nothing but zeros behind it, up to where there is no memory any more.
template <typename Options>
class AtTheEnd {
public:
    AtTheEnd(Options options, uint32_t size)
        : bytes(static_cast<char *>(
              mmap(nullptr, 2 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
        EXPECT_EQ(mprotect(bytes + PAGE, PAGE, PROT_NONE), 0);
        options.size = size;
        std::memcpy(bytes, &options, sizeof(options));
    }
    ~AtTheEnd() { munmap(bytes, 2 * PAGE); }
    AtTheEnd(const AtTheEnd &) = delete;
    AtTheEnd &operator=(const AtTheEnd &) = delete;
    const Options *Get() const { return reinterpret_cast<const Options *>(bytes); }

private:
    static constexpr std::size_t PAGE = 65536;
    char *const bytes;
};

// A field that nobody has set may hold anything: what it claims must not be read.
TEST_F(SizesTest, SizesThatNoStructureHasAreRefused) {
    for (const uint32_t size : {1U, 8U, 39U, 65536U, 65537U, 0x10000000U, 0xFFFFFFFFU}) {
        TarvoServiceOptions serviceOptions = ServiceProbe::Options(free);
        TarvoLinkOptions linkOptions = Probe::Options(free, free);
        EXPECT_EQ(OpenService(AtTheEnd<TarvoServiceOptions>(serviceOptions, size).Get()), -EINVAL) << size;
        EXPECT_EQ(OpenLink(AtTheEnd<TarvoLinkOptions>(linkOptions, size).Get()), -EINVAL) << size;
        const AtTheEnd<TarvoLinkCallbacks> callbacks(Probe::Callbacks(), size);
        serviceOptions.callbacks = callbacks.Get();
        linkOptions.callbacks = callbacks.Get();
        EXPECT_EQ(OpenService(&serviceOptions), -EINVAL) << size;
        EXPECT_EQ(OpenLink(&linkOptions), -EINVAL) << size;
    }
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(RefusalsTest, ChildThatWasForkedInsideACallbackIsRefusedLikeAnyOther) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    int code = -1;
    link.onRequest = [&](uint32_t, const std::string &) {
        ChildProcess child([&](Channel &) {
            char room[16];
            uint32_t size = sizeof(room);
            EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 1), -ENOENT);
            EXPECT_EQ(TarvoLoopRun(loop.Get(), 0), -ENOENT);
            EXPECT_EQ(TarvoLinkCallSync(link.link, {"x", 1}, 10, room, &size), -ENOENT);
            EXPECT_EQ(TarvoLinkSend(link.link, {"x", 1}), -ENOENT);
            EXPECT_EQ(TarvoLinkPeer(link.link), nullptr);
            EXPECT_EQ(TarvoLoopFd(loop.Get()), -ENOENT);
            return 0;
        });
        code = child.Wait();
    };
    ExpectAlive();
    EXPECT_EQ(code, 0);
    EXPECT_FALSE(peer.HasInput());
}

// A loop refuses itself only: two of one thread are two loops.
TEST_F(RefusalsTest, AnotherLoopOfTheThreadMayBeUsedInsideACallback) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    TestLoop inner;
    ServiceProbe service(inner);
    const std::string name = UniqueName("service");
    ASSERT_EQ(service.Open(name), 0);
    service.onClient = MakeEcho;
    Probe client(inner);
    link.onRequest = [&](uint32_t, const std::string &text) {
        if (text != "outer") {
            return;
        }
        ASSERT_EQ(client.Open(TARVO_LINK_TO_SERVER, name, self), 0);
        EXPECT_TRUE(client.Await("opened 0"));
        EXPECT_GT(client.Call("question", "call"), 0);
        EXPECT_TRUE(client.Await("done call 0 question"));
        EXPECT_EQ(TarvoLoopRun(inner.Get(), 0), -ETIMEDOUT);
        EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 1), -EDEADLK);
    };
    peer.Send(RawRequest(1, "outer") + RawRequest(2, "after"));
    EXPECT_TRUE(link.Await("request outer"));
    EXPECT_TRUE(client.Has("done call 0 question"));
    EXPECT_TRUE(link.Await("request after")) << "what the outer round had read is still its own";
}

// The thread sanitizer sees what they share.
TEST_F(RefusalsTest, AnotherThreadIsRefusedAlsoWhileTheLoopRuns) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    const auto refused = [&] {
        char room[16];
        uint32_t size = sizeof(room);
        EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 1), -EDEADLK);
        EXPECT_EQ(TarvoLoopRun(loop.Get(), 0), -EDEADLK);
        EXPECT_EQ(TarvoLinkCallSync(link.link, {"x", 1}, 10, room, &size), -EDEADLK);
        EXPECT_EQ(TarvoLinkSend(link.link, {"x", 1}), -EDEADLK);
        EXPECT_EQ(TarvoLinkPeer(link.link), nullptr);
        EXPECT_EQ(TarvoLoopFd(loop.Get()), -EDEADLK);
    };
    // Relaxed: nothing but the loop may order what they do.
    std::atomic<int> rounds{0};
    std::atomic<bool> done{false};
    std::thread other([&] {
        for (int before = 0; before < 100;) {
            refused();
            before = rounds.load(std::memory_order_relaxed);
        }
        done.store(true, std::memory_order_relaxed);
    });
    while (!done.load(std::memory_order_relaxed)) {
        EXPECT_GE(TarvoLoopDispatch(loop.Get(), 10), 0);
        rounds.fetch_add(1, std::memory_order_relaxed);
    }
    other.join();
    EXPECT_STREQ(TarvoLinkPeer(link.link), remote.c_str());
    ExpectAlive();
}

} // namespace
} // namespace tarvo_test
