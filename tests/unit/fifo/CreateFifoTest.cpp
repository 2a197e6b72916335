#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <new>

#include "fifo/velm_fifo.h"
#include "support/AllocFaults.h"
#include "support/FakeClock.h"
#include "support/Threads.h"
#include "unit/fifo/CallTrace.h"
#include "unit/fifo/FifoTest.h"

using namespace tarvo_test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

class CreateFifoTest : public FifoTest {
protected:
    int Create(uint32_t gid = NO_GID) { return CreateFifo(path, gid, -1, TARVO_DOMAIN_LOCAL, ""); }

    // A group other than that of new files, where this user may give one.
    static uint32_t SomeGroup() { return ::geteuid() == 0 ? 4711 : ::getegid(); }
};

TEST_F(CreateFifoTest, PublishesACompleteFifo) {
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(0, Create(SomeGroup()));
    const std::string group = std::to_string(SomeGroup());
    EXPECT_THAT(trace.Calls(), ElementsAre("access NAME", "mkfifo TEMP 660", "chmod TEMP 660", "chown TEMP -1:" + group,
                                           "link TEMP NAME", "unlink TEMP", "chown NAME -1:" + group));
    const struct stat state = StateOf(path);
    EXPECT_TRUE(S_ISFIFO(state.st_mode));
    EXPECT_EQ(0660U, state.st_mode & PERMISSION_BITS);
    EXPECT_EQ(SomeGroup(), state.st_gid);
    EXPECT_EQ(1U, state.st_nlink);
    EXPECT_THAT(OwnFifoFiles(), testing::SizeIs(1));
    EXPECT_THAT(log.UpTo(LOG_NOTICE), IsEmpty());
    EXPECT_EQ(InfoLine(VELM_FIFO_TAG, "Create fifo success, file name=" + path + "."), log.All().back());
}

TEST_F(CreateFifoTest, ModeIsTheSameUnderEveryUmask) {
    for (const mode_t mask : {0U, 022U, 077U, 0777U}) {
        const mode_t previous = ::umask(mask);
        EXPECT_EQ(0, Create());
        ::umask(previous);
        EXPECT_EQ(0660U, StateOf(path).st_mode & PERMISSION_BITS);
    }
}

TEST_F(CreateFifoTest, UnsetGroupLeavesTheGroup) {
    EXPECT_EQ(0, Create());
    WriteFile(path + "x", "");
    EXPECT_EQ(StateOf(path + "x").st_gid, StateOf(path).st_gid);
    ::unlink((path + "x").c_str());
}

TEST_F(CreateFifoTest, StaleFifoIsReplaced) {
    MakeFifo(path);
    const ino_t stale = StateOf(path).st_ino;
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(0, Create());
    EXPECT_EQ("unlink NAME", trace.Calls().at(1));
    EXPECT_NE(stale, StateOf(path).st_ino);
    EXPECT_EQ(0660U, StateOf(path).st_mode & PERMISSION_BITS);
    EXPECT_THAT(log.UpTo(LOG_NOTICE), IsEmpty());
}

TEST_F(CreateFifoTest, StaleFileOfAnyKindIsReplaced) {
    const std::string target = NewPath("target");
    WriteFile(target, "kept");
    WriteFile(path, "stale");
    EXPECT_EQ(0, Create());
    ::unlink(path.c_str());
    MakeLink(target, path);
    EXPECT_EQ(0, Create());
    EXPECT_TRUE(S_ISFIFO(StateOf(path).st_mode));
    EXPECT_TRUE(Exists(target));
}

TEST_F(CreateFifoTest, StaleFileThatCannotBeRemovedIsNotReported) {
    WriteFile(path, "stale");
    ASSERT_EQ(0, ::chmod(path.c_str(), 0644));
    const ScopedFault fault(Call::Unlink, EPERM,
                            Where().If([this](const CallInfo &call) { return call.path == path; }));
    const LogCalls log;
    EXPECT_EQ(-EACCES, Create());
    // What the name is taken by is only met when the FIFO is published.
    const LogCall first = log.UpTo(LOG_NOTICE).front();
    EXPECT_EQ(NotAFifo(0100644), first);
    EXPECT_FALSE(Exists(path));
}

