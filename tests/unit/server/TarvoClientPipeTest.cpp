#include "server/TarvoClientPipe.h"

#include <fcntl.h>
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "LibraryStubs.h"
#include "support/AllocFaults.h"
#include "support/FakeClock.h"
#include "support/Faults.h"
#include "support/FifoEnds.h"
#include "support/LeakCheck.h"
#include "support/Names.h"
#include "support/RawFrame.h"
#include "support/SyslogCapture.h"

namespace tarvo_test {
namespace {

constexpr int HANDLE = 42;

class RecordingObserver : public PipeObserver {
public:
    int OnRequestIn(std::string, const std::function<void()> &, TarvoPriority) const override { return 0; }
    int OnAsyncRequestIn(const std::function<void()> &, TarvoPriority) const override { return 0; }
    int OnPipeOpened(int, int fd, std::shared_ptr<TarvoPipeImpl>) override {
        opened.push_back(fd);
        return 0;
    }
    void OnOpenFailed(int fd) override { failed.push_back(fd); }
    void OnPipeRemoteClosed(int) override {}
    void OnFreeSelfWorker(std::string) override {}

    std::vector<int> opened;
    std::vector<int> failed;
};

// A client of a server that is only a FIFO.
class TarvoClientPipeTest : public LeakCheckedTest {
protected:
    TarvoClientPipeTest() {
        FifoDirectory();
        attr.targetName = server.c_str();
        attr.selfName = self.c_str();
        attr.timeout = 1;
        MakePipe();
    }

    ~TarvoClientPipeTest() override {
        pipe.reset();
        unlink(path.c_str());
    }

    void MakePipe() {
        pipe = std::make_shared<TarvoClientPipe>(attr, observer);
        pipe->SetFd(HANDLE);
    }

    void MakeServerFile() const { ASSERT_EQ(mkfifo(path.c_str(), 0660), 0); }

    void MakeServer() {
        MakeServerFile();
        serverEnd = ReadEnd(path);
    }

    std::string WhatTheServerReads() const {
        char buffer[4096];
        const ssize_t count = read(serverEnd.Get(), buffer, sizeof(buffer));
        return count < 0 ? "" : std::string(buffer, static_cast<std::size_t>(count));
    }

    // What the server does once it has the announcement.
    void MakePipeFiles() const {
        ASSERT_EQ(mkfifo(toServer.c_str(), 0660), 0);
        ASSERT_EQ(mkfifo(fromServer.c_str(), 0660), 0);
    }

    // In the order in which a server closes.
    void RemovePipeFiles() const {
        unlink(toServer.c_str());
        unlink(fromServer.c_str());
    }

    std::string Announcement() const { return RawConnectPacket(extended, getgid(), getpid()); }

    void ExpectFailedOpen(int ret) {
        EXPECT_EQ(pipe->TimedOpen(1000), ret);
        EXPECT_EQ(observer.failed, std::vector<int>{HANDLE});
        EXPECT_TRUE(observer.opened.empty());
    }

