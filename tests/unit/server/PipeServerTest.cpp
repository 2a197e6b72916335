// The life of a server: starting, closing, ending by itself, starting again.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "PipeServerFixture.h"
#include "api/EnvManager.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Names.h"
#include "support/RawFrame.h"

namespace tarvo_test {
namespace {

TEST_F(PipeServerTest, InitPublishesAFifoForTheGroup) {
    ASSERT_EQ(Start(), 0);
    struct stat state {};
    ASSERT_EQ(lstat(path.c_str(), &state), 0);
    EXPECT_TRUE(S_ISFIFO(state.st_mode));
    EXPECT_EQ(state.st_mode & 07777U, 0660U);
    EXPECT_EQ(state.st_gid, getgid());
    EXPECT_EQ(server->GetFifoNameForDFX(), path);
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerTest, InitGivesTheFifoTheGroupOfTheAttribute) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file to any group";
    }
    attr.gid = 54321;
    ASSERT_EQ(Start(), 0);
    struct stat state {};
    ASSERT_EQ(lstat(path.c_str(), &state), 0);
    EXPECT_EQ(state.st_gid, 54321U);
}

TEST_F(PipeServerTest, RunningServerHasOneThreadAndThreeDescriptors) {
    const std::size_t descriptors = OpenDescriptors().size();
    const std::size_t threads = ThreadCount();
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(OpenDescriptors().size(), descriptors + 3);
    EXPECT_EQ(ThreadCount(), threads + 1);
    EXPECT_TRUE(Eventually([] { return ServerThreads() == 1; })) << "no thread has the server's name";
}

TEST_F(PipeServerTest, AttributeIsThatOfTheDefaultsBeforeTheFirstInit) {
    const TarvoServerAttr before = server->GetServerAttr();
    EXPECT_EQ(before.gid, 0xFFFFFFFFU);
    EXPECT_EQ(before.priority, TARVO_PRIORITY_NORMAL);
    EXPECT_EQ(before.selfName, nullptr);
    EXPECT_EQ(server->GetFifoNameForDFX(), "");
    ASSERT_EQ(Start(), 0);
    const TarvoServerAttr after = server->GetServerAttr();
    EXPECT_EQ(after.gid, getgid());
    EXPECT_EQ(after.selfName, name.c_str());
    EXPECT_EQ(after.openCallback, attr.openCallback);
}

