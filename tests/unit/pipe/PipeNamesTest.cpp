// What a pipe knows before it is opened: its names, its key and its kind of monitor.
#include <gtest/gtest.h>

#include "PipeEnvironment.h"
#include "PipeFixture.h"
#include "api/EnvManager.h"

namespace tarvo_test {
namespace {

constexpr char DIRECTORY[] = "/dev/shm/velm/tarvo/";

class PipeNamesTest : public PipeTest {
protected:
    // A name that makes the path of a pipe from `first` to it that long.
    static std::string NameForPath(const std::string &first, std::size_t length) {
        const std::size_t rest = length - std::string(DIRECTORY).size() - first.size() - std::string("__to__").size();
        return NameTag() + std::string(rest - NameTag().size(), 'x');
    }
};

TEST_F(PipeNamesTest, FilesAreNamedAfterBothSides) {
    TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
    attr.selfName = "a";
    attr.targetName = "b";
    const Pipe pipe = MakePipe(attr);
    EXPECT_EQ(pipe->AssembleFifoName("a", "b", TARVO_DOMAIN_LOCAL), "/dev/shm/velm/tarvo/a__to__b");
    EXPECT_EQ(pipe->AssembleFifoName("b", "a", TARVO_DOMAIN_LOCAL), "/dev/shm/velm/tarvo/b__to__a");
    EXPECT_EQ(pipe->GetTableKey(), "ab");
    EXPECT_EQ(pipe->GetMyName(), "a");
}

TEST_F(PipeNamesTest, ProcessNameStandsInForAMissingOwnName) {
    TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
    attr.selfName = nullptr;
    const Pipe pipe = MakePipe(attr);
    EXPECT_EQ(pipe->GetMyName(), EnvManager::ProcName());
    EXPECT_EQ(pipe->GetTableKey(), EnvManager::ProcName() + remote);
}

TEST_F(PipeNamesTest, NewPipeHasNoHandleAndTouchesNothing) {
    const CallCounter opens(Call::Open);
    const CallCounter creations(Call::Mkfifo);
    const TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    const auto pipe = std::make_shared<TarvoPipeImpl>(attr, observer);
    EXPECT_EQ(pipe->GetPipeFd(), -1);
    pipe->SetFd(17);
    EXPECT_EQ(pipe->GetPipeFd(), 17);
    EXPECT_EQ(opens.Count() + creations.Count(), 0U);
    EXPECT_TRUE(observer.Calls().empty());
}

TEST_F(PipeNamesTest, AttributeMayGoOnceThePipeIsMade) {
    std::string selfCopy = self;
    std::string remoteCopy = remote;
    TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    attr.selfName = selfCopy.c_str();
    attr.targetName = remoteCopy.c_str();
    const Pipe pipe = MakePipe(attr);
    selfCopy.assign(selfCopy.size(), '?');
    remoteCopy.assign(remoteCopy.size(), '?');
    EXPECT_EQ(pipe->GetTableKey(), self + remote);
    EXPECT_EQ(pipe->TimedOpen(0), 0);
}

TEST_F(PipeNamesTest, PathOf254CharactersIsUsed) {
    const std::string longName = NameForPath(self, 254);
    TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    attr.targetName = longName.c_str();
    const Pipe pipe = MakePipe(attr);
    const std::string path = pipe->AssembleFifoName(self, longName, TARVO_DOMAIN_LOCAL);
    EXPECT_EQ(path.size(), 254U);
    EXPECT_EQ(path, FifoPath(self, longName));
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    RawPeer longPeer(longName, self);
    longPeer.OpenBoth();
    ASSERT_TRUE(observer.RunTask());
    EXPECT_EQ(SendText(pipe, "far"), 0);
    EXPECT_EQ(longPeer.Receive().payload, "far");
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeNamesTest, PathOf255CharactersIsRefused) {
    const std::string longName = NameForPath(self, 255);
    TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    attr.targetName = longName.c_str();
    const Pipe pipe = MakePipe(attr);
    log.Clear();
    EXPECT_EQ(pipe->AssembleFifoName(self, longName, TARVO_DOMAIN_LOCAL), "");
    // The line with the path does not fit into the log's 255 characters and becomes its stand-in.
    ASSERT_EQ(log.Lines().size(), 1U);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "F"));
    EXPECT_EQ(log.Lines()[0].file, "TarvoPipeImpl");

    EXPECT_EQ(pipe->TimedOpen(0), -EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "set go name fail"));
    EXPECT_EQ(pipe->OpenReadFd(), -EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "set read name fail"));
    ASSERT_EQ(observer.Count(Report::OpenFailed), 1U);
    EXPECT_EQ(observer.Calls()[0].fd, HANDLE);
}