TEST_F(CreateFifoTest, TemporaryNameIsTheNameAndTheNanoseconds) {
    FakeClock clock(FakeClock::Mode::Frozen);
    for (const long nanoseconds : {0L, 42L, 999999999L}) {
        clock.SetWall(std::chrono::seconds(1700000000) + std::chrono::nanoseconds(nanoseconds));
        const CallTrace trace(path);
        EXPECT_EQ(0, Create());
        EXPECT_THAT(trace.TempNames(), ElementsAre(path + std::to_string(nanoseconds)));
    }
}

TEST_F(CreateFifoTest, TakenTemporaryNamesAreRetriedWithoutLimit) {
    constexpr unsigned taken = 500;
    FakeClock clock(FakeClock::Mode::Frozen);
    clock.SetWall(std::chrono::seconds(1700000000));
    const ScopedFault fault(Call::Mkfifo, EEXIST, Where().Times(taken));
    const ScopedHook tick(Call::Mkfifo, [&clock](const CallInfo &) { clock.AdvanceWall(std::chrono::nanoseconds(7)); });
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(0, Create());
    ASSERT_EQ(taken + 1, trace.TempNames().size());
    for (unsigned i = 0; i <= taken; ++i) {
        EXPECT_EQ(path + std::to_string(7 * i), trace.TempNames()[i]);
    }
    EXPECT_THAT(log.UpTo(LOG_NOTICE), IsEmpty());
}

TEST_F(CreateFifoTest, FileThatHasTheTemporaryNameIsLeftAlone) {
    FakeClock clock(FakeClock::Mode::Frozen);
    clock.SetWall(std::chrono::nanoseconds(5));
    const ScopedHook tick(Call::Mkfifo, [&clock](const CallInfo &) { clock.AdvanceWall(std::chrono::nanoseconds(1)); });
    WriteFile(path + "5", "somebody's");
    EXPECT_EQ(0, Create());
    EXPECT_TRUE(S_ISREG(StateOf(path + "5").st_mode));
    EXPECT_FALSE(Exists(path + "6"));
    ::unlink((path + "5").c_str());
}

TEST_F(CreateFifoTest, FailedMkfifoIsReportedUnderBothNames) {
    for (const int error : {EACCES, ENOSPC, EROFS}) {
        const ScopedFault fault(Call::Mkfifo, error);
        const LogCalls log;
        const CallTrace trace(path);
        EXPECT_EQ(-error, Create());
        EXPECT_THAT(trace.Calls(), ElementsAre("access NAME", "mkfifo TEMP 660"));
        const std::string end = " failed, ret=" + std::to_string(-error) + ".";
        EXPECT_THAT(log.All(), ElementsAre(ErrorLine(VELM_FIFO_TAG, "Make fifo " + trace.TempName() + end),
                                           ErrorLine(VELM_FIFO_TAG, "Make fifo " + path + end)));
    }
}

TEST_F(CreateFifoTest, MissingDirectoryIsRefused) {
    EXPECT_EQ(-ENOENT, CreateFifo(path + "/fifo", NO_GID, -1, TARVO_DOMAIN_LOCAL, ""));
}

TEST_F(CreateFifoTest, TooLongANameIsRefused) {
    EXPECT_EQ(-ENAMETOOLONG, CreateFifo(path + std::string(300, 'x'), NO_GID, -1, TARVO_DOMAIN_LOCAL, ""));
}