    const std::string server = UniqueName("srv");
    const std::string self = UniqueName("cli");
    const std::string extended = self + "_" + std::to_string(getpid());
    const std::string path = FifoDirectory() + server;
    const std::string toServer = FifoPath(extended, server);
    const std::string fromServer = FifoPath(server, extended);
    SyslogCapture log;
    RecordingObserver observer;
    TarvoAttr attr;
    std::shared_ptr<TarvoClientPipe> pipe;
    UniqueFd serverEnd;
};

TEST_F(TarvoClientPipeTest, NameIsExtendedByTheProcessId) {
    EXPECT_EQ(pipe->GetMyName(), extended);
    EXPECT_EQ(pipe->GetTableKey(), extended + server);
}

TEST_F(TarvoClientPipeTest, ProcessNameIsExtendedToo) {
    setenv("PROC_NAME", self.c_str(), 1);
    attr.selfName = nullptr;
    MakePipe();
    EXPECT_EQ(pipe->GetMyName(), extended);
}

TEST_F(TarvoClientPipeTest, FifosCarryTheExtendedName) {
    MakeServer();
    attr.mode = TARVO_MODE_SERVER; // creates the files, so that they can be seen
    attr.timeout = 0;
    MakePipe();
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_EQ(access(FifoPath(extended, server).c_str(), F_OK), 0);
    EXPECT_EQ(access(FifoPath(server, extended).c_str(), F_OK), 0);
    EXPECT_EQ(observer.opened, std::vector<int>{HANDLE});
    EXPECT_TRUE(observer.failed.empty());
    pipe->DeInitPipe();
}

TEST_F(TarvoClientPipeTest, ServersFifoIsNamedAfterTheTarget) {
    EXPECT_EQ(pipe->MonitorPipeNameGen(), path);
    const DomainStub domain(TARVO_DOMAIN_ORLA);
    EXPECT_EQ(pipe->MonitorPipeNameGen(), "/local" + path);
}

TEST_F(TarvoClientPipeTest, AnnouncementIsOneConnectPacketInOneWrite) {
    MakeServer();
    const CallCounter writes(Call::Write);
    EXPECT_EQ(pipe->TimedOpen(1), -ETIMEDOUT);
    EXPECT_EQ(WhatTheServerReads(), Announcement());
    EXPECT_EQ(writes.Count(), 1U);
}

TEST_F(TarvoClientPipeTest, AnnouncementIsMadeWithoutBlocking) {
    MakeServer();
    std::vector<int> flags;
    {
        const ScopedHook hook(
            Call::Open, [&](const CallInfo &call) { flags.push_back(call.number); }, Where().PathHas(server).Always());
        pipe->TimedOpen(1);
    }
    EXPECT_EQ(flags, std::vector<int>{O_WRONLY | O_NONBLOCK | O_CLOEXEC});
}

TEST_F(TarvoClientPipeTest, AnnouncementIsClosedBeforeThePipeOpens) {
    MakeServer();
    const std::size_t descriptors = OpenDescriptors().size();
    unsigned looks = 0;
    // The first thing that the open itself does in client mode is to look for the remote's file.
    const ScopedHook hook(
        Call::Access,
        [&](const CallInfo &) {
            ++looks;
            EXPECT_EQ(OpenDescriptors().size(), descriptors);
        },
        Where().PathHas("__to__").Always());
    EXPECT_EQ(pipe->TimedOpen(1), -ETIMEDOUT);
    EXPECT_GE(looks, 1U);
    EXPECT_EQ(OpenDescriptors().size(), descriptors);
}

TEST_F(TarvoClientPipeTest, OpenGoesOnToTheServersSideOfThePipe) {
    MakeServer();
    MakePipeFiles();
    const UniqueFd reader = ReadEnd(toServer);
    EXPECT_EQ(pipe->TimedOpen(1000), 0);
    EXPECT_EQ(observer.opened, std::vector<int>{HANDLE});
    EXPECT_TRUE(observer.failed.empty());
    EXPECT_TRUE(log.Lines().empty());
    pipe->DeInitPipe();
    RemovePipeFiles();
}

TEST_F(TarvoClientPipeTest, EveryOpenAnnouncesThePipeAgain) {
    MakeServer();
    pipe->TimedOpen(1);
    pipe->TimedOpen(1);
    EXPECT_EQ(WhatTheServerReads(), Announcement() + Announcement());
}

// ---- What an earlier pipe of these names has left behind ----

class TarvoClientPipeLeftoverTest : public TarvoClientPipeTest {
protected:
    ~TarvoClientPipeLeftoverTest() override { RemovePipeFiles(); }

    static std::chrono::steady_clock::duration Now() { return std::chrono::steady_clock::now().time_since_epoch(); }