TEST_F(PipeServerTest, SecondInitIsRefusedAndChangesNothing) {
    ASSERT_EQ(Start(), 0);
    struct stat before {};
    ASSERT_EQ(lstat(path.c_str(), &before), 0);
    const std::string otherName = UniqueName("other");
    TarvoServerAttr other;
    other.selfName = otherName.c_str();
    EXPECT_EQ(server->Init(other), -EEXIST);
    EXPECT_EQ(server->GetServerAttr().selfName, name.c_str());
    EXPECT_EQ(server->GetFifoNameForDFX(), path);
    struct stat after {};
    ASSERT_EQ(lstat(path.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(ServeClient("client").selfName, name);
}

TEST_F(PipeServerTest, ServerWithoutANameServesUnderTheProcessName) {
    const std::string processName = UniqueName("proc");
    {
        const MutexLock lock(EnvManager::Instance());
        ASSERT_EQ(EnvManager::SetProcName(processName), 0);
    }
    attr.selfName = nullptr;
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(server->GetFifoNameForDFX(), FifoDirectory() + processName);
    server->Close();
    server->ExceptionHandler();
    EXPECT_NE(access((FifoDirectory() + processName).c_str(), F_OK), 0);
}

TEST_F(PipeServerTest, CloseEndsAThreadThatNoClientEverReached) {
    ASSERT_EQ(Start(), 0);
    std::string written;
    {
        const ScopedHook hook(Call::Write, [&](const CallInfo &call) {
            written.append(static_cast<const char *>(call.data), call.size);
        });
        server->Close();
    }
    EXPECT_EQ(written, RawTerminatePacket());
    EXPECT_TRUE(NoServerThreads());
    EXPECT_TRUE(FileExists()) << "only ExceptionHandler removes it";
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerTest, CloseGivesTheLockBack) {
    ASSERT_EQ(Start(), 0);
    const CallCounter unlocks(Call::Flock, Where().Number(LOCK_UN | LOCK_NB));
    server->Close();
    EXPECT_EQ(unlocks.Count(), 1U);
}

TEST_F(PipeServerTest, CloseOfAStoppedServerDoesNothing) {
    const CallCounter closes(Call::Close);
    const CallCounter writes(Call::Write);
    server->Close();
    EXPECT_EQ(closes.Count() + writes.Count(), 0U);
    ASSERT_EQ(Start(), 0);
    server->Close();
    const unsigned before = closes.Count();
    server->Close();
    EXPECT_EQ(closes.Count(), before);
    EXPECT_EQ(writes.Count(), 1U);
}

TEST_F(PipeServerTest, CloseServesTheClientsThatHaveAnnouncedThemselves) {
    ASSERT_EQ(Start(), 0);
    Write(Connect("first") + Connect("second") + Connect("third"));
    server->Close();
    EXPECT_EQ(opens.TargetNames(3), (std::vector<std::string>{"first", "second", "third"}));
}

TEST_F(PipeServerTest, ClosedServerStartsAgainAsOften) {
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(Start(), 0);
        const std::string client = "client" + std::to_string(i);
        EXPECT_EQ(ServeClient(client).targetName, client);
        server->Close();
    }
    EXPECT_EQ(opens.Count(), 20U);
}

TEST_F(PipeServerTest, TerminatePacketOfAnyProcessEndsTheThread) {
    ASSERT_EQ(Start(), 0);
    const std::size_t descriptors = OpenDescriptors().size();
    Write(Connect("before") + RawTerminatePacket() + Connect("after"));
    ASSERT_TRUE(NoServerThreads());
    EXPECT_EQ(opens.TargetNames(1), std::vector<std::string>{"before"});
    EXPECT_EQ(OpenDescriptors().size(), descriptors) << "the next Init or the destructor closes them";
    server->Close();
    EXPECT_EQ(OpenDescriptors().size(), descriptors);
}

TEST_F(PipeServerTest, ServerWhoseThreadEndedByItselfStartsAgainWithoutALeak) {
    ASSERT_EQ(Start(), 0);
    const std::size_t descriptors = OpenDescriptors().size();
    for (int i = 0; i < 20; ++i) {
        Write(RawTerminatePacket());
        ASSERT_TRUE(Eventually([this] { return Start() == 0; }));
        EXPECT_EQ(OpenDescriptors().size(), descriptors);
        const std::string client = "client" + std::to_string(i);
        ServeClient(client);
    }
}

TEST_F(PipeServerTest, ServerWhoseThreadEndedByItselfIsDestroyedWithoutALeak) {
    const ScopedLeakCheck leaks;
    ASSERT_EQ(Start(), 0);
    Write(RawTerminatePacket());
    ASSERT_TRUE(NoServerThreads());
    server.reset();
    unlink(path.c_str());
}

TEST_F(PipeServerTest, DestructorClosesARunningServer) {
    const ScopedLeakCheck leaks;
    ASSERT_EQ(Start(), 0);
    server.reset();
    unlink(path.c_str());
    EXPECT_TRUE(NoServerThreads());
}

TEST_F(PipeServerTest, ExceptionHandlerRemovesTheFileAndNothingElse) {
    ASSERT_EQ(Start(), 0);
    const std::size_t descriptors = OpenDescriptors().size();
    server->ExceptionHandler();
    EXPECT_FALSE(FileExists());
    EXPECT_EQ(OpenDescriptors().size(), descriptors);
    EXPECT_EQ(Start(), -EEXIST);
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerTest, ExceptionHandlerOfAServerThatNeverRanHarmsNothing) {
    server->ExceptionHandler();
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerTest, StaleFileOfADeadServerIsReplaced) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    struct stat before {};
    ASSERT_EQ(lstat(path.c_str(), &before), 0);
    ASSERT_EQ(Start(), 0);
    struct stat after {};
    ASSERT_EQ(lstat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode & 07777U, 0660U);
    ServeClient("client");
}

TEST_F(PipeServerTest, ThreadHasThePriorityOfTheAttribute) {
    for (const TarvoPriority priority : {TARVO_PRIORITY_NORMAL, TARVO_PRIORITY_URGENT, TARVO_PRIORITY_NORMAL}) {
        attr.priority = priority;
        ASSERT_EQ(Start(), 0);
        const std::string client = "client" + std::to_string(priority);
        const bool refused = log.Contains(LOG_ERR, "Pthread_setschedparam failed");
        const pid_t thread = ServeClient(client).thread;
        const bool urgent = priority == TARVO_PRIORITY_URGENT && !refused;
        EXPECT_EQ(sched_getscheduler(thread), urgent ? SCHED_FIFO : SCHED_OTHER);
        server->Close();
        opens.Forget();
    }
}

} // namespace
} // namespace tarvo_test
