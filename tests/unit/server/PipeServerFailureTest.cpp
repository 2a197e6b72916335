// Every step of starting and stopping a server that can fail.
#include <fcntl.h>
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "PipeServerFixture.h"
#include "api/EnvManager.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/Names.h"

namespace tarvo_test {
namespace {

class PipeServerFailureTest : public PipeServerTest {
protected:
    // A start that fails with `ret` and leaves neither descriptor nor thread behind.
    void ExpectFailedStart(int ret) {
        const std::size_t descriptors = OpenDescriptors().size();
        EXPECT_EQ(Start(), ret);
        EXPECT_EQ(OpenDescriptors().size(), descriptors);
        EXPECT_TRUE(NoServerThreads());
    }
    // One that fails because that call does.
    void ExpectFailedStart(Call call, int errnoValue, const Where &where = Where()) {
        const ScopedFault fault(call, errnoValue, where);
        ExpectFailedStart(-errnoValue);
        EXPECT_EQ(fault.Hits(), 1U);
    }

    // A server whose thread has begun to wait.
    void StartAndWaitForTheThread() {
        const CallCounter waits(Call::EpollWait);
        ASSERT_EQ(Start(), 0);
        ASSERT_TRUE(waits.WaitFor(1));
    }

    void ExpectStartSucceedsNow() {
        log.Clear();
        ASSERT_EQ(Start(), 0);
        ServeClient("client");
        EXPECT_TRUE(log.Lines().empty());
    }

    void ExpectError(const std::string &message) const {
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, message)) << message << "\nis not among\n"
                                                           << testing::PrintToString(log.Messages());
    }
};

TEST_F(PipeServerFailureTest, WithoutAnOwnNameNothingIsCreated) {
    attr.selfName = "";
    const CallCounter creations(Call::Mkfifo);
    errno = 0;
    ExpectFailedStart(-EINVAL);
    EXPECT_EQ(creations.Count(), 0U);
    ExpectError("GetFifoName error=-22, errno=0.");
    ExpectError("PrepareFileFd failed: err=-22, errno=0.");
    attr.selfName = name.c_str();
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, WithoutAProcessNameNothingIsCreated) {
    {
        const MutexLock lock(EnvManager::Instance());
        ASSERT_EQ(EnvManager::SetEnv("PROC_NAME", std::string(101, 'n')), 0);
    }
    attr.selfName = nullptr;
    ExpectFailedStart(-EINVAL);
    EXPECT_TRUE(log.Contains(LOG_ERR, "GetFifoName error=-22"));
}

TEST_F(PipeServerFailureTest, WithoutADirectoryNothingIsCreated) {
    const PrefixStub prefix("");
    ExpectFailedStart(-EINVAL);
    EXPECT_TRUE(log.Contains(LOG_ERR, "GetFifoName error=-22"));
}

TEST_F(PipeServerFailureTest, InTheOtherDomainTheFifoLiesBelowItsDirectory) {
    const DomainStub domain(TARVO_DOMAIN_ORLA);
    const PrefixStub prefix("/no/such/directory/");
    ExpectFailedStart(-ENOENT);
    EXPECT_EQ(server->GetFifoNameForDFX(), "/local/no/such/directory/" + name);
    ExpectError("CreateFifo /local/no/such/directory/" + name + " error=-2, errno=2.");
}

TEST_F(PipeServerFailureTest, MissingDirectoryIsReported) {
    const PrefixStub prefix("/no/such/directory/");
    ExpectFailedStart(-ENOENT);
    ExpectError("CreateFifo /no/such/directory/" + name + " error=-2, errno=2.");
    ExpectError("PrepareFileFd failed: err=-2, errno=2.");
}

TEST_F(PipeServerFailureTest, FileThatCannotBeMadeIsReported) {
    ExpectFailedStart(Call::Mkfifo, EACCES, Where().PathHas(name));
    ExpectError("CreateFifo " + path + " error=-13, errno=13.");
    ExpectError("PrepareFileFd failed: err=-13, errno=13.");
    EXPECT_FALSE(FileExists());
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, ReadEndThatCannotBeOpenedTakesTheFileWithIt) {
    ExpectFailedStart(Call::Open, EMFILE, Where().PathHas(name));
    ExpectError("OpenFifo " + path + " error=0, errno=24.");
    ExpectError("PrepareFileFd failed: err=-24, errno=24.");
    EXPECT_FALSE(FileExists());
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, FileThatVanishedBeforeItWasOpenedIsReported) {
    {
        const ScopedHook hook(
            Call::Realpath, [&](const CallInfo &) { unlink(path.c_str()); }, Where().PathHas(name));
        ExpectFailedStart(-ENOENT);
    }
    ExpectError("OpenFifo " + path + " error=0, errno=2.");
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, WriteEndThatCannotBeOpenedTakesTheFileWithIt) {
    ExpectFailedStart(Call::Open, ENFILE, Where().PathHas(name).Nth(2));
    ExpectError("Open writable server fifo " + path + " error, ret=-23, errno=23.");
    ExpectError("PrepareFileFd failed: err=-23, errno=23.");
    EXPECT_FALSE(FileExists());
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, BothEndsAreOpenedAsTheyAreUsed) {
    std::vector<int> flags;
    const ScopedHook hook(
        Call::Open, [&](const CallInfo &call) { flags.push_back(call.number); }, Where().PathHas(name).Always());
    ASSERT_EQ(Start(), 0);
    // Neither open waits; the writes of the second end do.
    EXPECT_EQ(flags, (std::vector<int>{O_RDONLY | O_NONBLOCK | O_CLOEXEC, O_WRONLY | O_NONBLOCK | O_CLOEXEC}));
    std::vector<int> modes;
    const ScopedHook atClose(Call::Write, [&](const CallInfo &call) { modes.push_back(fcntl(call.fd, F_GETFL)); });
    server->Close();
    ASSERT_EQ(modes.size(), 1U);
    EXPECT_EQ(modes[0] & (O_ACCMODE | O_NONBLOCK), O_WRONLY);
}

