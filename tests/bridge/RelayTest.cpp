// Frames through two bridges and a network in memory.
#include <fcntl.h>
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bridge/BridgeKit.h"
#include "support/RawFrame.h"
#include "support/RawPeer.h"

using namespace tarvo_test;
using tarvo_bridge::Bundle;

namespace {

// A server's FIFO in the hands of the test.
class RawServer {
public:
    explicit RawServer(const std::string &serverName) : name(serverName), path(FifoDirectory() + serverName) {
        EXPECT_EQ(mkfifo(path.c_str(), 0660), 0);
        fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_GE(fd, 0);
    }
    ~RawServer() {
        close(fd);
        unlink(path.c_str());
    }
    RawServer(const RawServer &) = delete;
    RawServer &operator=(const RawServer &) = delete;

    // Waits for the next client that announces itself.
    void Hear() {
        char head[20];
        EXPECT_EQ(read(fd, head, sizeof(head)), static_cast<ssize_t>(sizeof(head)));
        uint32_t size = 0;
        std::memcpy(&size, head + 16, sizeof(size));
        client.resize(size);
        EXPECT_EQ(read(fd, client.data(), size), static_cast<ssize_t>(size));
    }

    // The pipe of the last one, with both files made: it is open as soon as the client has looked.
    std::unique_ptr<RawPeer> MakePipe() {
        auto peer = std::make_unique<RawPeer>(name, client);
        peer->CreateFiles();
        return peer;
    }

    std::unique_ptr<RawPeer> Accept() {
        Hear();
        return MakePipe();
    }

    std::string client; // the last one's name

private:
    const std::string name;
    const std::string path;
    int fd = -1;
};

// Server and client that write each byte themselves.
class RawRelayTest : public BridgeTest {
protected:
    void Connect(uint32_t window = 64) {
        server = std::make_unique<RawServer>(real);
        StartBoth(window);
        ASSERT_TRUE(IsOffered());
        const std::string name = UniqueName("cli");
        WriteToRawServer(there, RawConnectPacket(name, getgid(), getpid()));
        atServer = server->Accept();
        atServer->OpenWrite();
        atClient = std::make_unique<RawPeer>(name, there);
        atClient->OpenBoth();
    }