    // How long an open that fails in the end waits before it announces itself, by a clock that only sleeps move.
    std::chrono::milliseconds TimeToTheAnnouncement(int timeoutMs) {
        FakeClock clock(FakeClock::Mode::Frozen);
        clock.SleepsAdvanceTheClock();
        const auto start = Now();
        auto announced = start;
        const ScopedHook hook(
            Call::Write, [&](const CallInfo &) { announced = Now(); }, Where().Times(1));
        EXPECT_EQ(pipe->TimedOpen(timeoutMs), -ETIMEDOUT);
        EXPECT_EQ(hook.Hits(), 1U);
        return std::chrono::duration_cast<std::chrono::milliseconds>(announced - start);
    }
};

TEST_F(TarvoClientPipeLeftoverTest, WithoutAnyOneLookIsAllItTakes) {
    MakeServer();
    const CallCounter looks(Call::Access);
    const CallCounter sleeps(Call::Sleep);
    const ScopedHook hook(
        Call::Write,
        [&](const CallInfo &) {
            EXPECT_EQ(looks.Count(), 1U);
            EXPECT_EQ(sleeps.Count(), 0U);
        },
        Where().Times(1));
    EXPECT_EQ(pipe->TimedOpen(1), -ETIMEDOUT);
    EXPECT_EQ(hook.Hits(), 1U);
}

TEST_F(TarvoClientPipeLeftoverTest, AnnouncesItselfOnceTheyAreGone) {
    MakeServer();
    MakePipeFiles();
    FakeClock clock(FakeClock::Mode::Frozen);
    clock.SleepsAdvanceTheClock();
    const ScopedHook removal(
        Call::Sleep, [&](const CallInfo &) { RemovePipeFiles(); }, Where().Nth(3).Times(1));
    const ScopedHook hook(
        Call::Write,
        [&](const CallInfo &) {
            EXPECT_EQ(removal.Hits(), 1U);
            EXPECT_NE(access(toServer.c_str(), F_OK), 0);
            EXPECT_NE(access(fromServer.c_str(), F_OK), 0);
        },
        Where().Times(1));
    EXPECT_EQ(pipe->TimedOpen(1000), -ETIMEDOUT);
    EXPECT_EQ(hook.Hits(), 1U);
}

TEST_F(TarvoClientPipeLeftoverTest, WaitsForThemForATenthOfASecondAtMost) {
    MakeServer();
    MakePipeFiles();
    EXPECT_EQ(TimeToTheAnnouncement(10000), std::chrono::milliseconds(100));
    EXPECT_EQ(WhatTheServerReads(), Announcement());
}

TEST_F(TarvoClientPipeLeftoverTest, WaitsForThemThatLongWithoutATimeoutToo) {
    MakeServer();
    MakePipeFiles();
    EXPECT_EQ(TimeToTheAnnouncement(0), std::chrono::milliseconds(100));
}

TEST_F(TarvoClientPipeLeftoverTest, DoesNotWaitForThemBeyondTheTimeoutOfTheOpen) {
    MakeServer();
    MakePipeFiles();
    EXPECT_EQ(TimeToTheAnnouncement(30), std::chrono::milliseconds(30));
}

TEST_F(TarvoClientPipeLeftoverTest, WithoutAServerTheyAreNotWaitedFor) {
    MakePipeFiles();
    const CallCounter sleeps(Call::Sleep);
    ExpectFailedOpen(-ENXIO);
    EXPECT_EQ(sleeps.Count(), 0U);
}

TEST_F(TarvoClientPipeLeftoverTest, FilesOfAPipeThatIsOpenAreNotWaitedFor) {
    MakeServer();
    UniqueFd reader;
    const ScopedHook hook(
        Call::Write,
        [&](const CallInfo &) {
            MakePipeFiles();
            reader = ReadEnd(toServer);
        },
        Where().Times(1));
    ASSERT_EQ(pipe->TimedOpen(1000), 0);
    const CallCounter sleeps(Call::Sleep);
    EXPECT_EQ(pipe->TimedOpen(1000), 0);
    EXPECT_EQ(sleeps.Count(), 0U);
    pipe->DeInitPipe();
}

TEST_F(TarvoClientPipeLeftoverTest, FilesOfAnOpenThatFailedAreNotWaitedForByTheNextAttempt) {
    MakeServer();
    ASSERT_EQ(pipe->TimedOpen(1), -ETIMEDOUT);
    MakePipeFiles(); // the server was late
    const CallCounter sleeps(Call::Sleep);
    const ScopedHook hook(
        Call::Write, [&](const CallInfo &) { EXPECT_EQ(sleeps.Count(), 0U); }, Where().Times(1));
    EXPECT_EQ(pipe->TimedOpen(1), -ETIMEDOUT);
    EXPECT_EQ(hook.Hits(), 1U);
}

// ---- Failures ----

TEST_F(TarvoClientPipeTest, WithoutAServerNothingIsWritten) {
    const CallCounter opens(Call::Open, Where().PathHas(server));
    const CallCounter writes(Call::Write);
    ExpectFailedOpen(-ENXIO);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, extended + " connect " + path + " failed, server fifo not exist"));
    EXPECT_EQ(opens.Count() + writes.Count(), 0U);
}

TEST_F(TarvoClientPipeTest, FileThatIsNoFifoIsNoServer) {
    std::ofstream(path) << "text";
    ExpectFailedOpen(-ENXIO);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, extended + " connect " + path + " failed, server fifo not exist"));
}

TEST_F(TarvoClientPipeTest, LinkToAServerIsNoServer) {
    const std::string real = FifoDirectory() + UniqueName("real");
    ASSERT_EQ(mkfifo(real.c_str(), 0660), 0);
    ASSERT_EQ(symlink(real.c_str(), path.c_str()), 0);
    ExpectFailedOpen(-ENXIO);
    unlink(real.c_str());
}

