// Links that open, in each way, with every remote that comes late, never, or wrong.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "loop/LoopFixture.h"
#include "support/Faults.h"
#include "support/Process.h"
#include "support/SyslogCapture.h"

namespace tarvo_test {
namespace {

bool Exists(const std::string &file) { return access(file.c_str(), F_OK) == 0; }

// A server's file, read by the test.
class HandServer {
public:
    explicit HandServer(const std::string &name) : file(FifoDirectory() + name) {
        EXPECT_EQ(mkfifo(file.c_str(), 0660), 0);
        fd = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    ~HandServer() {
        close(fd);
        unlink(file.c_str());
    }
    HandServer(const HandServer &) = delete;
    HandServer &operator=(const HandServer &) = delete;

    // What clients have written so far.
    std::string Take() const {
        char bytes[4096];
        const ssize_t count = read(fd, bytes, sizeof(bytes));
        return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : "";
    }

private:
    const std::string file;
    int fd = -1;
};

class OpeningTest : public LoopTest {
protected:
    // What an open comes to, whether at once or later. It must come once.
    int OpenResult(TarvoLinkOptions options) {
        Probe probe(loop);
        const int refused = probe.OpenWith(options);
        if (refused != 0) {
            EXPECT_EQ(probe.events, Strings());
            EXPECT_EQ(probe.link, nullptr);
            return refused;
        }
        EXPECT_EQ(probe.events, Strings()) << "nothing is called inside the open";
        EXPECT_TRUE(probe.AwaitCount(1));
        EXPECT_EQ(TarvoLinkSend(probe.link, {"x", 1}), probe.Has("opened 0") ? 0 : -ENOTCONN);
        loop.RunWhileReadable();
        EXPECT_EQ(probe.events.size(), 1U);
        return probe.events.empty() ? 1 : std::atoi(probe.events[0].substr(7).c_str());
    }

    TarvoLinkOptions Options(TarvoLinkKind kind, int timeoutMs = OPEN_LIMIT_MS) const {
        TarvoLinkOptions options = Probe::Options(remote, self);
        options.kind = kind;
        options.timeoutMs = timeoutMs;
        return options;
    }

    const std::string ownExtended = self + "_" + std::to_string(getpid());
};

TEST_F(OpeningTest, SideThatCreatesTheFilesIsOpenOnceTheRemoteReads) {
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_SERVER, remote, self), 0);
    EXPECT_EQ(link.Send("early"), -ENOTCONN);
    EXPECT_EQ(link.Call("early", "early"), -ENOTCONN);
    loop.RunWhileReadable();
    EXPECT_TRUE(Exists(peer.ReadFile()));
    EXPECT_TRUE(Exists(peer.WriteFile()));
    EXPECT_EQ(link.events, Strings());
    loop.RunBeside([&] { peer.OpenBoth(); });
    EXPECT_TRUE(link.Await("opened 0"));
    EXPECT_EQ(link.Send("hello"), 0);
    EXPECT_EQ(peer.Receive().payload, "hello");
    EXPECT_STREQ(TarvoLinkPeer(link.link), remote.c_str());
    EXPECT_EQ(link.Close(), 0);
    EXPECT_FALSE(Exists(peer.ReadFile()));
    EXPECT_FALSE(Exists(peer.WriteFile()));
}

TEST_F(OpeningTest, SideThatJoinsWaitsForTheFiles) {
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self), 0);
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings());
    loop.RunBeside([&] {
        peer.CreateFiles();
        peer.OpenWrite();
    });
    EXPECT_TRUE(link.Await("opened 0"));
    EXPECT_EQ(link.Send("hello"), 0);
    EXPECT_EQ(peer.Receive().payload, "hello");
    EXPECT_EQ(link.Close(), 0);
    EXPECT_TRUE(Exists(peer.ReadFile())) << "they are the remote's to remove";
}

TEST_F(OpeningTest, LinkToAServerAnnouncesItselfOnceAndThenWaitsForItsFiles) {
    const HandServer server(remote);
    ASSERT_EQ(link.Open(TARVO_LINK_TO_SERVER, remote, self), 0);
    std::string packet = server.Take();
    ASSERT_TRUE(packet.empty() || packet == RawConnectPacket(ownExtended, getgid(), getpid()));
    loop.RunWhileReadable();
    packet += server.Take();
    EXPECT_EQ(packet, RawConnectPacket(ownExtended, getgid(), getpid()));
    RawPeer served(remote, ownExtended);
    loop.RunBeside([&] {
        served.CreateFiles();
        served.OpenWrite();
    });
    EXPECT_TRUE(link.Await("opened 0"));
    EXPECT_EQ(link.Send("hello"), 0);
    EXPECT_EQ(served.Receive().payload, "hello");
    EXPECT_EQ(server.Take(), "");
    EXPECT_STREQ(TarvoLinkPeer(link.link), remote.c_str());
}

