// Services: names, clients, and the packets of writers who follow no rules.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <future>

#include "loop/LoopFixture.h"
#include "support/Faults.h"
#include "support/Pipes.h"
#include "support/Process.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

using namespace std::string_literals;

bool Exists(const std::string &file) { return access(file.c_str(), F_OK) == 0; }

std::string Field(uint32_t value) { return {reinterpret_cast<const char *>(&value), sizeof(value)}; }

std::string Packet(uint32_t type, uint32_t size, const std::string &name) {
    return Field(RAW_MAGIC) + Field(type) + Field(getgid()) + Field(static_cast<uint32_t>(getpid())) + Field(size) +
           name;
}

std::string Connect(const std::string &name) { return RawConnectPacket(name, getgid(), getpid()); }

class ServingTest : public LeakCheckedTest {
protected:
    void SetUp() override {
        service.onClient = [](Probe &client) { MakeEcho(client); };
    }
    ~ServingTest() override { unlink(file.c_str()); }

    void Start() { ASSERT_EQ(service.Open(name), 0); }
    void Write(const std::string &bytes) const { WriteToRawServer(name, bytes); }

    // A client of that name is told to the service, and answered. `announce`: with its own packet.
    void ExpectServed(const std::string &client, bool announce = true) {
        const std::size_t before = service.names.size();
        if (announce) {
            Write(Connect(client));
        }
        RawPeer peer(client, name);
        loop.RunBeside([&] { peer.OpenBoth(); });
        ASSERT_TRUE(service.AwaitClients(before + 1));
        EXPECT_EQ(service.names.back(), client);
        peer.Send(RawRequest(5, "question"));
        loop.RunBeside([&] { EXPECT_EQ(peer.Receive().payload, "question"); });
        peer.CloseWrite();
        peer.CloseRead();
        EXPECT_TRUE(service.clients.back().Await("closed"));
        loop.RunWhileReadable();
        EXPECT_FALSE(Exists(peer.WriteFile()));
    }

    // The service skips `bytes` and serves the client after them.
    void ExpectSkipped(const std::string &bytes, const std::string &what) {
        SCOPED_TRACE(what);
        Write(bytes);
        loop.RunWhileReadable();
        ExpectServed(UniqueName("good"));
    }

    const std::string name = UniqueName("service");
    const std::string file = FifoDirectory() + name;
    TestLoop loop;
    ServiceProbe service{loop};
};

TEST_F(ServingTest, ClientsAreServedUnderTheirNames) {
    Start();
    ExpectServed(UniqueName("client"));
    ExpectServed(UniqueName("client"));
}

TEST_F(ServingTest, NoRequestComesBeforeTheClientWasTold) {
    Strings order;
    service.onClient = [&](Probe &client) {
        order.push_back("client");
        client.onRequest = [&](uint32_t, const std::string &text) { order.push_back(text); };
    };
    Start();
    const std::string client = UniqueName("hasty");
    Write(Connect(client));
    RawPeer peer(client, name);
    loop.RunBeside([&] {
        peer.OpenWrite();
        peer.Send(RawRequest(1, "hasty"));
        peer.OpenRead();
    });
    EXPECT_TRUE(loop.RunUntil([&] { return order.size() == 2; }));
    EXPECT_EQ(order, (Strings{"client", "hasty"}));
}

TEST_F(ServingTest, SeveralNamesAreServedByOneLoopAndProcess) {
    Start();
    ServiceProbe other(loop);
    const std::string otherName = UniqueName("service");
    ASSERT_EQ(other.Open(otherName), 0);
    Probe first(loop);
    Probe second(loop);
    ASSERT_EQ(first.Open(TARVO_LINK_TO_SERVER, name, "a"), 0);
    ASSERT_EQ(second.Open(TARVO_LINK_TO_SERVER, otherName, "a"), 0);
    EXPECT_TRUE(first.Await("opened 0"));
    EXPECT_TRUE(second.Await("opened 0"));
    EXPECT_TRUE(service.AwaitClients(1));
    EXPECT_TRUE(other.AwaitClients(1));
    EXPECT_EQ(service.names, other.names);
    EXPECT_EQ(service.names, Strings{"a_" + std::to_string(getpid())});
}