TEST_F(TarvoClientPipeTest, StaleFifoOfADeadServerFailsAtOnce) {
    MakeServerFile();
    ExpectFailedOpen(-ENXIO);
    const std::optional<LogLine> line = log.WaitFor(LOG_ERR, "open monitor pipe");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->message, extended + " open monitor pipe " + path + " failed, fd=-6, err=6");
    EXPECT_EQ(line->file, "TarvoClientPipe");
    EXPECT_EQ(log.Lines().size(), 1U);
}

TEST_F(TarvoClientPipeTest, LineAboutAStaleFifoIsRestrained) {
    MakeServerFile();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pipe->TimedOpen(1000), -ENXIO);
    }
    EXPECT_EQ(log.Count(LOG_ERR, "open monitor pipe"), 1U);
    EXPECT_EQ(observer.failed.size(), 3U);
}

TEST_F(TarvoClientPipeTest, ServerThatMayNotBeOpenedIsReported) {
    MakeServer();
    const ScopedFault fault(Call::Open, EACCES, Where().PathHas(server));
    ExpectFailedOpen(-EACCES);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, extended + " open monitor pipe " + path + " failed, fd=-13, err=13"));
}

TEST_F(TarvoClientPipeTest, ServerThatDoesNotKeepUpIsReported) {
    MakeServer();
    FillFifo(path);
    ExpectFailedOpen(-EAGAIN);
    EXPECT_TRUE(log.Contains(LOG_ERR, "write dataIn fail: -1, serverMonitorFd = "));
    EXPECT_TRUE(log.Contains(LOG_ERR, ", errno = 11"));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Send client name to server fail, ret = -11"));
}

TEST_F(TarvoClientPipeTest, ShortWriteIsAFailure) {
    MakeServer();
    const std::size_t descriptors = OpenDescriptors().size();
    {
        const ScopedHook hook(Call::Write, [](const CallInfo &) { return Outcome{3, 0}; });
        errno = 0;
        EXPECT_EQ(pipe->TimedOpen(1000), -EIO);
    }
    EXPECT_EQ(observer.failed, std::vector<int>{HANDLE});
    EXPECT_TRUE(log.Contains(LOG_ERR, "write dataIn fail: 3, serverMonitorFd = "));
    EXPECT_TRUE(log.Contains(LOG_ERR, "Send client name to server fail, ret = -"));
    EXPECT_EQ(OpenDescriptors().size(), descriptors);
}

TEST_F(TarvoClientPipeTest, NameThatFitsNoPacketIsReported) {
    MakeServer();
    const std::string longName(255, 'n');
    attr.selfName = longName.c_str();
    MakePipe();
    const std::size_t descriptors = OpenDescriptors().size();
    ExpectFailedOpen(-EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Msg Init fail, ret = -22"));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Send client name to server fail, ret = -22"));
    EXPECT_EQ(OpenDescriptors().size(), descriptors);
    EXPECT_EQ(WhatTheServerReads(), "");
}

TEST_F(TarvoClientPipeTest, PacketForWhichThereIsNoMemoryIsReported) {
    MakeServer();
    const std::size_t descriptors = OpenDescriptors().size();
    {
        const AllocFault fault(1, 20 + extended.size());
        ExpectFailedOpen(-ENOMEM);
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Send client name to server fail, ret = -12"));
    EXPECT_EQ(OpenDescriptors().size(), descriptors);
}

TEST_F(TarvoClientPipeTest, NameForWhichThereIsNoMemoryIsReported) {
    MakeServer();
    const std::string longName = self + std::string(50, 'n'); // one that a string allocates for
    attr.selfName = longName.c_str();
    MakePipe();
    const std::size_t descriptors = OpenDescriptors().size();
    {
        const AllocFault fault(1, pipe->GetMyName().size() + 1);
        ExpectFailedOpen(-ENOMEM);
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Send client name to server fail, ret = -12"));
    EXPECT_EQ(OpenDescriptors().size(), descriptors);
}

TEST_F(TarvoClientPipeTest, WithoutDirectoryAndTargetThereIsNoServerToLookFor) {
    const PrefixStub prefix("");
    attr.targetName = "";
    MakePipe();
    ExpectFailedOpen(-EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, extended + " monitor pipe name is empty"));
}

} // namespace
} // namespace tarvo_test
