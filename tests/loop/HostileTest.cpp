// Something else than a FIFO of ours stands under a name that the loop uses.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "faults/Outside.h"
#include "loop/LoopFixture.h"

namespace tarvo_test {
namespace {

class HostileTest : public LoopTest, public testing::WithParamInterface<const char *> {
protected:
    void Put(const std::string &path) {
        const std::string what = GetParam();
        if (what == "LinkToAFile") {
            ASSERT_EQ(symlink(outside.File().c_str(), path.c_str()), 0);
        } else if (what == "LinkToAFifo") {
            ASSERT_EQ(symlink(outside.Fifo().c_str(), path.c_str()), 0);
        } else if (what == "LinkToNothing") {
            ASSERT_EQ(symlink(outside.Nothing().c_str(), path.c_str()), 0);
        } else if (what == "HardLink") {
            ASSERT_EQ(::link(outside.File().c_str(), path.c_str()), 0);
        } else {
            close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666));
        }
    }

    // What an open comes to; -1 for one that is still under way at its end.
    int Join(TarvoLinkKind kind) {
        EXPECT_EQ(link.Open(kind, remote, self, 100), 0);
        EXPECT_TRUE(link.AwaitCount(1));
        return std::atoi(link.Take().at(0).substr(7).c_str());
    }

    // In the way of a new file a link to nothing is removed, and the creation fails, as with the other engine.
    bool FailsFirst() const { return GetParam() == std::string("LinkToNothing"); }

    const Outside outside;
    const std::string writeFile = FifoPath(self, remote);
    const std::string readFile = FifoPath(remote, self);
};

INSTANTIATE_TEST_SUITE_P(Things, HostileTest,
                         testing::Values("LinkToAFile", "LinkToAFifo", "LinkToNothing", "HardLink", "File"),
                         [](const testing::TestParamInfo<const char *> &thing) { return thing.param; });

TEST_P(HostileTest, GivesWayToTheFilesThatALinkMakes) {
    Put(writeFile);
    Put(readFile);
    for (int i = 0; FailsFirst() && i < 2; ++i) {
        EXPECT_EQ(Join(TARVO_LINK_ARRANGED_SERVER), -EINVAL);
        EXPECT_EQ(link.Close(), 0);
    }
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    ExpectAlive();
    EXPECT_EQ(outside.Touched(), "");
}

TEST_P(HostileTest, IsNeitherReadNorWrittenByALinkThatJoins) {
    for (const bool read : {false, true}) {
        ASSERT_EQ(mkfifo((read ? writeFile : readFile).c_str(), 0660), 0);
        Put(read ? readFile : writeFile);
        EXPECT_LT(Join(TARVO_LINK_ARRANGED_CLIENT), 0);
        EXPECT_EQ(link.Close(), 0);
        EXPECT_EQ(outside.Touched(), "");
        RemoveOwnFifoFiles();
    }
}

TEST_P(HostileTest, IsNoServer) {
    Put(FifoDirectory() + remote);
    EXPECT_EQ(Join(TARVO_LINK_TO_SERVER), -ENXIO);
    EXPECT_EQ(outside.Touched(), "");
    RemoveOwnFifoFiles();
}

TEST_P(HostileTest, GivesWayToTheFileOfAService) {
    Put(FifoDirectory() + self);
    ServiceProbe service(loop);
    ASSERT_EQ(service.Open(self), FailsFirst() ? -EINVAL : 0);
    if (FailsFirst()) {
        ASSERT_EQ(service.Open(self), 0);
    }
    ASSERT_EQ(link.Open(TARVO_LINK_TO_SERVER, self, remote), 0);
    EXPECT_TRUE(link.Await("opened 0"));
    EXPECT_EQ(service.Close(), 0);
    EXPECT_EQ(outside.Touched(), "");
}

TEST_P(HostileTest, IsRemovedAndNotFollowedWhenItHasTakenThePlaceOfAFile) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    unlink(writeFile.c_str());
    Put(writeFile);
    EXPECT_EQ(link.Close(), 0);
    EXPECT_EQ(outside.Touched(), "");
    RemoveOwnFifoFiles();
}

} // namespace
} // namespace tarvo_test