TEST_F(ServingTest, NameOfALivingServerIsRefusedUnlessItIsToBeReplaced) {
    Start();
    ServiceProbe second(loop);
    EXPECT_EQ(second.Open(name), -EADDRINUSE);
    TestLoop other;
    ServiceProbe third(other);
    EXPECT_EQ(third.Open(name), -EADDRINUSE);
    ExpectServed(UniqueName("still"));
    EXPECT_EQ(second.Open(name, true), 0);
    second.onClient = [](Probe &client) { MakeEcho(client); };
    Probe client(loop);
    ASSERT_EQ(client.Open(TARVO_LINK_TO_SERVER, name, "c"), 0);
    EXPECT_TRUE(client.Await("opened 0"));
    EXPECT_TRUE(second.AwaitClients(1));
    EXPECT_EQ(service.names.size(), 1U);
    EXPECT_EQ(service.Close(), 0);
    EXPECT_TRUE(Exists(file)) << "it is the second's file now";
    EXPECT_EQ(second.Close(), 0);
    EXPECT_FALSE(Exists(file));
}

TEST_F(ServingTest, FileOfAServerThatIsDeadIsTakenOver) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    Start();
    ExpectServed(UniqueName("client"));
}

TEST_F(ServingTest, ServerOfTheOtherEngineIsALivingOne) {
    ChildProcess server([&](Channel &channel) {
        TarvoServerAttr attr;
        attr.selfName = name.c_str();
        EXPECT_EQ(TarvoCreateServer(&attr), 0);
        channel.Signal();
        EXPECT_TRUE(channel.Await());
        TarvoCfgFinishServer();
        channel.Signal();
        EXPECT_TRUE(channel.Await());
        return 0;
    });
    ASSERT_TRUE(server.Await());
    EXPECT_EQ(service.Open(name), -EADDRINUSE);
    server.Signal();
    ASSERT_TRUE(server.Await());
    EXPECT_EQ(service.Open(name), 0) << "it has finished";
    server.Signal();
    EXPECT_EQ(server.Wait(), 0);
}

TEST_F(ServingTest, CloseRemovesTheFileAndKeepsTheLinksOfItsClients) {
    Start();
    const std::string clientName = UniqueName("client");
    Write(Connect(clientName));
    RawPeer peer(clientName, name);
    loop.RunBeside([&] { peer.OpenBoth(); });
    ASSERT_TRUE(service.AwaitClients(1));
    EXPECT_EQ(service.Close(), 0);
    EXPECT_FALSE(Exists(file));
    peer.Send(RawRequest(1, "still"));
    loop.RunBeside([&] { EXPECT_EQ(peer.Receive().payload, "still"); });
    EXPECT_EQ(service.clients[0].Close(), 0);
    EXPECT_FALSE(Exists(peer.WriteFile()));
    ASSERT_EQ(service.Open(name), 0);
    ExpectServed(UniqueName("client"));
}

TEST_F(ServingTest, CloseDropsTheClientsThatAreBeingOpened) {
    Start();
    const Strings ghosts{UniqueName("ghost"), UniqueName("ghost"), UniqueName("ghost")};
    for (const std::string &ghost : ghosts) {
        Write(Connect(ghost));
    }
    loop.RunWhileReadable();
    for (const std::string &ghost : ghosts) {
        EXPECT_TRUE(Exists(FifoPath(name, ghost)));
    }
    EXPECT_EQ(service.Close(), 0);
    loop.RunWhileReadable();
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_TRUE(service.names.empty());
}

TEST_F(ServingTest, ClientThatNeverOpensItsSideIsGivenUp) {
    Start();
    const std::string ghost = UniqueName("ghost");
    Write(Connect(ghost));
    EXPECT_TRUE(loop.RunUntil([&] { return Exists(FifoPath(name, ghost)); }));
    EXPECT_TRUE(loop.RunUntil([&] { return !Exists(FifoPath(name, ghost)); }));
    EXPECT_TRUE(service.names.empty());
    ExpectServed(UniqueName("client"));
}

TEST_F(ServingTest, ServiceMayBeClosedInItsClientCallback) {
    service.onClient = [&](Probe &client) {
        MakeEcho(client);
        EXPECT_EQ(service.Close(), 0);
    };
    Start();
    Probe one(loop);
    Probe two(loop);
    ASSERT_EQ(one.Open(TARVO_LINK_TO_SERVER, name, "one"), 0);
    ASSERT_EQ(two.Open(TARVO_LINK_TO_SERVER, name, "two", 500), 0);
    EXPECT_TRUE(service.AwaitClients(1));
    EXPECT_FALSE(Exists(file));
    EXPECT_TRUE(one.AwaitCount(1));
    EXPECT_TRUE(two.AwaitCount(1));
    EXPECT_EQ(service.names.size(), 1U);
}

TEST_F(ServingTest, ClientMayBeClosedInTheCallbackThatTellsOfIt) {
    service.onClient = [](Probe &client) { EXPECT_EQ(client.Close(), 0); };
    Start();
    Probe client(loop);
    ASSERT_EQ(client.Open(TARVO_LINK_TO_SERVER, name, "c"), 0);
    EXPECT_TRUE(client.AwaitCount(1));
    EXPECT_TRUE(client.Has("closed") || client.Await("closed") || client.Count("opened -") == 1);
    EXPECT_EQ(service.names.size(), 1U);
    client.Close();
    EXPECT_EQ(OwnFifoFiles(), Strings{name});
}