    std::unique_ptr<RawServer> server;
    std::unique_ptr<RawPeer> atServer;
    std::unique_ptr<RawPeer> atClient;
};

int64_t NowUs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// A server that answers each request with its own bytes, and a client that is told of nothing but what it counts.
void Echo(Server &server) {
    server.links.onRequest = [](TarvoLink *link, uint32_t number, TarvoBytes payload) {
        EXPECT_EQ(TarvoLinkReply(link, number, payload), 0);
    };
}

TEST_F(RawRelayTest, FramesPassUnchangedBothWays) {
    Connect();
    const std::vector<uint32_t> ids{0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    const std::vector<int32_t> timeouts{-1, 0, 1, 250, 0x7FFFFFFF};
    for (std::size_t i = 0; i < ids.size(); ++i) {
        for (const std::size_t size : {std::size_t{1}, std::size_t{64}, std::size_t{4000}}) {
            const std::string payload(size, static_cast<char>('a' + i));
            for (const auto &ends :
                 {std::make_pair(atClient.get(), atServer.get()), std::make_pair(atServer.get(), atClient.get())}) {
                for (const uint32_t type : {0U, 1U}) {
                    const int64_t before = NowUs();
                    ends.first->Send(EncodeRawFrame(MakeRawFrame(ids[i], type, payload, timeouts[i])));
                    const RawFrame frame = ends.second->Receive();
                    EXPECT_EQ(frame.id, ids[i]);
                    EXPECT_EQ(frame.type, type);
                    EXPECT_EQ(frame.timeout, timeouts[i]);
                    EXPECT_EQ(frame.payload, payload);
                    EXPECT_GE(frame.writeStartTime, before) << "the time of writing is this machine's";
                }
            }
        }
    }
}

TEST_F(RawRelayTest, ServerSeesClientAndMachine) {
    Connect();
    EXPECT_THAT(server->client, testing::MatchesRegex(NameTag() + "cli.*@rear[.]1_" + std::to_string(getpid())));
}

// Names may lead into folders here. There they are a part of a file's.
TEST_F(RawRelayTest, ClientOfAFolderIsShownWithoutItsSlash) {
    server = std::make_unique<RawServer>(real);
    StartBoth(64);
    ASSERT_TRUE(IsOffered());
    WriteToRawServer(there, RawConnectPacket("folder/" + UniqueName("cli"), getgid(), getpid()));
    atServer = server->Accept();
    EXPECT_THAT(server->client, testing::MatchesRegex("folder_" + NameTag() + "cli.*@rear[.]1_.*"));
}

TEST_F(RawRelayTest, ClientsFilesAppearOnlyWhenTheServersPipeIsOpen) {
    server = std::make_unique<RawServer>(real);
    StartBoth();
    ASSERT_TRUE(IsOffered());
    const std::string name = UniqueName("cli");
    WriteToRawServer(there, RawConnectPacket(name, getgid(), getpid()));
    {
        server->Hear();
        EXPECT_FALSE(FileIsThere(name + "__to__" + there));
        const auto atItsServer = server->MakePipe();
        EXPECT_TRUE(Eventually([&] { return FileIsThere(name + "__to__" + there); }));
        RawPeer client(name, there);
        client.OpenBoth();
    }
    EXPECT_TRUE(Eventually([this] { return SessionsOf(importer) == 0 && SessionsOf(exporter) == 0; }));
}

TEST_F(RawRelayTest, EndOfTheServersPipeEndsTheClients) {
    Connect();
    atServer->Send(RawRequest(5, "last words"));
    atServer.reset();
    EXPECT_EQ(atClient->Receive().payload, "last words");
    atClient->AwaitHangup();
    EXPECT_TRUE(Eventually([this] { return SessionsOf(importer) == 0 && SessionsOf(exporter) == 0; }));
}

TEST_F(RawRelayTest, EndOfTheClientsPipeEndsTheServers) {
    Connect();
    atClient->Send(RawRequest(5, "last words"));
    atClient.reset();
    EXPECT_EQ(atServer->Receive().payload, "last words");
    atServer->AwaitHangup();
    EXPECT_TRUE(Eventually([this] { return SessionsOf(importer) == 0 && SessionsOf(exporter) == 0; }));
}

// A server that reads nothing fills its own clients' way and no other, and loses nothing of what was taken.
TEST_F(RawRelayTest, StoppedServerLosesNothingThatWasAccepted) {
    Connect(8);
    const std::string payload(1000, 'x');
    uint32_t accepted = 0;
    const auto sendMore = [&] {
        while (atClient->TrySend(RawRequest(accepted, payload)) == 0) {
            ++accepted;
        }
    };
    sendMore();
    // Until nothing on the way moves any more.
    uint32_t before = 0;
    while (before != accepted) {
        before = accepted;
        for (int i = 0; i < 20; ++i) {
            bridges.Do([] {});
            sendMore();
        }
    }
    // Two FIFOs of 64 KiB, a window, two batches and what one read takes: not the memory of the machine.
    EXPECT_LT(accepted, 300U);
    for (uint32_t next = 0; next < accepted; ++next) {
        const RawFrame frame = atServer->Receive();
        ASSERT_EQ(frame.id, next);
        ASSERT_EQ(frame.payload, payload);
    }
    atClient->Send(RawRequest(77, "again"));
    EXPECT_EQ(atServer->Receive().id, 77U);
    EXPECT_FALSE(atServer->HasInput());
}

TEST_F(BridgeTest, NameIsOfferedOnlyWhileItsServerLives) {
    StartBoth();
    Recorder early;
    OpenLink(loop, early, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return early.opened; }));
    EXPECT_EQ(early.result, -ENXIO);
    {
        Server server(loop, real);
        EXPECT_TRUE(IsOffered());
        EXPECT_EQ(TarvoServiceClose(server.service), 0);
    }
    EXPECT_TRUE(IsWithdrawn());
    Recorder late;
    OpenLink(loop, late, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return late.opened; }));
    EXPECT_EQ(late.result, -ENXIO);
    Server again(loop, real);
    EXPECT_TRUE(IsOffered());
    TarvoServiceClose(again.service);
}

