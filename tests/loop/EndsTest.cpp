// Ends: of the remote, in either mode and at any moment, and of links, services and loops inside every callback.
#include <algorithm>
#include <cerrno>

#include "loop/LoopFixture.h"

namespace tarvo_test {
namespace {

std::string Broken(const std::string &tag) { return "done " + tag + " " + std::to_string(-EPIPE); }

class EndsTest : public BothModes {
protected:
    void EndRemote() {
        peer.CloseWrite();
        peer.CloseRead();
    }
};
TARVO_BOTH_MODES(EndsTest);

TEST_P(EndsTest, EverythingReadableComesFirstThenTheCallsThenTheEndOnce) {
    for (const char *const tag : {"one", "two"}) {
        ASSERT_GT(link.Call("question", tag), 0);
    }
    const uint32_t answered = peer.Receive().id;
    std::string bytes;
    for (uint32_t i = 0; i < 100; ++i) {
        bytes += RawRequest(i, std::to_string(i));
    }
    peer.Send(bytes + RawResponse(answered, "answer") + RawRequest(100, "last") + RawRequest(101, "cut").substr(0, 34));
    EndRemote();
    EXPECT_TRUE(link.Await("closed"));
    ASSERT_EQ(link.events.size(), 104U);
    for (std::size_t i = 0; i < 100; ++i) {
        EXPECT_EQ(link.events[i], "request " + std::to_string(i));
    }
    EXPECT_EQ(Strings(link.events.begin() + 100, link.events.end()),
              (Strings{"done one 0 answer", "request last", Broken("two"), "closed"}));
    loop.RunWhileReadable();
    EXPECT_EQ(link.events.size(), 104U);
}

TEST_P(EndsTest, TheSameOneCallbackARound) {
    ASSERT_GT(link.Call("question", "call"), 0);
    std::string bytes;
    Strings expected;
    for (uint32_t i = 0; i < 20; ++i) {
        bytes += RawRequest(i, std::to_string(i));
        expected.push_back("request " + std::to_string(i));
    }
    expected.push_back(Broken("call"));
    expected.push_back("closed");
    peer.Send(bytes);
    EndRemote();
    loop.max = 1;
    EXPECT_TRUE(link.AwaitCount(expected.size()));
    EXPECT_EQ(link.events, expected);
}

TEST_P(EndsTest, FullFifoIsReadToItsEnd) {
    std::string bytes;
    std::size_t count = 0;
    for (; bytes.size() < 61000; ++count) {
        bytes += RawRequest(1, std::string(1000, 'x'));
    }
    peer.Send(bytes);
    EndRemote();
    EXPECT_TRUE(link.Await("closed"));
    EXPECT_EQ(link.events.size(), count + 1);
}

TEST_P(EndsTest, LinkOfWhichTheRemoteIsGoneSendsNothingAndMayBeClosed) {
    EndRemote();
    EXPECT_TRUE(link.Await("closed"));
    char room[8];
    uint32_t size = sizeof(room);
    EXPECT_EQ(link.Send("x"), -EPIPE);
    EXPECT_EQ(link.Call("x", "call"), -EPIPE);
    EXPECT_EQ(TarvoLinkCallSync(link.link, {"x", 1}, 10, room, &size), -EPIPE);
    EXPECT_EQ(TarvoLinkFlush(link.link), -EPIPE);
    EXPECT_FALSE(loop.Readable()) << "it asks for nothing until it is closed";
    EXPECT_STREQ(TarvoLinkPeer(link.link), remote.c_str());
    EXPECT_EQ(link.Close(), 0);
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings{"closed"});
}

TEST_P(EndsTest, CallBegunInTheEndOfAnotherIsRefused) {
    int64_t result = 0;
    link.onDone = [&](const std::string &) { result = link.Call("again", "again"); };
    ASSERT_GT(link.Call("question", "call"), 0);
    EndRemote();
    EXPECT_TRUE(link.Await("closed"));
    EXPECT_EQ(link.events, (Strings{Broken("call"), "closed"}));
    EXPECT_EQ(result, -EPIPE);
}

TEST_P(EndsTest, WaitingForRoomEndsWithTheRemote) {
    while (link.Send(std::string(4000, 'x')) == 0) {
    }
    EndRemote();
    EXPECT_TRUE(link.Await("closed"));
    EXPECT_EQ(link.Count("closed"), 1U);
    EXPECT_EQ(link.Send("x"), -EPIPE);
    EXPECT_FALSE(loop.Readable());
}

TEST_P(EndsTest, RemoteThatStopsReadingButStillWritesIsHeard) {
    ExpectAlive("first");
    peer.CloseRead();
    loop.RunWhileReadable();
    ExpectAlive("still there");
    EXPECT_EQ(link.Count("closed"), 0U);
    EXPECT_EQ(link.Send("x"), -EPIPE);
    EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 10) >= 0, true);
    ExpectAlive("and after");
    peer.CloseWrite();
    EXPECT_TRUE(link.Await("closed"));
    EXPECT_FALSE(loop.Readable());
}