TEST_F(ServingTest, ClientThatNobodyIsToldOfIsNoCallback) {
    const TarvoServiceOptions options = ServiceProbe::Options(name);
    TarvoService *silent = nullptr;
    ASSERT_EQ(TarvoServiceOpen(loop.Get(), &options, &silent), 0);
    const std::string client = UniqueName("client");
    Write(Connect(client));
    RawPeer peer(client, name);
    std::future<void> opened = InBackground([&] { peer.OpenBoth(); });
    int ran = 0;
    while (opened.wait_for(std::chrono::seconds(0)) != std::future_status::ready || loop.Readable()) {
        if (loop.Readable(10)) {
            ran += TarvoLoopDispatch(loop.Get(), loop.max);
        }
    }
    opened.get();
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(TarvoServiceClose(silent), 0);
}

TEST_F(ServingTest, SameClientConnectsAgainAtOnceAndIsHeard) {
    Start();
    for (int round = 0; round < 100; ++round) {
        Probe client(loop);
        ASSERT_EQ(client.Open(TARVO_LINK_TO_SERVER, name, "again"), 0);
        ASSERT_TRUE(client.Await("opened 0")) << round;
        ASSERT_GT(client.Call("ping", "call", 20000), 0);
        ASSERT_TRUE(client.AwaitCount(2));
        ASSERT_TRUE(client.Has("done call 0 ping")) << round << client.events[1];
        ASSERT_EQ(client.Close(), 0);
    }
    EXPECT_TRUE(loop.RunUntil([&] { return OwnFifoFiles() == Strings{name}; }));
}

// Of the same process, say, with a second library in it: what still uses the first link keeps it.
TEST_F(ServingTest, SameClientThatConnectsOnceMoreHasASecondLinkAndKeepsTheFirst) {
    Start();
    const std::string twice = UniqueName("twice");
    RawPeer first(twice, name);
    Write(Connect(twice));
    loop.RunBeside([&] { first.OpenBoth(); });
    ASSERT_TRUE(service.AwaitClients(1));
    RawPeer second(twice, name);
    Write(Connect(twice));
    loop.RunWhileReadable();
    loop.RunBeside([&] { second.OpenBoth(); });
    ASSERT_TRUE(service.AwaitClients(2));
    for (RawPeer *const peer : {&first, &second}) {
        peer->Send(RawRequest(5, "question"));
        loop.RunBeside([&] { EXPECT_EQ(peer->Receive().payload, "question"); });
    }
    first.CloseWrite();
    first.CloseRead();
    EXPECT_TRUE(service.clients[0].Await("closed"));
    EXPECT_TRUE(Exists(second.WriteFile())) << "the first link's end takes the second's files away";
    second.CloseWrite();
    second.CloseRead();
    EXPECT_TRUE(service.clients[1].Await("closed"));
    loop.RunWhileReadable();
    EXPECT_EQ(OwnFifoFiles(), Strings{name});
}

TEST_F(ServingTest, FileThatAnotherServerHasLockedMeanwhileIsItsOwn) {
    const ScopedFault locked(Call::Flock, EWOULDBLOCK, Where().ThisThread());
    EXPECT_EQ(service.Open(name), -EADDRINUSE);
    EXPECT_EQ(locked.Hits(), 1U);
    EXPECT_TRUE(Exists(file));
}

// ---- Writers who follow no rules ----

TEST_F(ServingTest, PacketsAgainstTheRulesAreSkippedAndTheNextClientIsServed) {
    Start();
    const std::string good = Connect("n");
    std::string unknownType = good;
    unknownType[4] = 2;
    std::string wrongMagic = good;
    wrongMagic[2] = 0;
    ExpectSkipped("garbage", "garbage");
    ExpectSkipped(std::string(3000, '\xD9'), "first bytes of a magic");
    ExpectSkipped(wrongMagic, "wrong magic");
    ExpectSkipped("\xD9\xC8\xB7\x00"s, "magic that breaks off");
    ExpectSkipped(unknownType, "unknown type");
    ExpectSkipped(Packet(0, 0, ""), "empty name");
    ExpectSkipped(Connect(std::string(111, 'n')), "name of 111");
    ExpectSkipped(Connect(std::string(200, 'n')), "name of 200");
    ExpectSkipped(Packet(0, 0xFFFFFFFFU, "n"), "name of the largest number");
    ExpectSkipped(Connect(std::string(110, 'n')), "name too long for a pipe");
    ExpectSkipped(Connect("../../etc/passwd"), "name with a path");
    ExpectSkipped(Connect("a;b"), "name for a shell");
    ExpectSkipped(Connect("\0name"s), "name that begins with a zero byte");
}

