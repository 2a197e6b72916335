// Pipes in the table: handles, lookup, retry of failed opens, closing, cleaning, and what pipes report.
#include "table/TarvoTable.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <future>
#include <thread>

#include "TableFixture.h"
#include "server/TarvoClientPipe.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/FifoWatch.h"
#include "support/RawPeer.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

constexpr int MAX_PIPES = 1024;

TEST_F(TableTest, FirstPipeHasHandleTwoBecauseItsMonitorDrewOne) {
    EXPECT_EQ(OpenNew(), 2);
    EXPECT_EQ(OpenNew(), 3);
    EXPECT_EQ(table->Size(), 2U);
}

TEST_F(TableTest, SameRemoteIsOneHandleAndOnePipe) {
    const std::string remote = UniqueName("remote");
    const TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    const int fd = Open(attr);
    const auto pipe = table->GetPipe(fd);
    EXPECT_EQ(Open(attr), fd);
    EXPECT_EQ(table->Size(), 1U);
    EXPECT_EQ(table->GetPipe(fd), pipe);
    // The object that the second open made in vain has drawn no handle.
    EXPECT_EQ(OpenNew(), fd + 1);
}

TEST_F(TableTest, DifferentSelfNamesAreDifferentPipes) {
    const std::string remote = UniqueName("remote");
    const std::string other = UniqueName("other");
    EXPECT_EQ(Open(MakeAttr(self, remote, TARVO_MODE_SERVER)), 2);
    EXPECT_EQ(Open(MakeAttr(other, remote, TARVO_MODE_SERVER)), 3);
}

TEST_F(TableTest, TimedOutOpenIsTriedAgainUnderItsOwnHandle) {
    const std::string remote = UniqueName("remote");
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    attr.timeout = 20;
    const CallCounter sleeps(Call::Sleep, Where().ThisThread());
    EXPECT_EQ(Open(attr), -ETIMEDOUT);
    EXPECT_EQ(table->Size(), 1U);
    const auto pipe = table->GetPipe(2);
    ASSERT_TRUE(pipe);
    const unsigned ofTheFirst = sleeps.Count();
    attr.timeout = 80;
    EXPECT_EQ(Open(attr), -ETIMEDOUT);
    EXPECT_GT(sleeps.Count(), 2 * ofTheFirst) << "every open has its own time-out";

    RawPeer peer(remote, self);
    peer.CreateFiles();
    EXPECT_EQ(Open(attr), 2);
    EXPECT_EQ(table->GetPipe(2), pipe);
    EXPECT_EQ(table->Size(), 1U);
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "AddPipe failed"));
}

TEST_F(TableTest, FailedOpenIsReportedWithTheHandleThatItKeeps) {
    const std::string remote = UniqueName("remote");
    const TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    {
        const ScopedFault fault(Call::Mkfifo, EACCES, Where().Always());
        EXPECT_EQ(Open(attr), -EACCES);
        EXPECT_EQ(Open(attr), -EACCES);
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "AddPipe failed when open fd=2, err=-13"), 1U) << "restrained";
    EXPECT_EQ(log.WaitFor(LOG_ERR, "AddPipe failed")->file, "TarvoTable");
    EXPECT_EQ(Open(attr), 2);
}

TEST_F(TableTest, OpenThatIsClosedMeanwhileIsCancelled) {
    const std::string remote = UniqueName("remote");
    const TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    const CallCounter lookups(Call::Access, Where().PathHas(remote));
    auto opened = InBackground([&] { return Open(attr); });
    ASSERT_TRUE(lookups.WaitFor(3));
    table->CloseTarvoPipe(2);
    EXPECT_EQ(opened.get(), -ECANCELED);
    EXPECT_FALSE(log.Contains(LOG_ERR, "AddPipe failed"));
    EXPECT_EQ(table->Size(), 0U);
}

// The open has found the pipe in the table; before it begins, another thread closes that pipe.
TEST_F(TableTest, PipeThatIsClosedBeforeItsOpenBeginsStaysClosed) {
    const std::string remote = UniqueName("remote");
    const TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    const int fd = Open(attr);
    const auto found = table->GetPipe(fd);
    table->CloseTarvoPipe(fd);
    EXPECT_EQ(found->TimedOpen(attr.timeout), -ECANCELED);
    EXPECT_FALSE(std::filesystem::exists(FifoPath(self, remote)));
    EXPECT_GT(Open(attr), fd) << "the next open makes a pipe of its own";
}

