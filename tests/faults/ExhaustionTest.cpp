// Descriptors, threads or inodes run out, or the directory becomes read-only: every function that opens says so, and
// works as soon as there is enough again.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "faults/ManualPages.h"
#include "faults/OpenScenes.h"
#include "faults/Scenes.h"
#include "support/Mounts.h"
#include "support/Sanitized.h"
#include "support/SyslogCapture.h"
#include "support/Unprivileged.h"

namespace tarvo_test {
namespace {

constexpr uid_t LIMITED_USER = 61201;
constexpr uid_t PIPES_USER = 61202;

// The results of all opening functions.
using Results = std::set<std::string>;

// Runs every function that opens, but the form that finds the process's name in a file. False: it cannot be done here.
bool RunAllWithout(const Resource &resource, Results &results) {
    std::vector<std::string> problems;
    bool done = true;
    for (const Function &function : OpeningFunctions()) {
        if (function.name == "TarvoOpen, short form") {
            continue;
        }
        const Outcomes seen = RunWithout(function, resource);
        done = done && (seen.hit || !seen.problem.empty());
        if (!seen.problem.empty()) {
            problems.push_back(seen.problem);
        } else {
            results.insert(seen.result < 0 ? "-" + NameOfErrno(-seen.result) : "works");
        }
    }
    for (const std::string &problem : problems) {
        ADD_FAILURE() << problem;
    }
    return done;
}

// Uses up the descriptors of the process but `spare` ones.
class Descriptors {
public:
    void TakeAllBut(std::size_t spare) {
        for (int fd = dup(STDERR_FILENO); fd >= 0; fd = dup(STDERR_FILENO)) {
            taken.push_back(fd);
        }
        for (; spare > 0; --spare) {
            close(taken.back());
            taken.pop_back();
        }
    }
    void GiveBack() {
        for (const int fd : taken) {
            close(fd);
        }
        taken.clear();
    }

private:
    std::vector<int> taken;
};

bool LimitDescriptors(rlim_t most) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = most;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

TEST(Exhaustion, MissingDescriptorsAreReportedAndTheNextOpenWorks) {
    for (std::size_t spare = 0; spare <= 4; ++spare) {
        Descriptors descriptors;
        Results results;
        EXPECT_TRUE(RunAllWithout({[] { return LimitDescriptors(300); }, [&] { descriptors.TakeAllBut(spare); },
                                   [&] { descriptors.GiveBack(); }},
                                  results));
        const Results expected = spare == 0 ? Results{"-EMFILE"} : spare == 4 ? Results{"works"} : results;
        EXPECT_EQ(results, expected) << spare;
        for (const std::string &result : results) {
            EXPECT_TRUE(result == "-EMFILE" || result == "works") << result;
        }
    }
}

// Turns the process into one of a user without rights. Its own files in /proc stay open to it.
bool Become(uid_t user) {
    return setgroups(0, nullptr) == 0 && setgid(user) == 0 && setuid(user) == 0 &&
           prctl(PR_SET_DUMPABLE, 1UL, 0UL, 0UL, 0UL) == 0;
}

void AllowThreads(rlim_t most) {
    rlimit limit{};
    getrlimit(RLIMIT_NPROC, &limit);
    limit.rlim_cur = std::min(most, limit.rlim_max);
    EXPECT_EQ(setrlimit(RLIMIT_NPROC, &limit), 0);
}

TEST(Exhaustion, RefusedThreadsAreReportedAndTheNextOpenWorks) {
    TARVO_SKIP_UNLESS_ROOT();
    Results results;
    EXPECT_TRUE(RunAllWithout(
        {[] { return Become(LIMITED_USER); }, [] { AllowThreads(1); }, [] { AllowThreads(RLIM_INFINITY); }}, results));
    EXPECT_EQ(results, Results{"-ENOSPC"});
}

TEST(Exhaustion, RequestForWhichThereIsNoThreadIsDroppedAndTheNextIsServed) {
    TARVO_SKIP_UNLESS_ROOT();
    ChildProcess child([](Channel &) {
        EXPECT_TRUE(Become(LIMITED_USER));
        const SyslogCapture log;
        const std::string self = UniqueName("self");
        const std::string remote = UniqueName("remote");
        Inbox inbox;
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, inbox.Receiver());
        const int fd = TarvoOpen(&attr);
        JoinedRawPeer peer(remote, self);
        AllowThreads(1);
        peer.Send(RawRequest(1, "dropped"));
        EXPECT_TRUE(log.WaitFor(LOG_ERR, "Observer handle request failed"));
        AllowThreads(RLIM_INFINITY);
        peer.Send(RawRequest(2, "served"));
        EXPECT_EQ(inbox.First(), "served");
        EXPECT_EQ(TarvoClosePipe(fd), 0);
        TarvoCfgFinishServer();
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

// The size in bytes of a pipe that is made now.
int SizeOfANewPipe() {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const int size = fcntl(ends[0], F_GETPIPE_SZ);
    close(ends[0]);
    close(ends[1]);
    return size;
}

// A user without rights gets 16,384 pages for pipes, 16 for each; then two for each (pipe(7)).
TEST(Exhaustion, PipesOfTwoPagesCarryWholeFrames) {
    TARVO_SKIP_UNLESS_ROOT();
    ChildProcess child([](Channel &) {
        constexpr int PIPES = 1100;
        constexpr int TWO_PAGES = 8192;
        EXPECT_TRUE(LimitDescriptors(4096));
        EXPECT_TRUE(Become(PIPES_USER));
        std::vector<int> ends(static_cast<std::size_t>(2 * PIPES));
        for (int i = 0; i < PIPES; ++i) {
            EXPECT_EQ(pipe(&ends[static_cast<std::size_t>(2 * i)]), 0);
        }
        EXPECT_LE(SizeOfANewPipe(), TWO_PAGES);
        const std::string self = UniqueName("self");
        const std::string remote = UniqueName("remote");
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, Echo);
        const int fd = TarvoOpen(&attr);
        EXPECT_GT(fd, 0);
        JoinedRawPeer peer(remote, self);
        const std::string longest(4000, 'x');
        for (int round = 0; round < 3; ++round) {
            int sent = 0;
            int ret = 0;
            while ((ret = SendText(fd, longest)) == 0) {
                ++sent;
            }
            EXPECT_EQ(ret, -EAGAIN);
            EXPECT_EQ(sent, 2);
            for (; sent > 0; --sent) {
                EXPECT_EQ(peer.Receive().payload, longest);
            }
            peer.Send(RawRequest(1, longest));
            EXPECT_EQ(peer.Receive().payload, longest);
        }
        TarvoClosePipe(fd);
        TarvoCfgFinishServer();
        for (const int end : ends) {
            close(end);
        }
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

// Gives the process a FIFO directory of its own, on a file system of that many inodes.
bool MountOwnDirectory(unsigned inodes) {
    const std::string options = "mode=1777,nr_inodes=" + std::to_string(inodes);
    return EnterMountNamespace() && mount("tarvo", FifoDirectory().c_str(), "tmpfs", 0, options.c_str()) == 0;
}

void Remount(unsigned long flags, unsigned inodes) {
    const std::string options = "nr_inodes=" + std::to_string(inodes);
    EXPECT_EQ(mount("tarvo", FifoDirectory().c_str(), "tmpfs", MS_REMOUNT | flags, options.c_str()), 0);
}

constexpr unsigned MANY_INODES = 1000;

// Files of the test that stand in the directory before the call take inodes too.
void FillDirectory(unsigned spare) {
    unsigned made = 0;
    while (mkfifo((FifoDirectory() + UniqueName("fill")).c_str(), 0600) == 0) {
        ++made;
    }
    EXPECT_GE(made, spare);
    for (const std::string &file : OwnFifoFiles()) {
        if (spare > 0 && file.find("fill") != std::string::npos) {
            unlink((FifoDirectory() + file).c_str());
            --spare;
        }
    }
}

void EmptyDirectory() {
    for (const std::string &file : OwnFifoFiles()) {
        if (file.find("fill") != std::string::npos) {
            unlink((FifoDirectory() + file).c_str());
        }
    }
}

TEST(Exhaustion, FullDirectoryIsReportedAndTheNextOpenWorks) {
    constexpr unsigned INODES = 20;
    for (unsigned spare = 0; spare <= 4; ++spare) {
        Results results;
        if (!RunAllWithout(
                {[] { return MountOwnDirectory(INODES); }, [spare] { FillDirectory(spare); }, EmptyDirectory},
                results)) {
            GTEST_SKIP() << NO_MOUNTS;
        }
        // A pipe takes two, and a third while its second file is published: a link takes one like a file.
        const Results expected = spare < 3 ? Results{"-ENOSPC", "works"} : Results{"works"};
        EXPECT_EQ(results, expected) << spare;
    }
}

TEST(Exhaustion, ReadOnlyDirectoryIsReportedAndTheNextOpenWorks) {
    Results results;
    if (!RunAllWithout({[] { return MountOwnDirectory(MANY_INODES); }, [] { Remount(MS_RDONLY, MANY_INODES); },
                        [] { Remount(0, MANY_INODES); }},
                       results)) {
        GTEST_SKIP() << NO_MOUNTS;
    }
    // Who only joins a pipe creates nothing; but the server that a client has found cannot make its files.
    EXPECT_EQ(results, (Results{"-EROFS", "-ETIMEDOUT", "works"}));
}

TEST(Exhaustion, CloseInAReadOnlyDirectoryLeavesItsFilesToTheNextOpen) {
    ChildProcess child([](Channel &parent) {
        if (!MountOwnDirectory(MANY_INODES)) {
            return parent.Send("skip") ? 0 : 1;
        }
        parent.Send("run");
        const std::string self = UniqueName("self");
        const std::string remote = UniqueName("remote");
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
        const int fd = TarvoOpen(&attr);
        Remount(MS_RDONLY, MANY_INODES);
        EXPECT_EQ(TarvoClosePipe(fd), 0);
        EXPECT_EQ(OwnFifoFiles().size(), 2U);
        EXPECT_EQ(TarvoOpen(&attr), -EROFS);
        Remount(0, MANY_INODES);
        const int again = TarvoOpen(&attr);
        EXPECT_GT(again, fd);
        EXPECT_EQ(TarvoClosePipe(again), 0);
        EXPECT_TRUE(OwnFifoFiles().empty());
        TarvoCfgFinishServer();
        return 0;
    });
    const bool skipped = child.ToChild().Receive() == "skip";
    EXPECT_EQ(child.Wait(), 0);
    if (skipped) {
        GTEST_SKIP() << NO_MOUNTS;
    }
}

} // namespace
} // namespace tarvo_test