TEST_F(ServingTest, MagicWithinTheMismatchIsNotSearchedFor) {
    Start();
    Write("\xD9"s + Connect(UniqueName("lost")));
    ExpectServed(UniqueName("good"));
    EXPECT_EQ(service.names.size(), 1U);
}

TEST_F(ServingTest, NegativeTypeIsAConnectPacket) {
    Start();
    const std::string client = UniqueName("client");
    Write(Packet(0x80000000U, static_cast<uint32_t>(client.size()), client));
    ExpectServed(client, false);
}

TEST_F(ServingTest, NameEndsAtItsFirstZeroByte) {
    Start();
    const std::string client = UniqueName("client");
    Write(Connect(client + "\0cd"s));
    ExpectServed(client, false);
}

TEST_F(ServingTest, SeveralPacketsInOneWriteAreAllServed) {
    Start();
    Strings names;
    std::string bytes;
    for (int i = 0; i < 20; ++i) {
        names.push_back(UniqueName("client"));
        bytes += Connect(names.back());
    }
    Write(bytes);
    std::deque<RawPeer> peers;
    for (const std::string &client : names) {
        peers.emplace_back(client, name);
    }
    loop.RunBeside([&] {
        for (RawPeer &peer : peers) {
            peer.OpenBoth();
        }
    });
    EXPECT_TRUE(service.AwaitClients(20));
    std::sort(names.begin(), names.end());
    std::sort(service.names.begin(), service.names.end());
    EXPECT_EQ(service.names, names);
}

TEST_F(ServingTest, PacketSentInPiecesIsWaitedForFieldByField) {
    Start();
    const std::string client = UniqueName("client");
    const std::string packet = Connect(client);
    std::size_t at = 0;
    for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{1}, std::size_t{4}, std::size_t{4},
                                    std::size_t{4}, std::size_t{4}, client.size()}) {
        Write(packet.substr(at, piece));
        loop.RunWhileReadable();
        at += piece;
    }
    EXPECT_EQ(at, packet.size());
    ExpectServed(client, false);
}

TEST_F(ServingTest, PacketThatBreaksOffInAFieldIsDroppedWithIt) {
    Start();
    const std::string good = Connect("n");
    for (const std::size_t size : {6U, 10U, 15U, 19U}) {
        SCOPED_TRACE(size);
        ExpectSkipped(good.substr(0, size), "broken off");
    }
    ExpectSkipped(Connect("name").substr(0, 22), "broken off in the name");
}

TEST_F(ServingTest, PacketThatBreaksOffAtTheEndOfAFullFifoIsDroppedWithIt) {
    Start();
    constexpr std::size_t CAPACITY = 65536;
    const std::string start = Connect("n").substr(0, 18);
    ExpectSkipped(std::string(CAPACITY - start.size(), '\0') + start, "broken off");
    EXPECT_EQ(service.names.size(), 1U);
}

TEST_F(ServingTest, PacketThatBreaksOffBetweenFieldsTakesWhatFollows) {
    Start();
    const std::string good = Connect("n");
    for (const std::size_t size : {4U, 8U, 12U, 16U, 20U}) {
        SCOPED_TRACE(size);
        Write(good.substr(0, size));
        loop.RunWhileReadable();
        ExpectSkipped(std::string(128, '\0'), "rest");
    }
}

TEST_F(ServingTest, NamesTooLongForAPipeOpenNoLink) {
    Start();
    for (const std::size_t size : {101U, 110U}) {
        Write(Connect(UniqueName("long") + std::string(size, 'n').substr(UniqueName("long").size())));
    }
    loop.RunWhileReadable();
    EXPECT_EQ(OwnFifoFiles(), Strings{name});
    ExpectServed(UniqueName("good"));
}

TEST_F(ServingTest, SamePacketTwiceOpensOneLink) {
    Start();
    const std::string client = UniqueName("client");
    Write(Connect(client) + Connect(client));
    ExpectServed(client, false);
    EXPECT_EQ(service.names.size(), 1U);
}

TEST_F(ServingTest, RestOfAFloodIsServedInManyRounds) {
    Start();
    loop.max = 1;
    for (int i = 0; i < 10; ++i) {
        Write(std::string(4000, 'f'));
    }
    ExpectServed(UniqueName("client"));
}

TEST_F(ServingTest, FileThatAStrangerRemovesIsNotRemovedAgainFromTheNext) {
    Start();
    unlink(file.c_str());
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(service.Close(), 0);
    EXPECT_TRUE(Exists(file));
}

} // namespace
} // namespace tarvo_test