TEST_F(TableTest, WaitingOpenHoldsUpNobody) {
    const std::string remote = UniqueName("remote");
    const TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    const CallCounter lookups(Call::Access, Where().PathHas(remote));
    auto opened = InBackground([&] { return Open(attr); });
    ASSERT_TRUE(lookups.WaitFor(3));
    const int other = OpenNew();
    EXPECT_EQ(other, 3);
    EXPECT_TRUE(table->GetPipe(other));
    table->CloseTarvoPipe(other);
    EXPECT_EQ(opened.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

    RawPeer peer(remote, self);
    peer.CreateFiles();
    EXPECT_EQ(opened.get(), 2);
}

TEST_F(TableTest, HandleOfAClosedPipeIsNotUsedAgain) {
    const std::string remote = UniqueName("remote");
    const TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    EXPECT_EQ(Open(attr), 2);
    table->CloseTarvoPipe(2);
    EXPECT_EQ(table->Size(), 0U);
    EXPECT_FALSE(table->GetPipe(2));
    EXPECT_EQ(Open(attr), 3);
}

TEST_F(TableTest, ClosingTwiceDoesNothingTheSecondTime) {
    const int fd = OpenNew();
    table->CloseTarvoPipe(fd);
    table->CloseTarvoPipe(fd);
    table->CloseTarvoPipe(-1);
    EXPECT_THAT(Complaints(), testing::IsEmpty());
}

TEST_F(TableTest, ConcurrentClosesOfOnePipeAreOneClose) {
    for (int round = 0; round < 20; ++round) {
        const int fd = OpenNew();
        std::thread other([&] { table->CloseTarvoPipe(fd); });
        table->CloseTarvoPipe(fd);
        other.join();
        EXPECT_EQ(table->Size(), 0U);
    }
    EXPECT_THAT(Complaints(), testing::IsEmpty());
}

TEST_F(TableTest, PipeIsOutOfTheTableBeforeItClosesAndHoldsUpOtherClosesOnly) {
    const std::string remote = UniqueName("remote");
    const int fd = Open(MakeAttr(self, remote, TARVO_MODE_SERVER));
    const int other = OpenNew();
    Mutex &closeMutex = (*table).*Get(CloseMutex());
    const ScopedHook closing(
        Call::Unlink,
        [&](const CallInfo &) {
            std::thread([&]() NO_THREAD_SAFETY_ANALYSIS {
                EXPECT_FALSE(table->GetPipe(fd));
                EXPECT_TRUE(table->GetPipe(other));
                EXPECT_EQ(table->Size(), 1U);
                table->OnPipeRemoteClosed(other); // takes the table's lock alone
                const bool free = closeMutex.try_lock();
                EXPECT_FALSE(free);
                if (free) {
                    closeMutex.unlock();
                }
            }).join();
        },
        Where().Path(FifoPath(self, remote)).Times(1));
    table->CloseTarvoPipe(fd);
    EXPECT_EQ(closing.Hits(), 1U);
}

TEST_F(TableTest, LookedUpPipeSurvivesItsCloseAndRefusesWork) {
    const int fd = OpenNew();
    const auto pipe = table->GetPipe(fd);
    table->CloseTarvoPipe(fd);
    char text[] = "late";
    EXPECT_EQ(pipe->Send(TarvoRequest{1, text, 4}, -1), -1);
}

TEST_F(TableTest, CallbackObjectThatClosesAnotherPipeWhenItDiesIsNoDeadlock) {
    const int other = OpenNew();
    const std::string remote = UniqueName("remote");
    const std::shared_ptr<int> closer(new int(other), [this](const int *fd) {
        table->CloseTarvoPipe(*fd);
        delete fd;
    });
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, [closer](int, TarvoRequest *) {});
    const int fd = Open(attr);
    attr.callback = nullptr;
    const std::weak_ptr<int> watched = closer;
    const_cast<std::shared_ptr<int> &>(closer).reset();
    table->CloseTarvoPipe(fd);
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(table->Size(), 0U);
}

TEST_F(TableTest, InvalidHandlesAreRefusedWithoutTheLock) {
    SharedMutex &lock = (*table).*Get(TableLock());
    const WriteLock held(lock);
    EXPECT_FALSE(table->GetPipe(0));
    EXPECT_FALSE(table->GetPipe(-5));
}

