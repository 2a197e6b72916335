// The steps to an open link, and each of their failures.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "LoopKit.h"
#include "support/Faults.h"
#include "support/RawFrame.h"
#include "support/RawPeer.h"

namespace tarvo_test {
namespace {

class OpeningTest : public LoopTest {
protected:
    TarvoLink *Open(TarvoLinkKind kind, int timeoutMs = PATIENCE_MS) {
        return OpenLink(loop, client, name, kind, timeoutMs, self);
    }
    bool Opened() {
        return Wait([this] { return client.opened; });
    }

    const std::string name = UniqueName("far");
    const std::string self = UniqueName("near");
    Recorder client;
};

TEST_F(OpeningTest, WithoutAServerItFailsAtOnceButNotInsideTheCall) {
    TarvoLink *const link = Open(TARVO_LINK_TO_SERVER);
    EXPECT_FALSE(client.opened);
    EXPECT_EQ(TarvoLinkSend(link, Bytes("x")), -ENOTCONN);
    ASSERT_TRUE(Opened());
    EXPECT_EQ(client.result, -ENXIO);
    EXPECT_EQ(TarvoLinkSend(link, Bytes("x")), -ENOTCONN);
    EXPECT_EQ(TarvoLinkClose(link), 0);
}

TEST_F(OpeningTest, AServerFileThatNobodyReadsIsNoServer) {
    ASSERT_EQ(mkfifo((FifoDirectory() + name).c_str(), 0660), 0);
    TarvoLinkClose(nullptr);
    Open(TARVO_LINK_TO_SERVER);
    ASSERT_TRUE(Opened());
    EXPECT_EQ(client.result, -ENXIO);
    unlink((FifoDirectory() + name).c_str());
}

TEST_F(OpeningTest, AServerThatDoesNotAnswerIsGivenUpInTime) {
    ASSERT_EQ(mkfifo((FifoDirectory() + name).c_str(), 0660), 0);
    const int reader = open((FifoDirectory() + name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Open(TARVO_LINK_TO_SERVER, 30);
    ASSERT_TRUE(Opened());
    EXPECT_EQ(client.result, -ETIMEDOUT);
    char packet[200];
    const std::string expected = RawConnectPacket(self + "_" + std::to_string(getpid()), getgid(), getpid());
    ASSERT_EQ(read(reader, packet, sizeof(packet)), static_cast<ssize_t>(expected.size()));
    EXPECT_EQ(std::string(packet, expected.size()), expected);
    close(reader);
    unlink((FifoDirectory() + name).c_str());
}

TEST_F(OpeningTest, ArrangedServerAndClientFindEachOther) {
    Recorder far;
    TarvoLink *const waiting = Open(TARVO_LINK_ARRANGED_CLIENT);
    Drain(loop);
    EXPECT_FALSE(client.opened);
    TarvoLink *const making = OpenLink(loop, far, self, TARVO_LINK_ARRANGED_SERVER, PATIENCE_MS, name);
    ASSERT_TRUE(Wait([&] { return client.opened && far.opened; }));
    EXPECT_EQ(client.result, 0);
    EXPECT_EQ(far.result, 0);
    EXPECT_EQ(OwnFifoFiles().size(), 2U);
    EXPECT_EQ(TarvoLinkSend(waiting, Bytes("hi")), 0);
    EXPECT_EQ(TarvoLinkSend(making, Bytes("ho")), 0);
    ASSERT_TRUE(Wait([&] { return client.requests.size() == 1 && far.requests.size() == 1; }));
    TarvoLinkClose(making);
    EXPECT_TRUE(OwnFifoFiles().empty());
    ASSERT_TRUE(Wait([&] { return client.closed == 1; }));
}

TEST_F(OpeningTest, AnArrangedServerOpensWhenTheRemoteReads) {
    Open(TARVO_LINK_ARRANGED_SERVER);
    RawPeer remote(name, self);
    remote.OpenBoth();
    ASSERT_TRUE(Opened());
    EXPECT_EQ(client.result, 0);
    remote.Send(RawRequest(7, "raw"));
    ASSERT_TRUE(Wait([this] { return client.requests.size() == 1; }));
}

TEST_F(OpeningTest, ANewRemoteTakesThePlaceOfStaleFiles) {
    const std::string stale[2] = {FifoPath(name, self), FifoPath(self, name)};
    for (const std::string &file : stale) {
        ASSERT_EQ(mkfifo(file.c_str(), 0660), 0);
    }
    Open(TARVO_LINK_ARRANGED_CLIENT);
    Drain(loop);
    EXPECT_FALSE(client.opened);
    Recorder far;
    TarvoLink *const making = OpenLink(loop, far, self, TARVO_LINK_ARRANGED_SERVER, PATIENCE_MS, name);
    ASSERT_TRUE(Wait([&] { return client.opened && far.opened; }));
    EXPECT_EQ(client.result, 0);
    TarvoLinkSend(making, Bytes("ho"));
    ASSERT_TRUE(Wait([&] { return client.requests.size() == 1; }));
}

TEST_F(OpeningTest, AFileThatGoesBetweenTheLookAndTheOpenIsWaitedForAgain) {
    // The far side only opens it for writing.
    const auto toRead = [](const CallInfo &info) { return (info.number & O_ACCMODE) == O_RDONLY; };
    const ScopedFault gone(Call::Open, ENOENT, Where().PathHas(FifoPath(name, self)).If(toRead).ThisThread());
    Recorder far;
    OpenLink(loop, far, self, TARVO_LINK_ARRANGED_SERVER, PATIENCE_MS, name);
    Open(TARVO_LINK_ARRANGED_CLIENT);
    ASSERT_TRUE(Wait([&] { return client.opened && far.opened; }));
    EXPECT_EQ(client.result, 0);
    EXPECT_EQ(gone.Hits(), 1U);
}

TEST_F(OpeningTest, WithoutADescriptorForTheFileOfANewRemoteTheOpenFails) {
    const std::string stale[2] = {FifoPath(name, self), FifoPath(self, name)};
    for (const std::string &file : stale) {
        ASSERT_EQ(mkfifo(file.c_str(), 0660), 0);
    }
    Open(TARVO_LINK_ARRANGED_CLIENT);
    Drain(loop);
    ASSERT_FALSE(client.opened);
    {
        Recorder far;
        TarvoLink *const making = OpenLink(loop, far, self, TARVO_LINK_ARRANGED_SERVER, PATIENCE_MS, name);
        const ScopedFault none(Call::Open, EMFILE, Where().PathHas(FifoPath(name, self)).ThisThread());
        ASSERT_TRUE(Wait([&] { return client.opened; }));
        EXPECT_EQ(client.result, -EMFILE);
        EXPECT_EQ(none.Hits(), 1U);
        TarvoLinkClose(making);
    }
    Drain(loop);
}

TEST_F(OpeningTest, TheTimeOfAnArrangedLinkIsKeptAndItsFilesGo) {
    Open(TARVO_LINK_ARRANGED_SERVER, 30);
    EXPECT_EQ(OwnFifoFiles().size(), 2U);
    ASSERT_TRUE(Opened());
    EXPECT_EQ(client.result, -ETIMEDOUT);
    EXPECT_TRUE(OwnFifoFiles().empty());
    Drain(loop);
    EXPECT_EQ(client.events.size(), 1U);
}

TEST_F(OpeningTest, ALinkThatOpensCanBeClosed) {
    TarvoLink *link = Open(TARVO_LINK_ARRANGED_SERVER);
    EXPECT_EQ(TarvoLinkClose(link), 0);
    EXPECT_TRUE(OwnFifoFiles().empty());
    link = Open(TARVO_LINK_ARRANGED_CLIENT);
    EXPECT_EQ(TarvoLinkClose(link), 0);
    Drain(loop);
    EXPECT_TRUE(client.events.empty());
}

TEST_F(OpeningTest, TheSameNamesTwiceAreRefused) {
    TarvoLink *const link = Open(TARVO_LINK_ARRANGED_CLIENT);
    TarvoLink *second = nullptr;
    const TarvoLinkOptions options = OptionsOf(client, name, TARVO_LINK_ARRANGED_CLIENT, 0, self.c_str());
    EXPECT_EQ(TarvoLinkOpen(loop, &options, &second), -EEXIST);
    EXPECT_EQ(second, nullptr);
    TarvoLinkClose(link);
    EXPECT_EQ(TarvoLinkOpen(loop, &options, &second), 0);
}

TEST_F(OpeningTest, WrongOptionsAreRefused) {
    TarvoLink *link = nullptr;
    TarvoLinkOptions good = OptionsOf(client, name, TARVO_LINK_TO_SERVER, 0, self.c_str());
    const auto refuses = [&](const std::function<void(TarvoLinkOptions &)> &spoil) {
        TarvoLinkOptions options = good;
        spoil(options);
        return TarvoLinkOpen(loop, &options, &link) == -EINVAL && link == nullptr;
    };
    EXPECT_EQ(TarvoLinkOpen(nullptr, &good, &link), -EINVAL);
    EXPECT_EQ(TarvoLinkOpen(loop, nullptr, &link), -EINVAL);
    EXPECT_EQ(TarvoLinkOpen(loop, &good, nullptr), -EINVAL);
    EXPECT_TRUE(refuses([](TarvoLinkOptions &options) { options.size = 8; }));
    EXPECT_TRUE(refuses([](TarvoLinkOptions &options) { options.target = nullptr; }));
    EXPECT_TRUE(refuses([](TarvoLinkOptions &options) { options.target = ""; }));
    EXPECT_TRUE(refuses([](TarvoLinkOptions &options) { options.target = "a|b"; }));
    EXPECT_TRUE(refuses([](TarvoLinkOptions &options) { options.self = "a..b"; }));
    EXPECT_TRUE(refuses([](TarvoLinkOptions &options) { options.kind = static_cast<TarvoLinkKind>(3); }));
    const std::string longName(101, 'n');
    EXPECT_TRUE(refuses([&](TarvoLinkOptions &options) { options.target = longName.c_str(); }));
    TarvoLinkCallbacks callbacks{};
    EXPECT_TRUE(refuses([&](TarvoLinkOptions &options) { options.callbacks = &callbacks; }));
    EXPECT_FALSE(IsReadable(loop));
}

TEST_F(OpeningTest, AFileThatIsNoFifoFailsTheOpen) {
    const std::string file = FifoPath(name, self);
    ASSERT_EQ(mkfifo(FifoPath(self, name).c_str(), 0660), 0);
    ASSERT_EQ(symlink("/dev/null", file.c_str()), 0);
    Open(TARVO_LINK_ARRANGED_CLIENT);
    ASSERT_TRUE(Opened());
    EXPECT_EQ(client.result, -EACCES);
    unlink(file.c_str());
    unlink(FifoPath(self, name).c_str());
}

TEST_F(OpeningTest, ARemoteThatDiesBeforeItWritesIsNoticed) {
    Open(TARVO_LINK_ARRANGED_CLIENT);
    RawPeer remote(name, self);
    remote.CreateFiles();
    ASSERT_TRUE(Opened());
    remote.CloseRead();
    ASSERT_TRUE(Wait([this] { return client.closed == 1; }));
}

TEST_F(OpeningTest, ARemoteThatOnlyWritesIsHeard) {
    Open(TARVO_LINK_ARRANGED_CLIENT);
    RawPeer remote(name, self);
    remote.CreateFiles();
    ASSERT_TRUE(Opened());
    remote.OpenWrite();
    remote.CloseRead();
    Drain(loop);
    EXPECT_EQ(client.closed, 0);
    remote.Send(RawRequest(1, "still there"));
    ASSERT_TRUE(Wait([this] { return client.requests.size() == 1; }));
    remote.CloseWrite();
    ASSERT_TRUE(Wait([this] { return client.closed == 1; }));
}

TEST_F(OpeningTest, LeftoversOfAnEarlierLinkAreWaitedForAMomentOnly) {
    Server server(loop, name);
    const std::string own = self + "_" + std::to_string(getpid());
    const std::string stale[2] = {FifoPath(name, own), FifoPath(own, name)};
    for (const std::string &file : stale) {
        ASSERT_EQ(mkfifo(file.c_str(), 0660), 0);
    }
    TarvoLink *const link = Open(TARVO_LINK_TO_SERVER);
    Drain(loop);
    EXPECT_FALSE(client.opened);
    ASSERT_TRUE(Opened());
    EXPECT_EQ(client.result, 0);
    TarvoLinkSend(link, Bytes("x"));
    ASSERT_TRUE(Wait([&] { return server.links.requests.size() == 1; }));
}

TEST_F(OpeningTest, FlushAndHoldMeanNothingWhileItOpens) {
    TarvoLink *const link = Open(TARVO_LINK_ARRANGED_CLIENT);
    EXPECT_EQ(TarvoLinkHold(link), 0);
    EXPECT_EQ(TarvoLinkFlush(link), 0);
    uint32_t size = 0;
    EXPECT_EQ(TarvoLinkReply(link, 1, Bytes("x")), -ENOTCONN);
    EXPECT_EQ(TarvoLinkCancel(link, 1), -ENOENT);
    EXPECT_EQ(TarvoLinkCallSync(link, Bytes("x"), 0, nullptr, &size), -ETIMEDOUT);
}

} // namespace
} // namespace tarvo_test