TEST_F(PipeServerFailureTest, EpollInstanceThatCannotBeMadeIsReported) {
    ExpectFailedStart(Call::EpollCreate, EMFILE);
    ExpectError("Create epoll instance failed: err=-24, errno=24.");
    ExpectError("PrepareEpoll failed: err=-24, errno=24.");
    EXPECT_TRUE(FileExists());
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, ReadEndThatCannotBeWatchedIsReported) {
    ExpectFailedStart(Call::EpollCtl, ENOSPC);
    ExpectError("Add fd to epoll error: ret=-28.");
    ExpectError("PrepareEpoll failed: err=-28, errno=28.");
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, LockThatCannotBeHadIsReported) {
    ExpectFailedStart(Call::Flock, ENOLCK);
    EXPECT_TRUE(log.Contains(LOG_ERR, "Server " + path + " flock failed: monitorfd="));
    EXPECT_TRUE(log.Contains(LOG_ERR, ", err=-37, errno=37."));
    ExpectError("PrepareEpoll failed: err=-37, errno=37.");
    EXPECT_TRUE(FileExists()) << "it may be another server's";
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, ThreadThatCannotBeStartedIsReported) {
    {
        const ScopedFault fault(Call::PthreadCreate, EAGAIN);
        ExpectFailedStart(-ENOSPC);
    }
    EXPECT_TRUE(log.Contains(LOG_ERR, "Start Server monitorThread failed, system error: "));
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, PriorityWithoutASchedulingClassIsRefused) {
    attr.priority = TARVO_PRIORITY_NONE;
    ExpectFailedStart(-EINVAL);
    ExpectError("No such TarvoPriority, input is 0");
    ExpectError("Set server monitor thread to type 0 failed, ret=-22");
    attr.priority = TARVO_PRIORITY_NORMAL;
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, ServerWithoutRealTimeRightsRunsAtNormalPriority) {
    const ScopedFault fault(Call::PthreadSetschedparam, EPERM, Where().Always());
    attr.priority = TARVO_PRIORITY_URGENT;
    ASSERT_EQ(Start(), 0);
    ServeClient("client");
}

TEST_F(PipeServerFailureTest, ThreadThatCannotBeNamedServesAllTheSame) {
    const ScopedFault fault(Call::Prctl, EINVAL, Where().Always());
    ASSERT_EQ(Start(), 0);
    ServeClient("client");
    EXPECT_GE(fault.Hits(), 1U);
}

TEST_F(PipeServerFailureTest, CloseEndsTheThreadAlthoughItsPacketCannotBeWritten) {
    StartAndWaitForTheThread();
    {
        const ScopedFault fault(Call::Write, EIO);
        server->Close();
        EXPECT_EQ(fault.Hits(), 1U);
    }
    EXPECT_TRUE(log.Contains(LOG_ERR, "Write dataIn fail: -1, writeFd="));
    EXPECT_TRUE(log.Contains(LOG_ERR, ", errno=5."));
    ExpectError("Send stop message to server fail, ret=-5.");
    EXPECT_TRUE(NoServerThreads());
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, ShortWriteOfTheLastPacketIsAFailure) {
    StartAndWaitForTheThread();
    {
        const ScopedHook hook(Call::Write, [](const CallInfo &) { return Outcome{7, 0}; });
        errno = 0;
        server->Close();
    }
    EXPECT_TRUE(log.Contains(LOG_ERR, "Write dataIn fail: 7, writeFd="));
    ExpectError("Send stop message to server fail, ret=-5.");
    EXPECT_TRUE(NoServerThreads());
}