TEST_F(BridgeTest, ServerThatTakesItsNameFromAnotherIsReached) {
    Server first(loop, real);
    StartBoth();
    ASSERT_TRUE(IsOffered());
    Server second(loop, real, true);
    Echo(second);
    // For a moment there may be none, as for clients of the same machine.
    std::deque<Recorder> clients;
    TarvoLink *link = nullptr;
    ASSERT_TRUE(Eventually([&] {
        clients.emplace_back();
        link = OpenLink(loop, clients.back(), there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
        return Wait([&] { return clients.back().opened; }) && clients.back().result == 0;
    }));
    Recorder &client = clients.back();
    ASSERT_GT(TarvoLinkCall(link, Bytes("who"), PATIENCE_MS, Recorder::Done, &client), 0);
    ASSERT_TRUE(Wait([&] { return client.done == 1; }));
    EXPECT_EQ(client.events.back(), "done 0 who");
    EXPECT_EQ(first.clients.size(), 0U);
    TarvoServiceClose(first.service);
    EXPECT_TRUE(FileIsThere(there));
}

TEST_F(BridgeTest, FirstRequestOfManyClientsIsNotLostThoughGreetingsAre) {
    Server server(loop, real);
    Echo(server);
    int lost = 0;
    bridges.Do([&] {
        bridges.cables.fate = [&lost](const Bundle &bundle) {
            return bundle.items.empty() && lost++ < 7 ? Fate::IS_LOST : Fate::ARRIVES;
        };
    });
    StartBoth();
    ASSERT_TRUE(IsOffered());
    constexpr int CLIENTS = 40;
    std::deque<Recorder> clients(CLIENTS);
    for (Recorder &client : clients) {
        client.onOpened = [&client](TarvoLink *link) {
            EXPECT_GT(TarvoLinkCall(link, Bytes("first"), PATIENCE_MS, Recorder::Done, &client), 0);
        };
        OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    }
    for (Recorder &client : clients) {
        ASSERT_TRUE(Wait([&] { return client.done == 1; }));
        EXPECT_EQ(client.events.back(), "done 0 first");
    }
    bridges.Do([&] { bridges.cables.fate = [](const Bundle &) { return Fate::ARRIVES; }; });
}

TEST_F(BridgeTest, OrderIsKeptAndNothingComesTwice) {
    Server server(loop, real);
    bridges.Do([&] {
        bridges.cables.fate = [count = 0](const Bundle &) mutable {
            return ++count % 3 == 0 ? Fate::COMES_TWICE : Fate::ARRIVES;
        };
    });
    StartBoth(4);
    ASSERT_TRUE(IsOffered());
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return client.opened; }));
    constexpr int MESSAGES = 5000;
    int sent = 0;
    const auto sendMore = [&](TarvoLink *) {
        while (sent < MESSAGES && TarvoLinkSend(link, Bytes(std::to_string(sent))) == 0) {
            ++sent;
        }
    };
    client.onWritable = sendMore;
    sendMore(link);
    ASSERT_TRUE(Wait([&] { return server.links.requests.size() >= MESSAGES; }));
    for (std::size_t i = 0; i < MESSAGES; ++i) {
        ASSERT_EQ(server.links.requests[i].payload, std::to_string(i));
    }
    Drain(loop);
    EXPECT_EQ(server.links.requests.size(), static_cast<std::size_t>(MESSAGES));
}

TEST_F(BridgeTest, LateAnswersAreTheCallersToDrop) {
    Server server(loop, real);
    StartBoth();
    ASSERT_TRUE(IsOffered());
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return client.opened; }));
    ASSERT_GT(TarvoLinkCall(link, Bytes("slow"), 1, Recorder::Done, &client), 0);
    ASSERT_TRUE(Wait([&] { return client.done == 1 && server.links.requests.size() == 1; }));
    EXPECT_EQ(client.events.back(), "done -110");
    Echo(server);
    const auto &late = server.links.requests.front();
    EXPECT_EQ(TarvoLinkReply(late.link, late.number, Bytes("late")), 0);
    ASSERT_GT(TarvoLinkCall(link, Bytes("quick"), PATIENCE_MS, Recorder::Done, &client), 0);
    ASSERT_TRUE(Wait([&] { return client.done == 2; }));
    EXPECT_EQ(client.events.back(), "done 0 quick");
}

TEST_F(BridgeTest, DeadMachineEndsItsCallsAndItsOffers) {
    Server server(loop, real);
    StartBoth();
    ASSERT_TRUE(IsOffered());
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return client.opened; }));
    ASSERT_GT(TarvoLinkCall(link, Bytes("never"), -1, Recorder::Done, &client), 0);
    ASSERT_TRUE(Wait([&] { return server.links.requests.size() == 1; }));
    bridges.Do([this] {
        bridges.cables.Unplug(exporter);
        bridges.cables.Bury(exporter);
    });
    ASSERT_TRUE(Wait([&] { return client.closed == 1; }));
    EXPECT_THAT(client.events, testing::ElementsAre("opened 0", "done -32", "closed"));
    EXPECT_TRUE(IsWithdrawn());
    EXPECT_EQ(SessionsOf(importer), 0U);
}