TEST_F(OpeningTest, FilesOfAnEarlierLinkAreWaitedOutBeforeTheAnnouncement) {
    const HandServer server(remote);
    RawPeer served(remote, ownExtended);
    served.CreateFiles(); // as a server that has not yet removed them
    ASSERT_EQ(link.Open(TARVO_LINK_TO_SERVER, remote, self), 0);
    loop.RunWhileReadable();
    EXPECT_EQ(server.Take(), "");
    served.CloseRead();
    unlink(served.ReadFile().c_str());
    unlink(served.WriteFile().c_str());
    std::string packet;
    EXPECT_TRUE(loop.RunUntil([&] { return !(packet += server.Take()).empty(); }));
    EXPECT_EQ(packet, RawConnectPacket(ownExtended, getgid(), getpid()));
    loop.RunBeside([&] {
        served.CreateFiles();
        served.OpenWrite();
    });
    EXPECT_TRUE(link.Await("opened 0"));
}

TEST_F(OpeningTest, FilesThatNobodyRemovesHoldTheOpenUpForAMomentOnly) {
    const HandServer server(remote);
    RawPeer served(remote, ownExtended);
    served.CreateFiles();
    ASSERT_EQ(link.Open(TARVO_LINK_TO_SERVER, remote, self), 0);
    EXPECT_TRUE(link.Await("opened 0"));
    EXPECT_EQ(server.Take(), RawConnectPacket(ownExtended, getgid(), getpid()));
}

TEST_F(OpeningTest, WithoutAServerThereIsNothingToWaitFor) {
    EXPECT_EQ(OpenResult(Options(TARVO_LINK_TO_SERVER)), -ENXIO);
    ASSERT_EQ(mkfifo((FifoDirectory() + remote).c_str(), 0660), 0);
    EXPECT_EQ(OpenResult(Options(TARVO_LINK_TO_SERVER)), -ENXIO) << "the file of a server that is dead";
    unlink((FifoDirectory() + remote).c_str());
}

TEST_F(OpeningTest, RemoteThatNeverComesIsATimeOutAndLeavesNoFile) {
    const HandServer server(remote);
    for (const TarvoLinkKind kind : {TARVO_LINK_TO_SERVER, TARVO_LINK_ARRANGED_CLIENT, TARVO_LINK_ARRANGED_SERVER}) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(OpenResult(Options(kind, 40)), -ETIMEDOUT) << kind;
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(40));
        EXPECT_EQ(OwnFifoFiles(), Strings{remote}) << kind;
        EXPECT_EQ(OpenResult(Options(kind, 0)), -ETIMEDOUT) << kind;
    }
}

TEST_F(OpeningTest, OneDeadlineCoversEveryStep) {
    // The first file comes, and nobody ever reads it.
    ASSERT_EQ(mkfifo(FifoPath(self, remote).c_str(), 0660), 0);
    ASSERT_EQ(mkfifo(FifoPath(remote, self).c_str(), 0660), 0);
    EXPECT_EQ(OpenResult(Options(TARVO_LINK_ARRANGED_CLIENT, 40)), -ETIMEDOUT);
    EXPECT_EQ(OwnFifoFiles().size(), 2U) << "they are not the link's";
    RemoveOwnFifoFiles();
}

TEST_F(OpeningTest, OpenWithoutAnyTimeEndsInTheNextRoundUnlessEverythingIsThere) {
    const HandServer server(remote);
    for (const TarvoLinkKind kind : {TARVO_LINK_TO_SERVER, TARVO_LINK_ARRANGED_CLIENT, TARVO_LINK_ARRANGED_SERVER}) {
        EXPECT_EQ(OpenResult(Options(kind, 0)), -ETIMEDOUT) << kind;
    }
    EXPECT_EQ(OwnFifoFiles(), Strings{remote});
    peer.CreateFiles();
    EXPECT_EQ(OpenResult(Options(TARVO_LINK_ARRANGED_CLIENT, 0)), 0);
}