TEST_P(EndsTest, LinkMayBeClosedInEachOfItsCallbacks) {
    const auto close = [&] { EXPECT_EQ(link.Close(), 0); };
    link.onRequest = [&](uint32_t, const std::string &) { close(); };
    ASSERT_GT(link.Call("question", "call"), 0);
    peer.Send(RawRequest(1, "one") + RawRequest(2, "two"));
    EXPECT_TRUE(link.AwaitCount(1));
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, (Strings{"request one", "done call " + std::to_string(-ECANCELED)}));
}

TEST_P(EndsTest, LinkMayBeClosedInTheEndOfACall) {
    link.onDone = [&](const std::string &tag) {
        if (tag == "first") {
            EXPECT_EQ(link.Close(), 0);
        }
    };
    ASSERT_GT(link.Call("question", "first"), 0);
    ASSERT_GT(link.Call("question", "second"), 0);
    const uint32_t first = peer.Receive().id;
    const uint32_t second = peer.Receive().id;
    peer.Send(RawResponse(first, "1") + RawResponse(second, "2") + RawRequest(1, "unread"));
    EXPECT_TRUE(link.AwaitCount(1));
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, (Strings{"done first 0 1", "done second " + std::to_string(-ECANCELED)}));
}

TEST_P(EndsTest, LinkMayBeClosedInATimeOut) {
    link.onDone = [&](const std::string &tag) {
        if (tag == "first") {
            EXPECT_EQ(link.Close(), 0);
        }
    };
    ASSERT_GT(link.Call("question", "first", 1), 0);
    ASSERT_GT(link.Call("question", "second", 1), 0);
    EXPECT_TRUE(link.AwaitCount(2));
    EXPECT_EQ(link.events[0], "done first " + std::to_string(-ETIMEDOUT));
    EXPECT_EQ(link.Count("done second"), 1U);
    loop.RunWhileReadable();
    EXPECT_EQ(link.events.size(), 2U);
}

TEST_P(EndsTest, LinkMayBeClosedInItsClosedAndInTheEndsBeforeIt) {
    link.onDone = [&](const std::string &) { EXPECT_EQ(link.Close(), 0); };
    ASSERT_GT(link.Call("question", "first"), 0);
    ASSERT_GT(link.Call("question", "second"), 0);
    EndRemote();
    EXPECT_TRUE(link.AwaitCount(2));
    loop.RunWhileReadable();
    EXPECT_EQ(link.Count("done first"), 1U);
    EXPECT_EQ(link.Count("done second"), 1U);
    EXPECT_EQ(link.events.size(), 2U) << "no closed after the caller's own close";
}

TEST_P(EndsTest, LinkMayBeClosedInItsClosed) {
    link.onClosed = [&] { EXPECT_EQ(link.Close(), 0); };
    EndRemote();
    EXPECT_TRUE(link.AwaitCount(1));
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings{"closed"});
}

TEST_P(EndsTest, LinkMayBeClosedInItsWritable) {
    while (link.Send(std::string(4000, 'x')) == 0) {
    }
    link.onWritable = [&] { EXPECT_EQ(link.Close(), 0); };
    while (peer.HasInput()) {
        peer.Receive();
    }
    EXPECT_TRUE(link.AwaitCount(1));
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings{"writable"});
}

TEST_P(EndsTest, LoopMayBeDestroyedInEachCallbackOfALink) {
    ASSERT_GT(link.Call("question", "call"), 0);
    link.onRequest = [&](uint32_t, const std::string &) {
        EXPECT_EQ(TarvoLoopDestroy(loop.Get()), 0);
        link.Forget();
    };
    peer.Send(RawRequest(1, "one") + RawRequest(2, "two"));
    ASSERT_TRUE(loop.Readable(30000));
    int result = 0;
    while ((result = TarvoLoopDispatch(loop.Get(), 1)) >= 0) {
        ASSERT_TRUE(loop.Readable(30000));
        ASSERT_EQ(link.events, Strings());
    }
    EXPECT_EQ(result, -ECANCELED);
    EXPECT_EQ(link.events, Strings{"request one"});
    loop.Release();
}

