// The end of the table: disabling with traffic, twice and from two threads, the destructor, and the emergency clean-up.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <vector>

#include "TableFixture.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/Faults.h"
#include "support/RawPeer.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

constexpr int HOUR_MS = 3600000;
constexpr auto DRAIN = std::chrono::milliseconds(50);

// A call over a pipe of the table, as the exported function makes it.
int CallThrough(TarvoPipeImpl &pipe) {
    char text[] = "question";
    TarvoRequest request{0, text, sizeof(text)};
    TarvoResponse response{};
    int ret = pipe.RecordOutRequest(request, response, HOUR_MS);
    if (ret == 0) {
        ret = pipe.Send(request, HOUR_MS);
    }
    return ret == 0 ? pipe.WaitForResponse(request, HOUR_MS) : ret;
}

TEST_F(TableTest, DisablingClosesEveryPipeAndEndsEveryThread) {
    const std::string remote = UniqueName("remote");
    std::promise<void> called;
    const int fd = Open(MakeAttr(self, remote, TARVO_MODE_SERVER, [&](int, TarvoRequest *) { called.set_value(); }));
    JoinedRawPeer peer(remote, self);
    peer.Send(RawRequest(1, "hello"));
    called.get_future().get();
    OpenNew(TARVO_PRIORITY_URGENT);
    EXPECT_FALSE(table->GetIsDisable());

    table->DisableTarvoTable();
    EXPECT_TRUE(table->GetIsDisable());
    EXPECT_EQ(table->Size(), 0U);
    EXPECT_FALSE(table->GetPipe(fd));
    peer.AwaitReaderGone();
    EXPECT_TRUE(MonitorThreadsBecome(0));
    EXPECT_NE(access(FifoPath(self, remote).c_str(), F_OK), 0);
    EXPECT_NE(access(FifoPath(remote, self).c_str(), F_OK), 0);
    EXPECT_THAT(Complaints(), testing::IsEmpty());
}

TEST_F(TableTest, DisablingGoesThroughThePipesInTheOrderOfTheirHandles) {
    std::vector<std::string> remotes;
    for (int i = 0; i < 12; ++i) {
        remotes.push_back(UniqueName("remote"));
    }
    for (auto remote = remotes.rbegin(); remote != remotes.rend(); ++remote) {
        Open(MakeAttr(self, *remote, TARVO_MODE_SERVER));
    }
    std::vector<std::string> removed;
    const ScopedHook hook(Call::Unlink, [&](const CallInfo &info) { removed.emplace_back(info.path); });
    table->DisableTarvoTable();
    ASSERT_EQ(removed.size(), 24U);
    for (std::size_t i = 0; i < remotes.size(); ++i) {
        EXPECT_EQ(removed[2 * i], FifoPath(remotes[11 - i], self));
        EXPECT_EQ(removed[2 * i + 1], FifoPath(self, remotes[11 - i]));
    }
}

TEST_F(TableTest, DisablingWakesThoseWhoWaitForAnAnswer) {
    const std::string remote = UniqueName("remote");
    const int fd = Open(MakeAttr(self, remote, TARVO_MODE_SERVER));
    JoinedRawPeer peer(remote, self);
    const auto pipe = table->GetPipe(fd);
    const FakeClock clock;
    auto waiting = InBackground([&] { return CallThrough(*pipe); });
    ASSERT_TRUE(clock.WaitUntilWaiting(1, std::chrono::minutes(30)));
    table->DisableTarvoTable();
    EXPECT_EQ(waiting.get(), -EPIPE);
}

TEST_F(TableTest, DisablingEndsAnOpenThatWaits) {
    const std::string remote = UniqueName("remote");
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    attr.timeout = 0; // no limit
    const CallCounter lookups(Call::Access, Where().PathHas(remote));
    auto opened = InBackground([&] { return Open(attr); });
    ASSERT_TRUE(lookups.WaitFor(3));
    table->DisableTarvoTable();
    EXPECT_EQ(opened.get(), -ECANCELED);
}

TEST_F(TableTest, DisablingEndsABackgroundOpenThatWaits) {
    const std::string remote = UniqueName("remote");
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    attr.timeout = HOUR_MS;
    const CallCounter attempts(Call::Realpath, Where().PathHas(self + "__to__"));
    EXPECT_EQ(Open(attr), 2);
    ASSERT_TRUE(attempts.WaitFor(1));
    table->DisableTarvoTable();
    EXPECT_TRUE(table->GetIsDisable());
}

TEST_F(TableTest, DisablingRetiresAPipeBeforeItLeavesItsMonitor) {
    const int fd = OpenNew();
    const std::shared_ptr<TarvoPipeImpl> pipe = table->GetPipe(fd);
    std::future<int> open;
    std::future_status ended = std::future_status::deferred;
    // Otherwise an open that is under way registers it again, and its descriptor is closed while it is watched.
    const ScopedHook removal(Call::EpollCtl, [&](const CallInfo &info) {
        if (info.number == EPOLL_CTL_DEL) {
            open = InBackground([&pipe] { return pipe->TimedOpen(100); });
            ended = open.wait_for(std::chrono::seconds(5));
        }
    });
    table->DisableTarvoTable();
    ASSERT_EQ(ended, std::future_status::ready) << "it waits to register its read end";
    EXPECT_EQ(open.get(), -ECANCELED);
}