TEST_F(TableTest, LookupsShareTheLock) {
    const int fd = OpenNew();
    SharedMutex &lock = (*table).*Get(TableLock());
    const ReadLock held(lock);
    auto found = InBackground([&] { return table->GetPipe(fd) != nullptr; });
    EXPECT_TRUE(found.get());
}

TEST_F(TableTest, The1025thPipeIsRefusedAndAClosedHandleStaysUnused) {
    std::vector<std::string> remotes;
    for (int i = 0; i < MAX_PIPES; ++i) {
        remotes.push_back(UniqueName("remote"));
    }
    // Pipes whose open failed count: they are registered.
    const ScopedFault fault(Call::Mkfifo, EACCES, Where().Always());
    for (const std::string &remote : remotes) {
        ASSERT_EQ(Open(MakeAttr(self, remote, TARVO_MODE_SERVER)), -EACCES);
    }
    EXPECT_EQ(table->Size(), 1024U);
    EXPECT_EQ(OpenNew(), -ENOMEM);
    EXPECT_EQ(OpenNew(), -ENOMEM);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Cannot alloc new fd, ret = -12"), 1U) << "restrained";
    EXPECT_EQ(table->Size(), 1024U);
    // A registered remote is no new pipe.
    EXPECT_EQ(Open(MakeAttr(self, remotes.front(), TARVO_MODE_SERVER)), -EACCES);

    table->CloseTarvoPipe(2);
    EXPECT_EQ(OpenNew(), -EACCES);
    EXPECT_TRUE(table->GetPipe(MAX_PIPES + 2));
    EXPECT_FALSE(table->GetPipe(2));
}

TEST_F(TableTest, CounterThatRunsOverRefusesPipesAndMonitors) {
    OpenNew();
    (*table).*Get(NextFd()) = INT_MAX;
    EXPECT_EQ(OpenNew(), INT_MAX);
    EXPECT_EQ(OpenNew(), INT_MIN);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Exceed fd maximum number, ret = -2147483648"));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Cannot alloc new fd, ret = -2147483648"));
    EXPECT_EQ(table->Size(), 2U);
    // A monitor under such a number could never be stopped.
    EXPECT_EQ(OpenNew(TARVO_PRIORITY_URGENT), INT_MIN + 1);
    EXPECT_TRUE(MonitorThreadsBecome(1));
}

TEST_F(TableTest, HandlesAreDrawnOneByOne) {
    EXPECT_EQ(table->AllocateFd(), 1);
    EXPECT_EQ(table->AllocateFd(), 2);
}

TEST_F(TableTest, TypeDecidesTheClassOfThePipe) {
    const std::string remote = UniqueName("remote");
    const TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    const auto client = table->MakePipe(attr, TARVO_CLIENT_PIPE);
    EXPECT_TRUE(std::dynamic_pointer_cast<TarvoClientPipe>(client));
    EXPECT_EQ(client->GetMyName(), self + "_" + std::to_string(getpid()));
    for (const int type : {int{TARVO_NORMAL_PIPE}, int{TARVO_SERVER_PIPE}, 3, -1}) {
        const auto pipe = table->MakePipe(attr, static_cast<TarvoPipeType>(type));
        EXPECT_FALSE(std::dynamic_pointer_cast<TarvoClientPipe>(pipe));
        EXPECT_EQ(pipe->GetMyName(), self);
    }
    EXPECT_EQ(table->Size(), 0U);
}

TEST_F(TableTest, CleanRemovesTheFilesOfAClientModePipeAndKeepsItOpen) {
    const std::string remote = UniqueName("remote");
    RawPeer peer(remote, self);
    peer.CreateFiles();
    const int fd = Open(MakeAttr(self, remote, TARVO_MODE_CLIENT));
    ASSERT_EQ(fd, 2);
    table->CleanTarvoPipe(fd);
    EXPECT_NE(access(peer.ReadFile().c_str(), F_OK), 0);
    EXPECT_NE(access(peer.WriteFile().c_str(), F_OK), 0);
    ASSERT_TRUE(table->GetPipe(fd));
    char text[] = "still";
    EXPECT_EQ(table->GetPipe(fd)->Send(TarvoRequest{7, text, 5}, -1), 0);
    EXPECT_EQ(peer.Receive().payload, "still");
}