TEST_P(EndsTest, AnotherLinkMayBeClosedWhoseEventsAreInTheSameRound) {
    const std::string other = UniqueName("other");
    RawPeer second(other, self);
    Probe brother(loop);
    ASSERT_EQ(brother.Open(TARVO_LINK_ARRANGED_SERVER, other, self), 0);
    loop.RunBeside([&] { second.OpenBoth(); });
    ASSERT_TRUE(brother.Await("opened 0"));
    brother.events.clear();
    link.onRequest = [&](uint32_t, const std::string &) { EXPECT_EQ(brother.Close(), 0); };
    brother.onRequest = [&](uint32_t, const std::string &) { EXPECT_EQ(link.Close(), 0); };
    peer.Send(RawRequest(1, "x"));
    second.Send(RawRequest(1, "x"));
    loop.RunWhileReadable();
    EXPECT_EQ(link.events.size() + brother.events.size(), 1U) << "whoever came first closed the other";
}

TEST_P(EndsTest, LinkOfTheSameNamesMayBeOpenedInTheClosed) {
    Probe again(loop);
    link.onClosed = [&] {
        EXPECT_EQ(link.Close(), 0);
        EXPECT_EQ(again.Open(TARVO_LINK_ARRANGED_SERVER, remote, self), 0);
    };
    EndRemote();
    EXPECT_TRUE(link.Await("closed"));
    loop.RunWhileReadable();
    RawPeer next(remote, self);
    loop.RunBeside([&] { next.OpenBoth(); });
    EXPECT_TRUE(again.Await("opened 0"));
    next.Send(RawRequest(1, "new"));
    EXPECT_TRUE(again.Await("request new"));
}

// ---- A remote that ends before it has opened its write end ----

class EarlyDeathTest : public LoopTest {
protected:
    void SetUp() override {
        peer.CreateFiles();
        ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self), 0);
        ASSERT_TRUE(link.Await("opened 0"));
        link.events.clear();
    }
};

TEST_F(EarlyDeathTest, IsNoticedWithoutABeginning) {
    ASSERT_GT(link.Call("anybody?", "call"), 0);
    EXPECT_EQ(peer.Receive().payload, "anybody?");
    peer.CloseRead();
    EXPECT_TRUE(link.Await("closed"));
    EXPECT_EQ(link.events, (Strings{Broken("call"), "closed"}));
    EXPECT_FALSE(loop.Readable());
}

TEST_F(EarlyDeathTest, AnswerWrittenBeforeTheEndIsDelivered) {
    ASSERT_GT(link.Call("last one", "call"), 0);
    peer.OpenWrite();
    peer.Send(RawResponse(peer.Receive().id, "good-bye"));
    peer.CloseRead();
    peer.CloseWrite();
    EXPECT_TRUE(link.Await("closed"));
    EXPECT_EQ(link.events, (Strings{"done call 0 good-bye", "closed"}));
}

TEST_F(EarlyDeathTest, OrdinaryEndIsToldOnce) {
    peer.OpenWrite();
    peer.CloseRead();
    peer.CloseWrite();
    EXPECT_TRUE(link.Await("closed"));
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings{"closed"});
}

TEST_F(EarlyDeathTest, RemoteThatReadsAndHasNotWrittenYetIsThere) {
    int sent = 0;
    while (link.Send(std::string(4000, 'x')) == 0) {
        ++sent;
    }
    loop.RunBeside([&] {
        for (int i = 0; i < sent; ++i) {
            peer.Receive();
        }
    });
    EXPECT_TRUE(link.Await("writable"));
    peer.OpenWrite();
    peer.Send(RawRequest(1, "at last"));
    EXPECT_TRUE(link.Await("request at last"));
    EXPECT_EQ(link.events, (Strings{"writable", "request at last"}));
}

class EarlyDeathOfTheJoinerTest : public LoopTest {};

TEST_F(EarlyDeathOfTheJoinerTest, ReaderThatGoesBeforeItEverWroteIsNoticed) {
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_SERVER, remote, self), 0);
    loop.RunBeside([&] { peer.OpenRead(); });
    EXPECT_TRUE(link.Await("opened 0"));
    peer.CloseRead();
    EXPECT_TRUE(link.Await("closed"));
    EXPECT_EQ(link.events, (Strings{"opened 0", "closed"}));
    EXPECT_FALSE(loop.Readable());
}

TEST_F(EarlyDeathOfTheJoinerTest, WriterThatGoesBeforeItReadIsNoticed) {
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_SERVER, remote, self, 300), 0);
    loop.RunBeside([&] { peer.OpenWrite(); });
    peer.CloseWrite();
    EXPECT_TRUE(link.AwaitCount(1)) << "as a failed open, or as an open link that is closed";
    loop.RunWhileReadable();
    EXPECT_LE(link.events.size(), 2U);
}

} // namespace
} // namespace tarvo_test