TEST_F(TableTest, DisablingWaitsForTheCallbackThatRuns) {
    const std::string remote = UniqueName("remote");
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    Open(MakeAttr(self, remote, TARVO_MODE_SERVER, [&](int, TarvoRequest *) {
        entered.set_value();
        leave.get_future().get();
        left = true;
    }));
    JoinedRawPeer peer(remote, self);
    peer.Send(RawRequest(1, "hello"));
    entered.get_future().get();
    auto disabled = InBackground([&] {
        table->DisableTarvoTable();
        return left.load();
    });
    peer.AwaitReaderGone();
    EXPECT_FALSE(table->GetIsDisable());
    leave.set_value();
    EXPECT_TRUE(disabled.get());
}

TEST_F(TableTest, DisablingTwiceAndFromTwoThreadsIsHarmless) {
    OpenNew();
    auto other = InBackground([&] { table->DisableTarvoTable(); });
    table->DisableTarvoTable();
    EXPECT_TRUE(table->GetIsDisable());
    other.get();
    table->DisableTarvoTable();
    EXPECT_EQ(table->Size(), 0U);
    EXPECT_THAT(Complaints(), testing::IsEmpty());
}

TEST_F(TableTest, PipeOpenedAfterwardsReceivesNothingAndHangsNobody) {
    table->DisableTarvoTable();
    const std::string remote = UniqueName("remote");
    std::atomic<bool> called{false};
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, [&](int, TarvoRequest *) { called = true; });
    attr.timeout = PIPE_OPEN_TIMEOUT_MS;
    EXPECT_EQ(Open(attr), 2);
    JoinedRawPeer peer(remote, self);
    peer.Send(RawRequest(1, "hello"));
    // The background open by this thread, then the request by the monitor's.
    EXPECT_TRUE(log.WaitFor(LOG_ERR, "Observer handle request failed(-13) for readFd(", 2));
    table.reset();
    EXPECT_FALSE(called);
    peer.AwaitReaderGone();
}

TEST_F(TableTest, TasksAreRefusedAfterwards) {
    table->DisableTarvoTable();
    EXPECT_EQ(table->OnRequestIn(
                  "7", [] {}, TARVO_PRIORITY_NORMAL),
              -EACCES);
    EXPECT_EQ(table->OnAsyncRequestIn([] {}, TARVO_PRIORITY_NORMAL), -EACCES);
}

TEST_F(TableTest, DestructorLetsWhatRunsDrainBeforeItDisables) {
    OpenNew();
    const CallCounter sleeps(Call::Sleep, Where().ThisThread());
    const auto start = std::chrono::steady_clock::now();
    table.reset();
    EXPECT_GE(std::chrono::steady_clock::now() - start, DRAIN);
    EXPECT_EQ(sleeps.Count(), 1U);
}

TEST_F(TableTest, DestructorDrainsAlsoWhenTheTableIsDisabled) {
    table->DisableTarvoTable();
    OpenNew();
    const auto start = std::chrono::steady_clock::now();
    table.reset();
    EXPECT_GE(std::chrono::steady_clock::now() - start, DRAIN);
    EXPECT_TRUE(MonitorThreadsBecome(0));
}

TEST_F(TableTest, DrainIsWaitedForOnce) {
    OpenNew();
    table->DrainAndDisable();
    EXPECT_TRUE(table->GetIsDisable());
    OpenNew();
    const CallCounter sleeps(Call::Sleep, Where().ThisThread());
    table.reset();
    EXPECT_EQ(sleeps.Count(), 0U);
    EXPECT_TRUE(MonitorThreadsBecome(0));
}

TEST_F(TableTest, ExceptionHandlerRemovesTheFilesOfEveryPipeAndNothingElse) {
    const std::string first = UniqueName("remote");
    const std::string second = UniqueName("remote");
    Open(MakeAttr(self, first, TARVO_MODE_SERVER));
    RawPeer peer(second, self);
    peer.CreateFiles();
    const int fd = Open(MakeAttr(self, second, TARVO_MODE_CLIENT));
    std::vector<std::string> removed;
    {
        const ScopedHook hook(Call::Unlink, [&](const CallInfo &info) { removed.emplace_back(info.path); });
        table->ExceptionHandler();
    }
    const std::vector<std::string> expected = {FifoPath(self, first), FifoPath(first, self), FifoPath(self, second),
                                               FifoPath(second, self)};
    EXPECT_EQ(removed, expected);
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(table->Size(), 2U);
    char text[] = "still";
    EXPECT_EQ(table->GetPipe(fd)->Send(TarvoRequest{1, text, 5}, -1), 0);
    EXPECT_EQ(peer.Receive().payload, "still");
    EXPECT_THAT(Complaints(), testing::IsEmpty());
}

TEST_F(TableTest, OpensAndClosesDuringDisablingNeitherHangNorCrash) {
    std::atomic<bool> stop{false};
    Threads threads(4, [&](int number) {
        const std::string own = self + std::to_string(number);
        const std::string remote = UniqueName("remote");
        while (!stop) {
            TarvoAttr attr = MakeAttr(own, remote, TARVO_MODE_SERVER, [](int, TarvoRequest *) {});
            attr.timeout = HOUR_MS;
            attr.priority = number % 2 == 0 ? TARVO_PRIORITY_NORMAL : TARVO_PRIORITY_URGENT;
            const int fd = Open(attr);
            table->CloseTarvoPipe(fd);
        }
    });
    ASSERT_TRUE(Eventually([&] { return table->AllocateFd() > 100; }));
    table->DisableTarvoTable();
    stop = true;
    threads.Join();
    table.reset();
}

} // namespace
} // namespace tarvo_test