TEST_F(CreateFifoTest, FailedChmodRemovesTheTemporaryFifo) {
    const ScopedFault fault(Call::Chmod, EPERM);
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(-EPERM, Create());
    EXPECT_THAT(trace.Calls(),
                ElementsAre("access NAME", "mkfifo TEMP 660", "chmod TEMP 660", "unlink TEMP", "unlink TEMP"));
    EXPECT_THAT(
        log.All(),
        ElementsAre(ErrorLine(VELM_FIFO_TAG, "Change the mode of fifo " + trace.TempName() + " failed, ret=-1."),
                    ErrorLine(VELM_FIFO_TAG, "Set fifo permission failed fifo=" + path + ", ret=-1.")));
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

TEST_F(CreateFifoTest, FailedChownsAreOnlyNoted) {
    const ScopedFault fault(Call::Chown, EPERM, Where().Always());
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(0, Create(4294967294U));
    EXPECT_EQ(2U, fault.Hits());
    const LogCall line = InfoLine(VELM_FIFO_TAG, "Changes fifo " + trace.TempName() + "'s gid to 4294967294, ret=1.");
    const std::vector<LogCall> all = log.All();
    EXPECT_EQ(2, std::count(all.begin(), all.end(), line));
    EXPECT_EQ(line, all.back());
    EXPECT_THAT(log.UpTo(LOG_NOTICE), IsEmpty());
    EXPECT_TRUE(Exists(path));
}

TEST_F(CreateFifoTest, FailedPublicationLeavesNothing) {
    for (const int error : {ENOSPC, EMLINK, EPERM}) {
        const ScopedFault fault(Call::Link, error);
        const LogCalls log;
        const CallTrace trace(path);
        EXPECT_EQ(-error, Create());
        EXPECT_THAT(trace.Calls(),
                    ElementsAre("access NAME", "mkfifo TEMP 660", "chmod TEMP 660", "chown TEMP -1:4294967295",
                                "link TEMP NAME", "unlink TEMP", "unlink NAME"));
        const std::string ret = std::to_string(-error) + ".";
        EXPECT_THAT(log.UpTo(LOG_NOTICE),
                    ElementsAre(ErrorLine(VELM_FIFO_TAG,
                                          "Link fifo " + trace.TempName() + " to " + path + " failed, ret=" + ret),
                                ErrorLine(VELM_FIFO_TAG, "Link tmp fifo to real fifo failed tmpfifo=" +
                                                             trace.TempName() + ", realfifo=" + path + " ret=" + ret)));
        EXPECT_THAT(OwnFifoFiles(), IsEmpty());
    }
}

TEST_F(CreateFifoTest, LabellingIsOffByDefault) {
    const struct {
        TarvoDomain domain;
        const char *targetCon;
        std::string stop;
    } rows[] = {
        {TARVO_DOMAIN_LOCAL, "", "[single domain] Auth is disabled."},
        {TARVO_DOMAIN_DP, "u:r:t:s", "[single domain] Auth is disabled."},
        {TARVO_DOMAIN_ORLA, "peer_t", "[cross domain] auth is disabled, inName is "},
        {TARVO_DOMAIN_ORLA, "", "[cross domain] targetCon is empty, inName is "},
    };
    for (const auto &row : rows) {
        const LogCalls log;
        const CallCounter policyLookups(Call::Lstat, Where().PathHas("selinux"));
        const CallTrace trace(path);
        EXPECT_EQ(0, CreateFifo(path, NO_GID, ::getpid(), row.domain, row.targetCon));
        const std::string subject = row.stop.back() == ' ' ? trace.TempName() + "." : "";
        EXPECT_THAT(log.All(), IsSupersetOf({InfoLine(VELM_FIFO_TAG, row.stop + subject)}));
        EXPECT_THAT(log.All(), Each(testing::Field(&LogCall::level, LOG_INFO)));
        EXPECT_EQ(0U, policyLookups.Count());
    }
}

TEST_F(CreateFifoTest, RunningOutOfMemoryLeavesNothing) {
    const CallCounter attempts(Call::Mkfifo);
    {
        const AllocFault fault(1);
        EXPECT_THROW(Create(), std::bad_alloc);
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_EQ(0U, attempts.Count());
}

TEST_F(CreateFifoTest, CreatorsOfOneNameLeaveNoTemporaryFifo) {
    constexpr int rounds = 200;
    std::atomic<int> unexpected{0};
    const auto create = [&](int) {
        for (int i = 0; i < rounds; ++i) {
            // A creator may also meet that another one is just removing what it took for stale.
            const int ret = Create();
            unexpected += ret != 0 && ret != -EACCES && ret != -EINVAL ? 1 : 0;
        }
    };
    OnThreads(2, create);
    EXPECT_EQ(0, unexpected);
    ::unlink(path.c_str());
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

} // namespace