TEST_F(BridgeTest, RestartedBridgeWorksAtOnceAndOldSessionsAreClosed) {
    Server server(loop, real);
    Echo(server);
    StartBoth();
    ASSERT_TRUE(IsOffered());
    for (int round = 0; round < 20; ++round) {
        Recorder client;
        TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
        ASSERT_TRUE(Wait([&] { return client.opened; }));
        ASSERT_EQ(client.result, 0);
        ASSERT_GT(TarvoLinkCall(link, Bytes("ping"), PATIENCE_MS, Recorder::Done, &client), 0);
        ASSERT_TRUE(Wait([&] { return client.done == 1; }));
        ASSERT_EQ(client.events.back(), "done 0 ping");
        // Nobody is told that it has died, but the new one says whose names it has.
        bridges.Kill(exporter);
        exporter = bridges.Start("front", {real}, {});
        ASSERT_TRUE(Wait([&] { return client.closed == 1; }));
        TarvoLinkClose(link);
        ASSERT_TRUE(Eventually([this] {
            const auto picture = bridges.Look(importer);
            return picture.peers.size() == 1 && picture.peers.front().run == exporter &&
                   picture.imports.front().offered;
        }));
    }
    EXPECT_EQ(SessionsOf(exporter), 0U);
    EXPECT_EQ(SessionsOf(importer), 0U);
}

TEST_F(BridgeTest, NetworkThatComesBackBeginsAnew) {
    Server server(loop, real);
    Echo(server);
    StartBoth();
    ASSERT_TRUE(IsOffered());
    for (const bool bothSides : {false, true, false, true}) {
        Recorder client;
        TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
        ASSERT_TRUE(Wait([&] { return client.opened; }));
        ASSERT_EQ(client.result, 0);
        bridges.Do([this, bothSides] { bridges.cables.Rediscover(exporter, bothSides); });
        ASSERT_TRUE(Wait([&] { return client.closed == 1; }));
        TarvoLinkClose(link);
        ASSERT_TRUE(Eventually([this] { return bridges.Look(importer).imports.front().offered; }));
    }
    EXPECT_TRUE(Eventually([this] { return SessionsOf(exporter) == 0; }));
}

TEST_F(BridgeTest, OneOfSeveralExportersIsKeptWhileItLives) {
    Server first(loop, real);
    Echo(first);
    importer = bridges.Start("rear", {}, {{real, "", there}});
    const auto beta = bridges.Start("beta", {real}, {});
    ASSERT_TRUE(IsOffered());
    const auto alpha = bridges.Start("alpha", {real}, {});
    const auto carrier = [this] { return bridges.Look(importer).imports.front().carriedBy; };
    ASSERT_TRUE(Eventually([this] { return bridges.Look(importer).peers.size() == 2; }));
    EXPECT_EQ(carrier(), "beta") << "its name comes later, but it was there first";
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return client.opened; }));
    ASSERT_EQ(TarvoLinkSend(link, Bytes("once")), 0);
    ASSERT_TRUE(Wait([&] { return first.links.requests.size() == 1; }));
    EXPECT_EQ(SessionsOf(beta), 1U);
    EXPECT_EQ(SessionsOf(alpha), 0U);
    bridges.Do([&] {
        bridges.cables.Unplug(beta);
        bridges.cables.Bury(beta);
    });
    ASSERT_TRUE(Wait([&] { return client.closed == 1; }));
    ASSERT_TRUE(Eventually([&] { return carrier() == "alpha" && bridges.Look(importer).imports.front().offered; }));
    EXPECT_EQ(first.links.requests.size(), 1U);
}

TEST_F(BridgeTest, NameThatALivingServerHasIsLeftToIt) {
    Server server(loop, real);
    Server mine(loop, there);
    StartBoth();
    ASSERT_TRUE(Eventually([this] { return bridges.Look(importer).imports.front().refused == -EADDRINUSE; }));
    EXPECT_FALSE(bridges.Look(importer).imports.front().offered);
    TarvoServiceClose(mine.service);
    EXPECT_TRUE(Eventually([this] { return bridges.Look(importer).imports.front().offered; }));
}

TEST_F(BridgeTest, NameWhoseFileWasRemovedIsOfferedAgain) {
    Server server(loop, real);
    StartBoth();
    ASSERT_TRUE(IsOffered());
    const std::string file = FifoDirectory() + there;
    ASSERT_EQ(unlink(file.c_str()), 0);
    ASSERT_TRUE(Eventually([&] { return access(file.c_str(), F_OK) == 0; }));
    Recorder client;
    OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return client.opened; }));
    EXPECT_EQ(client.result, 0);
}