TEST_F(OpeningTest, LinkThatIsOpenDoesNotTimeOutWhileItWaitsForItsTurnToBeTold) {
    OpenLink(TARVO_LINK_ARRANGED_CLIENT);
    peer.Send(RawRequest(1, "first") + RawRequest(2, "second") + RawRequest(3, "third"));
    EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 1), 1);
    const std::string far = remote + "o";
    RawPeer other(far, self);
    other.CreateFiles();
    Probe probe(loop);
    TarvoLinkOptions options = Options(TARVO_LINK_ARRANGED_CLIENT, 1);
    options.target = far.c_str();
    ASSERT_EQ(probe.OpenWith(options), 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(3);
    while (std::chrono::steady_clock::now() < deadline) {
    }
    EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 1), 1) << "the other link's";
    EXPECT_EQ(probe.events, Strings());
    ASSERT_TRUE(probe.AwaitCount(1));
    EXPECT_EQ(probe.events, Strings{"opened 0"});
}

TEST_F(OpeningTest, FailedLinkIsOfNoUseAndMustBeClosed) {
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self, 0), 0);
    EXPECT_TRUE(link.Await("opened " + std::to_string(-ETIMEDOUT)));
    char room[8];
    uint32_t size = sizeof(room);
    EXPECT_EQ(link.Send("x"), -ENOTCONN);
    EXPECT_EQ(link.Call("x", "x"), -ENOTCONN);
    EXPECT_EQ(TarvoLinkCallSync(link.link, {"x", 1}, 10, room, &size), -ENOTCONN);
    EXPECT_EQ(link.Reply(1, "x"), -ENOTCONN);
    EXPECT_EQ(TarvoLinkFlush(link.link), 0) << "there is nothing to send";
    EXPECT_EQ(link.Close(), 0);
    loop.RunWhileReadable();
    EXPECT_EQ(link.events.size(), 1U);
}

TEST_F(OpeningTest, LinkClosedWhileItOpensCallsNobodyBackAndTakesItsFiles) {
    const HandServer server(remote);
    for (const TarvoLinkKind kind : {TARVO_LINK_TO_SERVER, TARVO_LINK_ARRANGED_CLIENT, TARVO_LINK_ARRANGED_SERVER}) {
        for (const bool dispatched : {false, true}) {
            ASSERT_EQ(link.Open(kind, remote, self), 0);
            if (dispatched) {
                loop.RunWhileReadable();
            }
            EXPECT_EQ(link.Close(), 0);
            EXPECT_EQ(OwnFifoFiles(), Strings{remote});
            loop.RunWhileReadable();
            EXPECT_EQ(link.events, Strings());
        }
    }
}

TEST_F(OpeningTest, LinkMayBeClosedInItsOpened) {
    for (const int timeoutMs : {OPEN_LIMIT_MS, 0}) {
        if (timeoutMs != 0) {
            peer.CreateFiles();
        } else {
            RemoveOwnFifoFiles();
        }
        link.onOpened = [&] { EXPECT_EQ(link.Close(), 0); };
        ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self, timeoutMs), 0);
        EXPECT_TRUE(link.AwaitCount(1));
        loop.RunWhileReadable();
        EXPECT_EQ(link.Take().size(), 1U);
    }
}

TEST_F(OpeningTest, SecondLinkOfTheSameTwoNamesIsRefused) {
    for (const TarvoLinkKind kind : {TARVO_LINK_ARRANGED_CLIENT, TARVO_LINK_ARRANGED_SERVER}) {
        Probe second(loop);
        ASSERT_EQ(link.Open(kind, remote, self), 0);
        EXPECT_EQ(second.Open(kind, remote, self), -EEXIST);
        EXPECT_EQ(second.Open(TARVO_LINK_ARRANGED_CLIENT, self, remote), 0) << "the other end";
        EXPECT_EQ(second.Close(), 0);
        EXPECT_EQ(link.Close(), 0);
        EXPECT_EQ(second.Open(kind, remote, self), 0) << "the name is free again at once";
        EXPECT_EQ(second.Close(), 0);
    }
}