TEST_F(PipeNamesTest, PathsThatCouldNotBeFormedAreFormedAgainByTheOpen) {
    const std::string longName = NameForPath(self, 254);
    TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    attr.targetName = longName.c_str();
    Pipe pipe;
    {
        // Below the directory of the second domain they are too long.
        const ScopedDomain domain(TARVO_DOMAIN_ORLA);
        pipe = MakePipe(attr);
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "F"), 2U);
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_EQ(OpenDescriptors().at(ReadFd()), FifoPath(longName, self));
    RawPeer longPeer(longName, self);
    longPeer.OpenBoth();
    EXPECT_EQ(SendText(pipe, "far"), 0);
    EXPECT_EQ(longPeer.Receive().payload, "far");
}

TEST_F(PipeNamesTest, WithoutADirectoryThereAreNoPaths) {
    const NoFifoDirectory none;
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
    EXPECT_EQ(Troubles(), (std::vector<std::string>{"FIFO_PREFIX is NULL", "FIFO_PREFIX is NULL"}));
    EXPECT_EQ(log.Count(LOG_ERR, "FIFO_PREFIX is NULL"), 2U);
    EXPECT_EQ(pipe->AssembleFifoName("a", "b", TARVO_DOMAIN_LOCAL), "");
    EXPECT_EQ(pipe->TimedOpen(0), -EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "set go name fail"));
}

TEST_F(PipeNamesTest, EmptyOwnNameFailsTheOpen) {
    TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    attr.selfName = "";
    const Pipe pipe = MakePipe(attr);
    EXPECT_EQ(pipe->TimedOpen(100), -EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "env variables error, myName = "));
    EXPECT_EQ(observer.Count(Report::OpenFailed), 1U);
}

TEST_F(PipeNamesTest, LocalPipesHaveTheMonitorOfTheirPriority) {
    const Pipe any = MakePipe(Attr(TARVO_MODE_CLIENT));
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_NONE, TARVO_DOMAIN_LOCAL), 0);
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_NORMAL, TARVO_DOMAIN_LOCAL), 1);
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_URGENT, TARVO_DOMAIN_LOCAL), 2);
    EXPECT_EQ(any->InitDataMonitorType(static_cast<TarvoPriority>(3), TARVO_DOMAIN_LOCAL), 1);
    EXPECT_EQ(any->InitDataMonitorType(static_cast<TarvoPriority>(-1), TARVO_DOMAIN_LOCAL), 1);
    for (const TarvoPriority priority : {TARVO_PRIORITY_NONE, TARVO_PRIORITY_NORMAL, TARVO_PRIORITY_URGENT}) {
        TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
        attr.priority = priority;
        EXPECT_EQ(MakePipe(attr)->GetPipeDataMonitorType(), static_cast<int>(priority));
    }
}

TEST_F(PipeNamesTest, CrossDomainPipesOfTheSecondDomainHaveMonitorsOfTheirOwn) {
    const ScopedDomain domain(TARVO_DOMAIN_ORLA);
    const Pipe any = MakePipe(Attr(TARVO_MODE_CLIENT));
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_NONE, TARVO_DOMAIN_DP), 3);
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_NORMAL, TARVO_DOMAIN_DP), 4);
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_URGENT, TARVO_DOMAIN_DP), 5);
    EXPECT_EQ(any->InitDataMonitorType(static_cast<TarvoPriority>(9), TARVO_DOMAIN_DP), 4);
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_URGENT, TARVO_DOMAIN_LOCAL), 2);
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_URGENT, TARVO_DOMAIN_ORLA), 2);
    TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
    attr.domain = TARVO_DOMAIN_DP;
    attr.priority = TARVO_PRIORITY_URGENT;
    EXPECT_EQ(MakePipe(attr)->GetPipeDataMonitorType(), 5);
}

TEST_F(PipeNamesTest, CrossDomainPipesOfTheFirstDomainHaveTheLocalMonitors) {
    const ScopedDomain domain(TARVO_DOMAIN_DP);
    const Pipe any = MakePipe(Attr(TARVO_MODE_CLIENT));
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_NONE, TARVO_DOMAIN_ORLA), 0);
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_NORMAL, TARVO_DOMAIN_ORLA), 1);
    EXPECT_EQ(any->InitDataMonitorType(TARVO_PRIORITY_URGENT, TARVO_DOMAIN_ORLA), 2);
}

TEST_F(PipeNamesTest, SecondDomainHasItsFilesBelowADirectoryOfItsOwn) {
    const ScopedDomain domain(TARVO_DOMAIN_ORLA);
    const Pipe any = MakePipe(Attr(TARVO_MODE_CLIENT));
    EXPECT_EQ(any->AssembleFifoName("a", "b", TARVO_DOMAIN_LOCAL), "/local/dev/shm/velm/tarvo/a__to__b");
    EXPECT_EQ(any->AssembleFifoName("a", "b", TARVO_DOMAIN_ORLA), "/local/dev/shm/velm/tarvo/a__to__b");
    EXPECT_EQ(any->AssembleFifoName("a", "b", TARVO_DOMAIN_DP), "/dev/shm/velm/tarvo/a__to__b");
}

} // namespace
} // namespace tarvo_test