TEST_F(BridgeTest, NameThatAServerHasTakenOverIsOfferedAgainWhenThatHasEnded) {
    Server server(loop, real);
    StartBoth();
    ASSERT_TRUE(IsOffered());
    {
        const std::string other = UniqueName("other");
        const RawServer usurper(other);
        ASSERT_EQ(rename((FifoDirectory() + other).c_str(), (FifoDirectory() + there).c_str()), 0);
        EXPECT_TRUE(Eventually([this] { return bridges.Look(importer).imports.front().refused == -EADDRINUSE; }));
        EXPECT_FALSE(bridges.Look(importer).imports.front().offered);
    }
    EXPECT_TRUE(IsOffered());
}

TEST_F(BridgeTest, WhatIsNotExportedCannotBeReached) {
    Server server(loop, real);
    const std::string other = UniqueName("hidden");
    Server hidden(loop, other);
    StartBoth();
    ASSERT_TRUE(IsOffered());
    // A bridge that asks for it all the same.
    bridges.Do([&] {
        bridges.cables.fate = [&, asked = false](const Bundle &bundle) mutable {
            if (!asked && !bundle.items.empty() && bundle.items.front().kind == tarvo_bridge::ItemKind::OPEN) {
                asked = true;
                const_cast<Bundle &>(bundle).items.front().service = other;
            }
            return Fate::ARRIVES;
        };
    });
    Recorder client;
    OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, 200, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return client.opened; }));
    EXPECT_EQ(client.result, -ETIMEDOUT);
    EXPECT_TRUE(hidden.clients.empty());
}

// Whatever the network does: every call ends exactly once, with its own answer or none.
TEST_F(BridgeTest, EveryCallEndsOnceHoweverBadTheNetworkIs) {
    Server server(loop, real);
    server.links.onRequest = [](TarvoLink *link, uint32_t number, TarvoBytes payload) {
        // Its pipe may be gone with the link between the bridges.
        EXPECT_THAT(TarvoLinkReply(link, number, payload), testing::AnyOf(0, -EPIPE));
    };
    bridges.Do([&] {
        bridges.cables.fate = [random = std::mt19937(7)](const Bundle &) mutable {
            switch (random() % 40) {
            case 0:
                return Fate::IS_LOST;
            case 1:
                return Fate::COMES_TWICE;
            case 2:
                return Fate::COMES_LATER;
            default:
                return Fate::ARRIVES;
            }
        };
        bridges.cables.room = [random = std::mt19937(8)]() mutable { return random() % 10 != 0; };
    });
    exporter = bridges.Start("front", {real}, {}, 16, 300);
    importer = bridges.Start("rear", {}, {{real, "", there}}, 16, 300);
    ASSERT_TRUE(IsOffered());
    struct Call {
        std::string question;
        int ends = 0;
    };
    std::deque<Call> calls;
    int ended = 0;
    int answered = 0;
    for (int round = 0; answered < 500; ++round) {
        ASSERT_LT(round, 2000);
        ASSERT_TRUE(IsOffered());
        Recorder client;
        TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, 300, UniqueName("cli"));
        ASSERT_TRUE(Wait([&] { return client.opened; }));
        const std::size_t first = calls.size();
        for (int i = 0; client.result == 0 && i < 20; ++i) {
            calls.push_back({std::to_string(round) + ":" + std::to_string(i)});
            struct Context {
                Call &call;
                int &ended;
                int &answered;
            };
            auto *const context = new Context{calls.back(), ended, answered};
            const auto done = [](void *given, int result, TarvoBytes answer) {
                const std::unique_ptr<Context> of(static_cast<Context *>(given));
                ++of->call.ends;
                ++of->ended;
                if (result == 0) {
                    ++of->answered;
                    EXPECT_EQ(Text(answer), of->call.question);
                }
            };
            if (TarvoLinkCall(link, Bytes(calls.back().question), 2000, done, context) < 0) {
                delete context;
                calls.pop_back();
            }
        }
        ASSERT_TRUE(Wait([&] { return ended == static_cast<int>(calls.size()); }));
        for (std::size_t i = first; i < calls.size(); ++i) {
            ASSERT_EQ(calls[i].ends, 1);
        }
        TarvoLinkClose(link);
    }
    bridges.Do([&] {
        bridges.cables.fate = [](const Bundle &) { return Fate::ARRIVES; };
        bridges.cables.room = [] { return true; };
    });
    EXPECT_TRUE(Eventually([this] { return SessionsOf(exporter) == 0 && SessionsOf(importer) == 0; }));
}

} // namespace