TEST_F(OpeningTest, NamesAndKindsAgainstTheRulesAreRefused) {
    const Strings refused = {
        "", std::string(101, 'x'), "a|b", "a;b", "a>b", "a<b", "a`b", "a&b", "a(b", "a)b", "a$b", "a..b"};
    TestLoop other;
    for (const std::string &name : refused) {
        EXPECT_EQ(OpenResult(Probe::Options(name, self)), -EINVAL) << name;
        EXPECT_EQ(OpenResult(Probe::Options(remote, name)), -EINVAL) << name;
        ServiceProbe service(loop);
        EXPECT_EQ(service.Open(name), -EINVAL) << name;
    }
    TarvoLinkOptions options = Probe::Options(remote, self);
    options.target = nullptr;
    EXPECT_EQ(OpenResult(options), -EINVAL);
    options = Probe::Options(remote, self);
    options.kind = static_cast<TarvoLinkKind>(3);
    EXPECT_EQ(OpenResult(options), -EINVAL);
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(OpeningTest, LongestNamesTalk) {
    const std::string longSelf = self + std::string(100 - self.size(), 's');
    const std::string longRemote = remote + std::string(100 - remote.size(), 'r');
    RawPeer other(longRemote, longSelf);
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_SERVER, longRemote, longSelf), 0);
    loop.RunBeside([&] { other.OpenBoth(); });
    EXPECT_TRUE(link.Await("opened 0"));
    EXPECT_EQ(link.Send("hello"), 0);
    EXPECT_EQ(other.Receive().payload, "hello");
}

TEST_F(OpeningTest, NameOfTheProcessIsTheDefault) {
    ASSERT_EQ(setenv("PROC_NAME", self.c_str(), 1), 0);
    TarvoLinkOptions options = Probe::Options(remote, "");
    options.self = nullptr;
    options.kind = TARVO_LINK_ARRANGED_SERVER;
    ASSERT_EQ(link.OpenWith(options), 0);
    loop.RunBeside([&] { peer.OpenBoth(); });
    EXPECT_TRUE(link.Await("opened 0"));
}

TEST_F(OpeningTest, DirectoryThatIsMissingIsEnoent) {
    const std::string missing = self + "/x";
    for (const TarvoLinkKind kind : {TARVO_LINK_ARRANGED_SERVER}) {
        TarvoLinkOptions options = Probe::Options(remote, missing);
        options.kind = kind;
        EXPECT_EQ(OpenResult(options), -ENOENT);
    }
    ServiceProbe service(loop);
    EXPECT_EQ(service.Open(missing), -ENOENT);
}

TEST_F(OpeningTest, FilesHaveModeAndGroupWhateverTheMask) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may give a file to a group that it is no member of";
    }
    const mode_t before = umask(077);
    TarvoLinkOptions options = Options(TARVO_LINK_ARRANGED_SERVER);
    options.gid = 54321;
    ASSERT_EQ(link.OpenWith(options), 0);
    loop.RunWhileReadable();
    TarvoServiceOptions serviceOptions = ServiceProbe::Options(UniqueName("service"));
    const std::string name = UniqueName("service");
    serviceOptions.name = name.c_str();
    serviceOptions.gid = 54321;
    ServiceProbe service(loop);
    ASSERT_EQ(service.OpenWith(serviceOptions), 0);
    umask(before);
    for (const std::string &file : {peer.ReadFile(), peer.WriteFile(), FifoDirectory() + name}) {
        struct stat state = {};
        ASSERT_EQ(lstat(file.c_str(), &state), 0) << file;
        EXPECT_EQ(state.st_mode, static_cast<mode_t>(S_IFIFO | 0660));
        EXPECT_EQ(state.st_gid, 54321U);
    }
}

TEST_F(OpeningTest, OptionsAreTheCallersAgainOnceTheOpenReturns) {
    {
        std::string target = remote;
        std::string own = self;
        TarvoLinkCallbacks callbacks = Probe::Callbacks();
        TarvoLinkOptions options = Probe::Options(target, own);
        options.kind = TARVO_LINK_ARRANGED_SERVER;
        options.context = &link;
        options.callbacks = &callbacks;
        ASSERT_EQ(TarvoLinkOpen(loop.Get(), &options, &link.link), 0);
        target.assign(target.size(), '!');
        own.assign(own.size(), '!');
        options = {};
        callbacks = {};
    }
    loop.RunBeside([&] { peer.OpenBoth(); });
    EXPECT_TRUE(link.Await("opened 0"));
    EXPECT_STREQ(TarvoLinkPeer(link.link), remote.c_str());
}

