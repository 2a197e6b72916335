// Two servers that start under one name at the same moment: neither may end up with one end of the other's FIFO.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "PipeServerFixture.h"
#include "support/Faults.h"
#include "support/RawFrame.h"

namespace tarvo_test {
namespace {

class PipeServerTwinTest : public PipeServerTest {
protected:
    ~PipeServerTwinTest() override {
        for (const int fd : others) {
            close(fd);
        }
    }

    // What another server's start does to the name; its read end may be yet to come.
    void PublishAnothersFile() const {
        unlink(path.c_str());
        ASSERT_EQ(mkfifo(path.c_str(), 0660), 0);
    }

    void StartAnother() {
        PublishAnothersFile();
        others.push_back(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        ASSERT_GE(others.back(), 0);
    }

    // A server that is reached under the name, and whose end nobody else feels.
    void ExpectServerOfItsOwn() {
        ServeClient("client");
        server->Close();
        EXPECT_TRUE(NoServerThreads());
        for (const int fd : others) {
            char byte = 0;
            EXPECT_LE(read(fd, &byte, 1), 0) << "another server was written to";
        }
    }

    ino_t FileNumber() const {
        struct stat state {};
        return lstat(path.c_str(), &state) == 0 ? state.st_ino : 0;
    }

    static Where OpenOf(const std::string &name) { return Where().PathHas(name); }

    std::vector<int> others;
};

TEST_F(PipeServerTwinTest, StartWhoseFileIsReplacedBetweenItsOpensStartsOver) {
    const ScopedHook hook(
        Call::Open, [this](const CallInfo &) { StartAnother(); }, OpenOf(name).Nth(2).Times(1));
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(hook.Hits(), 1U);
    ExpectServerOfItsOwn();
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerTwinTest, StartDoesNotWaitForTheReaderOfAnothersFile) {
    const ScopedHook hook(
        Call::Open, [this](const CallInfo &) { PublishAnothersFile(); }, OpenOf(name).Nth(2).Times(1));
    ASSERT_EQ(Start(), 0);
    ExpectServerOfItsOwn();
}

TEST_F(PipeServerTwinTest, StartWhoseFileIsReplacedAfterItsOpensStartsOver) {
    const ScopedHook hook(
        Call::Fcntl, [this](const CallInfo &) { StartAnother(); }, Where().Number(F_SETFL).Times(1));
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(hook.Hits(), 1U);
    ExpectServerOfItsOwn();
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerTwinTest, StartWhoseFileIsGoneBetweenItsOpensStartsOver) {
    unsigned lookups = 0;
    const ScopedHook hook(
        Call::Realpath,
        [&](const CallInfo &) {
            if (++lookups == 2) {
                unlink(path.c_str());
            }
        },
        Where().PathHas(name).Always());
    ASSERT_EQ(Start(), 0);
    ExpectServerOfItsOwn();
}

TEST_F(PipeServerTwinTest, StartWhoseFileIsReplacedAgainAndAgainFailsLikeALostLock) {
    const std::size_t descriptors = OpenDescriptors().size();
    unsigned opened = 0;
    {
        const CallCounter published(Call::Link, Where().PathHas(name));
        const ScopedHook hook(
            Call::Open,
            [&](const CallInfo &) {
                if (++opened % 2 == 0) {
                    StartAnother();
                }
            },
            OpenOf(name).Always());
        EXPECT_EQ(Start(), -EAGAIN);
        EXPECT_EQ(published.Count(), 4U);
    }
    EXPECT_EQ(OpenDescriptors().size(), descriptors + others.size());
    EXPECT_TRUE(log.Contains(LOG_ERR, "Server " + path + " flock failed: monitorfd="));
    EXPECT_TRUE(log.Contains(LOG_ERR, ", err=-11, errno=11."));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "PrepareFileFd failed: err=-11, errno=11."));
    struct stat other {};
    ASSERT_EQ(fstat(others.back(), &other), 0);
    EXPECT_EQ(FileNumber(), other.st_ino) << "the other server's file stays";
    ASSERT_EQ(Start(), 0);
    ExpectServerOfItsOwn();
}

TEST_F(PipeServerTwinTest, FailedStartDoesNotRemoveAFileThatAnotherHasPublishedSince) {
    ino_t published = 0;
    {
        const ScopedHook hook(
            Call::Realpath,
            [&](const CallInfo &) {
                PublishAnothersFile();
                published = FileNumber();
                return Outcome{0, ENOENT}; // just before that there was none
            },
            Where().PathHas(name).Times(1));
        EXPECT_EQ(Start(), -ENOENT);
    }
    EXPECT_NE(published, 0U);
    EXPECT_EQ(FileNumber(), published);
}

} // namespace
} // namespace tarvo_test