TEST_F(TableTest, CleanIsRefusedToTheCreatorOfTheFiles) {
    const std::string remote = UniqueName("remote");
    const int fd = Open(MakeAttr(self, remote, TARVO_MODE_SERVER));
    table->CleanTarvoPipe(fd);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "CleanPipe should only be called by client, input fd(2)"));
    EXPECT_EQ(access(FifoPath(self, remote).c_str(), F_OK), 0);
    table->CleanTarvoPipe(4711);
    EXPECT_EQ(Complaints().size(), 1U);
}

TEST_F(TableTest, RequestsOfASerialPipeRunOnTheWorkerNamedByItsHandle) {
    std::promise<void> called;
    const std::string remote = UniqueName("remote");
    const int fd = Open(MakeAttr(self, remote, TARVO_MODE_SERVER, [&](int, TarvoRequest *) { called.set_value(); }));
    JoinedRawPeer peer(remote, self);
    peer.Send(RawRequest(1, "hello"));
    called.get_future().get();
    EXPECT_NE(workers->WorkerOf(std::to_string(fd)), nullptr);
    EXPECT_EQ(table->NumWorkers(), 1U);
    EXPECT_EQ(table->NumUrgentWorkers(), 0U);
    table->CloseTarvoPipe(fd);
    EXPECT_EQ(workers->WorkerOf(std::to_string(fd)), nullptr);
}

TEST_F(TableTest, RemoteCloseWithoutACallbackKeepsThePipeRegistered) {
    const std::string remote = UniqueName("remote");
    const int fd = Open(MakeAttr(self, remote, TARVO_MODE_SERVER));
    const CallCounter removals(Call::EpollCtl, Where().Number(EPOLL_CTL_DEL));
    { const JoinedRawPeer peer(remote, self); }
    // The creator removes its files when it closes.
    AwaitFifoDirectory("the close", [&] { return OwnFifoFiles().empty(); });
    EXPECT_EQ(removals.Count(), 1U) << "before that it leaves its monitor";
    ASSERT_TRUE(table->GetPipe(fd));
    char text[] = "late";
    EXPECT_EQ(table->GetPipe(fd)->Send(TarvoRequest{1, text, 4}, -1), -1);
    table->CloseTarvoPipe(fd);
    EXPECT_EQ(table->Size(), 0U);
}

TEST_F(TableTest, PipeClosedByItsOwnRemoteCloseNoticeGivesItsWorkerBackByItself) {
    std::promise<bool> keptItsWorker;
    const std::string remote = UniqueName("remote");
    const int fd = Open(MakeAttr(self, remote, TARVO_MODE_SERVER, [&](int handle, TarvoRequest *request) {
        if (request == nullptr) {
            table->CloseTarvoPipe(handle);
            keptItsWorker.set_value(workers->WorkerOf(std::to_string(handle)) != nullptr);
        }
    }));
    { const JoinedRawPeer peer(remote, self); }
    EXPECT_TRUE(keptItsWorker.get_future().get());
    EXPECT_TRUE(Eventually([&] { return workers->WorkerOf(std::to_string(fd)) == nullptr; }));
    EXPECT_EQ(table->Size(), 0U);
}

TEST_F(TableTest, ReportOfAnUnknownPipeIsIgnored) {
    table->OnPipeRemoteClosed(4711);
    table->OnOpenFailed(4711);
    table->OnFreeSelfWorker("4711");
    EXPECT_THAT(Complaints(), testing::IsEmpty());
}

TEST_F(TableTest, TasksGoToTheCallbackPoolAndItsResultComesBack) {
    EXPECT_EQ(table->OnRequestIn("7", {}, TARVO_PRIORITY_NORMAL), -EINVAL);
    EXPECT_EQ(table->OnAsyncRequestIn({}, TARVO_PRIORITY_NORMAL), -EINVAL);
    std::promise<void> named;
    std::promise<void> anonymous;
    EXPECT_EQ(table->OnRequestIn(
                  "7", [&] { named.set_value(); }, TARVO_PRIORITY_NORMAL),
              0);
    EXPECT_EQ(table->OnAsyncRequestIn([&] { anonymous.set_value(); }, TARVO_PRIORITY_URGENT), 0);
    named.get_future().get();
    anonymous.get_future().get();
    EXPECT_NE(workers->WorkerOf("7"), nullptr);
    EXPECT_EQ(table->NumWorkers(), 2U);
    EXPECT_EQ(table->NumUrgentWorkers(), 1U);
    table->OnFreeSelfWorker("7");
    EXPECT_EQ(workers->WorkerOf("7"), nullptr);
}

} // namespace
} // namespace tarvo_test