TEST_F(OpeningTest, RemoteThatSpeaksBeforeItListensIsHeardOnceItDoes) {
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_SERVER, remote, self), 0);
    peer.OpenWrite();
    peer.Send(RawRequest(1, "early"));
    // It comes to an end: bytes that cannot be delivered yet do not keep the descriptor readable.
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings());
    loop.RunBeside([&] { peer.OpenRead(); });
    EXPECT_TRUE(link.Await("request early"));
    EXPECT_EQ(link.Take(), (Strings{"opened 0", "request early"}));
    ExpectAlive();
}

// ---- Without a watch ----

class UnwatchedTest : public OpeningTest, public testing::WithParamInterface<int> {};

TEST_P(UnwatchedTest, TimerLooksForTheFilesWhenNoWatchCanBeHad) {
    const ScopedFault none(Call::InotifyInit, GetParam(), Where().Always().ThisThread());
    const ScopedFault refused(Call::InotifyAddWatch, GetParam(), Where().Always().ThisThread());
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self), 0);
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings());
    EXPECT_GE(none.Hits() + refused.Hits(), 1U) << "else this tests nothing";
    loop.RunBeside([&] {
        peer.CreateFiles();
        peer.OpenWrite();
    });
    EXPECT_TRUE(link.Await("opened 0"));
    link.events.clear();
    ExpectAlive();
}

INSTANTIATE_TEST_SUITE_P(Limits, UnwatchedTest, testing::Values(EMFILE, ENFILE, ENOMEM, ENOSPC));

TEST_F(OpeningTest, WatchRefusedByTheDirectoryLeavesItToTheTimer) {
    const ScopedFault refused(Call::InotifyAddWatch, ENOSPC, Where().Always().ThisThread());
    const HandServer server(remote);
    ASSERT_EQ(link.Open(TARVO_LINK_TO_SERVER, remote, self), 0);
    loop.RunWhileReadable();
    EXPECT_GE(refused.Hits(), 1U);
    RawPeer served(remote, ownExtended);
    loop.RunBeside([&] {
        served.CreateFiles();
        served.OpenWrite();
    });
    EXPECT_TRUE(link.Await("opened 0"));
}

TEST_F(OpeningTest, LinkThatWaitsForItsFilesIsNotWokenByTheClock) {
    // The directory may wake it: others use it, too.
    const CallCounter timers(Call::TimerfdSettime, Where().ThisThread());
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self, -1), 0);
    loop.RunWhileReadable();
    EXPECT_EQ(timers.Count(), 0U) << "a watch tells when the files come";
    loop.RunBeside([&] { peer.CreateFiles(); });
    EXPECT_TRUE(link.Await("opened 0"));
}

// Ends the watch of this process's only inotify descriptor, as the end of the directory does.
bool EndWatch() {
    for (const auto &[fd, target] : OpenDescriptors()) {
        int watch = 0;
        std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
        for (std::string line; target.find("inotify") != std::string::npos && std::getline(info, line);) {
            if (std::sscanf(line.c_str(), "inotify wd:%d", &watch) == 1) {
                return inotify_rm_watch(fd, watch) == 0;
            }
        }
    }
    return false;
}

TEST_F(OpeningTest, WatchThatEndsLeavesItToTheTimer) {
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self), 0);
    loop.RunWhileReadable();
    ASSERT_TRUE(EndWatch());
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings());
    loop.RunBeside([&] {
        peer.CreateFiles();
        peer.OpenWrite();
    });
    EXPECT_TRUE(link.Await("opened 0"));
    link.events.clear();
    ExpectAlive();
}

// ---- Everything at once ----

TEST_F(OpeningTest, ManyLinksOpenAtTheSameTime) {
    constexpr int LINKS = 50;
    ServiceProbe service(loop);
    const std::string name = UniqueName("service");
    ASSERT_EQ(service.Open(name), 0);
    std::deque<Probe> links;
    for (int i = 0; i < LINKS; ++i) {
        ASSERT_EQ(links.emplace_back(loop).Open(TARVO_LINK_TO_SERVER, name, self + std::to_string(i)), 0);
    }
    for (Probe &one : links) {
        EXPECT_TRUE(one.Await("opened 0"));
    }
    EXPECT_TRUE(service.AwaitClients(LINKS));
    for (Probe &client : service.clients) {
        MakeEcho(client);
    }
    for (Probe &one : links) {
        ASSERT_GT(one.Call("ping", "call"), 0);
    }
    for (Probe &one : links) {
        EXPECT_TRUE(one.Await("done call 0 ping"));
    }
}

} // namespace
} // namespace tarvo_test
