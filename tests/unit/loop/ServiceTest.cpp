// Serving a name, and the links of its clients.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "LoopKit.h"
#include "support/RawFrame.h"
#include "support/RawPeer.h"

namespace tarvo_test {
namespace {

class ServiceTest : public LoopTest {
protected:
    const std::string name = UniqueName("srv");
    const std::string client = UniqueName("cli");
};

TEST_F(ServiceTest, ItsFileIsThereWhileItServes) {
    const Server server(loop, name);
    ASSERT_EQ(server.result, 0);
    EXPECT_EQ(OwnFifoFiles().size(), 1U);
    EXPECT_EQ(TarvoServiceClose(server.service), 0);
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(TarvoServiceClose(nullptr), 0);
}

TEST_F(ServiceTest, ALivingServerKeepsItsName) {
    const Server first(loop, name);
    const Server second(loop, name);
    EXPECT_EQ(second.result, -EADDRINUSE);
    EXPECT_EQ(second.service, nullptr);
    EXPECT_EQ(OwnFifoFiles().size(), 1U);
}

TEST_F(ServiceTest, ALivingServerIsReplacedWhenThatIsAskedFor) {
    const Server first(loop, name);
    const Server second(loop, name, true);
    EXPECT_EQ(second.result, 0);
    // The file is the second's by now.
    TarvoServiceClose(first.service);
    EXPECT_EQ(OwnFifoFiles().size(), 1U);
    Recorder link;
    OpenLink(loop, link, name, TARVO_LINK_TO_SERVER, PATIENCE_MS, client);
    ASSERT_TRUE(Wait([&] { return link.opened && second.clients.size() == 1; }));
}

TEST_F(ServiceTest, AStaleFileIsTakenOver) {
    ASSERT_EQ(mkfifo((FifoDirectory() + name).c_str(), 0660), 0);
    const Server server(loop, name);
    EXPECT_EQ(server.result, 0);
}

TEST_F(ServiceTest, WrongOptionsAreRefused) {
    TarvoService *service = nullptr;
    TarvoServiceOptions options{};
    options.size = sizeof(options) - 1;
    options.name = name.c_str();
    EXPECT_EQ(TarvoServiceOpen(loop, &options, &service), -EINVAL);
    options.size = sizeof(options);
    options.name = "a;b";
    EXPECT_EQ(TarvoServiceOpen(loop, &options, &service), -EINVAL);
    EXPECT_EQ(TarvoServiceOpen(loop, nullptr, &service), -EINVAL);
    EXPECT_EQ(TarvoServiceOpen(nullptr, &options, &service), -EINVAL);
    EXPECT_EQ(service, nullptr);
    options.name = "no/such/folder";
    EXPECT_EQ(TarvoServiceOpen(loop, &options, &service), -ENOENT);
}

TEST_F(ServiceTest, ARawClientIsServed) {
    Server server(loop, name);
    server.links.onRequest = [](TarvoLink *link, uint32_t number, TarvoBytes payload) {
        TarvoLinkReply(link, number, payload);
    };
    WriteToRawServer(name, RawConnectPacket(client, getgid(), getpid()));
    ASSERT_TRUE(Wait([&] { return OwnFifoFiles().size() == 3; }));
    RawPeer peer(client, name);
    peer.OpenBoth();
    ASSERT_TRUE(Wait([&] { return server.clients.size() == 1; }));
    EXPECT_EQ(server.links.events.back(), "client " + client);
    peer.Send(RawRequest(42, "raw"));
    ASSERT_TRUE(Wait([&] { return peer.HasInput(); }));
    const RawFrame answer = peer.Receive();
    EXPECT_EQ(answer.id, 42U);
    EXPECT_EQ(answer.type, 1U);
    EXPECT_EQ(answer.payload, "raw");
}

TEST_F(ServiceTest, SeveralPacketsAreReadAtOnceAndBadOnesDropped) {
    Server server(loop, name);
    WriteToRawServer(name, "garbage" + RawConnectPacket(client, getgid(), getpid()) +
                               RawConnectPacket("a|b", getgid(), getpid()) +
                               RawConnectPacket(std::string(111, 'x'), getgid(), getpid()) +
                               RawConnectPacket(client + "2", getgid(), getpid()));
    ASSERT_TRUE(Wait([&] { return OwnFifoFiles().size() == 5; }));
}

TEST_F(ServiceTest, AClientThatSaysItAllAndLeavesIsHeard) {
    Server server(loop, name);
    WriteToRawServer(name, RawConnectPacket(client, getgid(), getpid()));
    ASSERT_TRUE(Wait([&] { return OwnFifoFiles().size() == 3; }));
    {
        RawPeer peer(client, name);
        peer.OpenWrite();
        peer.Send(RawRequest(1, "one"));
        peer.Send(RawRequest(2, "two"));
    }
    ASSERT_TRUE(Wait([&] { return server.links.closed == 1; }));
    const std::vector<std::string> expected = {"client " + client, "request one", "request two", "closed"};
    EXPECT_EQ(server.links.events, expected);
    EXPECT_EQ(OwnFifoFiles().size(), 1U);
}

TEST_F(ServiceTest, AClientThatLeavesWhileItOpensIsDropped) {
    Server server(loop, name);
    WriteToRawServer(name, RawConnectPacket(client, getgid(), getpid()));
    ASSERT_TRUE(Wait([&] { return OwnFifoFiles().size() == 3; }));
    {
        RawPeer peer(client, name);
        peer.OpenWrite();
    }
    ASSERT_TRUE(Wait([&] { return OwnFifoFiles().size() == 1; }));
    EXPECT_TRUE(server.links.events.empty());
}

TEST_F(ServiceTest, ATerminatePacketEndsTheServing) {
    Server server(loop, name);
    WriteToRawServer(name, RawTerminatePacket());
    Drain(loop);
    Recorder link;
    OpenLink(loop, link, name, TARVO_LINK_TO_SERVER, PATIENCE_MS, client);
    ASSERT_TRUE(Wait([&] { return link.opened; }));
    EXPECT_EQ(link.result, -ENXIO);
    EXPECT_EQ(TarvoServiceClose(server.service), 0);
    unlink((FifoDirectory() + name).c_str());
}

TEST_F(ServiceTest, OpenLinksOutliveTheirService) {
    Server server(loop, name);
    Recorder link;
    TarvoLink *const near = OpenLink(loop, link, name, TARVO_LINK_TO_SERVER, PATIENCE_MS, client);
    ASSERT_TRUE(Wait([&] { return link.opened && server.clients.size() == 1; }));
    TarvoServiceClose(server.service);
    EXPECT_EQ(TarvoLinkSend(near, Bytes("x")), 0);
    ASSERT_TRUE(Wait([&] { return server.links.requests.size() == 1; }));
}

TEST_F(ServiceTest, ClientsThatAreBeingOpenedAreDropped) {
    Server server(loop, name);
    WriteToRawServer(name, RawConnectPacket(client, getgid(), getpid()));
    ASSERT_TRUE(Wait([&] { return OwnFifoFiles().size() == 3; }));
    TarvoServiceClose(server.service);
    EXPECT_TRUE(OwnFifoFiles().empty());
    Drain(loop);
    EXPECT_TRUE(server.clients.empty());
}

TEST_F(ServiceTest, AServiceMayBeClosedInItsCallback) {
    Server server(loop, name);
    server.onClient = [&](TarvoLink *) { TarvoServiceClose(server.service); };
    Recorder link;
    OpenLink(loop, link, name, TARVO_LINK_TO_SERVER, PATIENCE_MS, client);
    ASSERT_TRUE(Wait([&] { return link.opened && server.clients.size() == 1; }));
    EXPECT_EQ(OwnFifoFiles().size(), 2U);
}

TEST_F(ServiceTest, AClientConnectsAgainAndAgain) {
    Server server(loop, name);
    for (std::size_t i = 1; i <= 20; ++i) {
        Recorder link;
        TarvoLink *const near = OpenLink(loop, link, name, TARVO_LINK_TO_SERVER, PATIENCE_MS, client);
        ASSERT_TRUE(Wait([&] { return link.opened; }));
        ASSERT_EQ(link.result, 0);
        EXPECT_EQ(TarvoLinkSend(near, Bytes("x")), 0);
        TarvoLinkClose(near);
    }
    ASSERT_TRUE(Wait([&] { return server.links.closed == 20; }));
    EXPECT_EQ(server.links.requests.size(), 20U);
}

} // namespace
} // namespace tarvo_test