TEST_F(PipeServerFailureTest, CloseEndsTheThreadInTheMiddleOfAPacket) {
    const CallCounter waits(Call::EpollWait);
    ASSERT_EQ(Start(), 0);
    Write(Connect("client").substr(0, 12)); // magic, type and group
    ASSERT_TRUE(waits.WaitFor(7));          // four bytes of magic, type, group, and what is missing
    const ScopedFault fault(Call::Write, EIO);
    server->Close();
    EXPECT_TRUE(NoServerThreads());
    EXPECT_EQ(opens.Count(), 0U);
}

TEST_F(PipeServerFailureTest, CloseEndsTheThreadAlthoughItsPacketCannotBeBuilt) {
    StartAndWaitForTheThread();
    {
        const AllocFault fault(1, 16);
        server->Close();
        EXPECT_TRUE(fault.Hit());
    }
    ExpectError("Msg Init fail, err=-12.");
    ExpectError("Send stop message to server fail, ret=-12.");
    EXPECT_TRUE(NoServerThreads());
    ExpectStartSucceedsNow();
}

// Whichever allocation fails, the start either fails with a result and is undone, or works.
TEST_F(PipeServerFailureTest, StartWithoutMemoryIsUndone) {
    bool hit = true;
    for (unsigned nth = 1; hit; ++nth) {
        ASSERT_LT(nth, 200U);
        server.emplace(*table); // so that every attempt allocates the same
        const std::size_t descriptors = OpenDescriptors().size();
        int ret = 0;
        {
            const AllocFault fault(nth);
            ret = Start();
            hit = fault.Hit();
        }
        if (ret == 0) {
            ServeClient("client" + std::to_string(nth));
            server->Close();
        } else {
            EXPECT_TRUE(ret == -ENOMEM || ret == -ENOSPC) << "allocation " << nth << ": " << ret;
        }
        EXPECT_EQ(OpenDescriptors().size(), descriptors) << "allocation " << nth;
        EXPECT_TRUE(NoServerThreads());
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Start Server monitorThread failed."));
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, StartOfACancelledThreadIsUndone) {
    const std::size_t descriptors = OpenDescriptors().size();
    std::function<void()> start = [this] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        pthread_cancel(pthread_self());
        Start(); // enables it for its opens
    };
    const auto run = [](void *function) -> void * {
        (*static_cast<std::function<void()> *>(function))();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, run, &start), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(OpenDescriptors().size(), descriptors);
    ExpectStartSucceedsNow();
}

// ---- The thread's waiting ----

TEST_F(PipeServerFailureTest, InterruptedWaitIsTakenUpAgain) {
    const ScopedFault fault(Call::EpollWait, EINTR, Where().Times(3));
    ASSERT_EQ(Start(), 0);
    ServeClient("client");
    EXPECT_EQ(fault.Hits(), 3U);
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerFailureTest, FailedWaitEndsTheThread) {
    {
        const ScopedFault fault(Call::EpollWait, EBADF);
        ASSERT_EQ(Start(), 0);
        EXPECT_TRUE(NoServerThreads());
    }
    ExpectError("Epoll_wait on PipeServer monitor pipe failed, Bad file descriptor.");
    ExpectError("Receive magic error, received: 0, expected: 217, ret=-9.");
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, WaitThatEndsWithoutAnEventEndsTheThread) {
    {
        const ScopedHook hook(
            Call::EpollWait,
            [](const CallInfo &) {
                return Outcome{0, 0};
            },
            Where().Times(1));
        ASSERT_EQ(Start(), 0);
        EXPECT_TRUE(NoServerThreads());
    }
    ExpectError("Receive magic error, received: 0, expected: 217, ret=-1.");
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, FailedReadEndsTheThread) {
    ASSERT_EQ(Start(), 0);
    {
        const ScopedFault fault(Call::Read, EIO, Where().If([](const CallInfo &call) { return call.size == 1; }));
        Write(Connect("never"));
        EXPECT_TRUE(NoServerThreads());
    }
    ExpectError("Receive magic error, received: 0, expected: 217, ret=-5.");
    EXPECT_EQ(opens.Count(), 0U);
    ExpectStartSucceedsNow();
}

TEST_F(PipeServerFailureTest, EventsOfOthersAndHangupsAreWaitedOut) {
    int monitorFd = -1;
    {
        const ScopedHook hook(Call::EpollCtl, [&](const CallInfo &call) { monitorFd = call.fd; });
        ASSERT_EQ(Start(), 0);
    }
    unsigned waits = 0;
    const auto pretend = [&](const CallInfo &call) {
        auto *const event = static_cast<epoll_event *>(call.data);
        event->events = waits == 0 ? EPOLLIN : EPOLLHUP;
        event->data.fd = waits == 0 ? monitorFd + 1000 : monitorFd;
        ++waits;
        return Outcome{1, 0};
    };
    ServeClient("first");
    const ScopedHook hook(Call::EpollWait, pretend, Where().Times(2));
    Write(Connect("second") + Connect("third"));
    opens.WaitForTarget("third");
    EXPECT_EQ(hook.Hits(), 2U);
    EXPECT_TRUE(log.Lines().empty());
}

} // namespace
} // namespace tarvo_test
