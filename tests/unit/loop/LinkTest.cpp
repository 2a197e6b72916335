// Sending, calling, answering and closing, on both sides of a link within one loop.
#include <cerrno>

#include "LoopKit.h"

namespace tarvo_test {
namespace {

const std::string BIG(TARVO_LOOP_MAX_PAYLOAD, 'b');

TEST_F(LinkTest, RequestsArriveInOrderAndAreAnsweredByNumber) {
    EXPECT_EQ(TarvoLinkSend(link, Bytes("one")), 0);
    EXPECT_GT(TarvoLinkCall(link, Bytes("two"), PATIENCE_MS, Recorder::Done, &client), 0);
    ASSERT_TRUE(Wait([this] { return server.links.requests.size() == 2; }));
    EXPECT_EQ(server.links.requests[0].payload, "one");
    const Recorder::Request &second = server.links.requests[1];
    EXPECT_EQ(second.payload, "two");
    EXPECT_EQ(TarvoLinkReply(remote, second.number, Bytes("answer")), 0);
    EXPECT_EQ(TarvoLinkReply(remote, second.number, Bytes("answer")), -ENOENT);
    EXPECT_EQ(TarvoLinkReply(remote, second.number + 1, Bytes("answer")), -ENOENT);
    ASSERT_TRUE(Wait([this] { return client.done == 1; }));
    EXPECT_EQ(client.events.back(), "done 0 answer");
}

TEST_F(LinkTest, BothSidesMayCall) {
    EXPECT_GT(TarvoLinkCall(remote, Bytes("ask"), PATIENCE_MS, Recorder::Done, &server.links), 0);
    client.onRequest = [](TarvoLink *on, uint32_t number, TarvoBytes) { TarvoLinkReply(on, number, Bytes("told")); };
    ASSERT_TRUE(Wait([this] { return server.links.done == 1; }));
    EXPECT_EQ(server.links.events.back(), "done 0 told");
}

TEST_F(LinkTest, WrongPayloadsAreRefused) {
    EXPECT_EQ(TarvoLinkSend(nullptr, Bytes("x")), -EINVAL);
    EXPECT_EQ(TarvoLinkSend(link, {nullptr, 1}), -EINVAL);
    EXPECT_EQ(TarvoLinkSend(link, Bytes("")), -EINVAL);
    EXPECT_EQ(TarvoLinkSend(link, Bytes(BIG + "b")), -EINVAL);
    EXPECT_EQ(TarvoLinkCall(link, Bytes("x"), 0, nullptr, nullptr), -EINVAL);
    EXPECT_EQ(TarvoLinkSend(link, Bytes(BIG)), 0);
    EXPECT_TRUE(Wait([this] { return server.links.requests.size() == 1; }));
}

TEST_F(LinkTest, ACallEndsWithItsTime) {
    EXPECT_GT(TarvoLinkCall(link, Bytes("x"), 20, Recorder::Done, &client), 0);
    EXPECT_EQ(client.done, 0);
    ASSERT_TRUE(Wait([this] { return client.done == 1; }));
    EXPECT_EQ(client.events.back(), "done -110");
    // The late answer is nobody's.
    ASSERT_TRUE(Wait([this] { return server.links.requests.size() == 1; }));
    EXPECT_EQ(TarvoLinkReply(remote, server.links.requests[0].number, Bytes("late")), 0);
    Drain(loop);
    EXPECT_EQ(client.done, 1);
}

TEST_F(LinkTest, AnAnswerThatIsThereWhenTheTimeIsUpCounts) {
    server.links.onRequest = [](TarvoLink *on, uint32_t number, TarvoBytes) { TarvoLinkReply(on, number, Bytes("a")); };
    EXPECT_GT(TarvoLinkCall(link, Bytes("x"), 30, Recorder::Done, &client), 0);
    ASSERT_TRUE(Wait([this] { return server.links.requests.size() == 1; }));
    poll(nullptr, 0, 50); // nobody looks until it is late
    ASSERT_TRUE(Wait([this] { return client.done == 1; }));
    EXPECT_EQ(client.events.back(), "done 0 a");
}

TEST_F(LinkTest, ACancelledCallEndsOnceInALaterDispatch) {
    const int64_t call = TarvoLinkCall(link, Bytes("x"), PATIENCE_MS, Recorder::Done, &client);
    EXPECT_EQ(TarvoLinkCancel(link, call), 0);
    EXPECT_EQ(TarvoLinkCancel(link, call), -ENOENT);
    EXPECT_EQ(TarvoLinkCancel(link, 0), -ENOENT);
    EXPECT_EQ(TarvoLinkCancel(link, call + 65536), -ENOENT);
    EXPECT_EQ(client.done, 0);
    ASSERT_TRUE(Wait([this] { return client.done == 1; }));
    EXPECT_EQ(client.events.back(), "done -125");
    ASSERT_TRUE(Wait([this] { return server.links.requests.size() == 1; }));
    TarvoLinkReply(remote, server.links.requests[0].number, Bytes("late"));
    Drain(loop);
    EXPECT_EQ(client.done, 1);
}

TEST_F(LinkTest, ACancelInsideACallbackIsToldInTheNextDispatch) {
    const int64_t other = TarvoLinkCall(link, Bytes("x"), -1, Recorder::Done, &client);
    server.links.onRequest = [&](TarvoLink *, uint32_t, TarvoBytes) {
        EXPECT_EQ(TarvoLinkCancel(link, other), 0);
        EXPECT_EQ(client.done, 0);
    };
    EXPECT_EQ(TarvoLoopDispatch(loop, 100), 1);
    EXPECT_EQ(client.done, 0);
    EXPECT_TRUE(IsReadable(loop));
    EXPECT_EQ(TarvoLoopDispatch(loop, 100), 1);
    EXPECT_EQ(client.done, 1);
}

TEST_F(LinkTest, ACloseEndsTheCallsInTheNextDispatchAndTellsTheRemote) {
    TarvoLinkCall(link, Bytes("x"), -1, Recorder::Done, &client);
    TarvoLinkCall(link, Bytes("y"), PATIENCE_MS, Recorder::Done, &client);
    EXPECT_EQ(TarvoLinkClose(link), 0);
    EXPECT_EQ(client.done, 0);
    ASSERT_TRUE(Wait([this] { return client.done == 2 && server.links.closed == 1; }));
    EXPECT_EQ(client.closed, 0);
    // What it had sent was delivered first.
    EXPECT_EQ(server.links.requests.size(), 2U);
    EXPECT_EQ(server.links.events.back(), "closed");
    EXPECT_EQ(OwnFifoFiles().size(), 1U);
}

TEST_F(LinkTest, ARemoteCloseEndsTheCallsBeforeClosedIsTold) {
    TarvoLinkCall(link, Bytes("x"), -1, Recorder::Done, &client);
    ASSERT_TRUE(Wait([this] { return server.links.requests.size() == 1; }));
    EXPECT_EQ(TarvoLinkSend(remote, Bytes("last words")), 0);
    EXPECT_EQ(TarvoLinkClose(remote), 0);
    ASSERT_TRUE(Wait([this] { return client.closed == 1; }));
    const std::vector<std::string> expected = {"opened 0", "request last words", "done -32", "closed"};
    EXPECT_EQ(client.events, expected);
    EXPECT_EQ(TarvoLinkSend(link, Bytes("x")), -EPIPE);
    EXPECT_EQ(TarvoLinkCall(link, Bytes("x"), 1, Recorder::Done, &client), -EPIPE);
    EXPECT_EQ(TarvoLinkClose(link), 0);
    Drain(loop);
    EXPECT_EQ(client.events, expected);
}

TEST_F(LinkTest, MoreThanOneReadIsDeliveredBeforeClosed) {
    std::size_t sent = 0;
    while (TarvoLinkSend(link, Bytes(BIG)) == 0) {
        ++sent;
    }
    EXPECT_GE(sent, 16U);
    TarvoLinkClose(link);
    ASSERT_TRUE(Wait([this] { return server.links.closed == 1; }));
    // One frame may have been in the batch, for which there was no room.
    EXPECT_GE(server.links.requests.size(), sent - 1);
}

TEST_F(LinkTest, AFullFifoRefusesAndTellsOnceWhenThereIsRoom) {
    std::size_t sent = 0;
    int ret = 0;
    while ((ret = TarvoLinkSend(link, Bytes(BIG))) == 0) {
        ++sent;
    }
    EXPECT_EQ(ret, -EAGAIN);
    EXPECT_EQ(TarvoLinkSend(link, Bytes("x")), -EAGAIN);
    EXPECT_EQ(TarvoLinkCall(link, Bytes("x"), 1000, Recorder::Done, &client), -EAGAIN);
    ASSERT_TRUE(Wait([this] { return client.writable == 1; }));
    EXPECT_EQ(TarvoLinkSend(link, Bytes("after")), 0);
    ASSERT_TRUE(Wait([&] { return server.links.requests.size() == sent + 1; }));
    EXPECT_EQ(server.links.requests.back().payload, "after");
    Drain(loop);
    EXPECT_EQ(client.writable, 1);
    EXPECT_EQ(client.done, 0);
}

TEST_F(LinkTest, ALinkMayBeClosedInEachOfItsCallbacks) {
    server.links.onRequest = [](TarvoLink *on, uint32_t, TarvoBytes) { TarvoLinkClose(on); };
    for (int i = 0; i < 5; ++i) {
        TarvoLinkSend(link, Bytes("x"));
    }
    client.onClosed = [](TarvoLink *on) { TarvoLinkClose(on); };
    ASSERT_TRUE(Wait([this] { return client.closed == 1; }));
    EXPECT_EQ(server.links.requests.size(), 1U);
    EXPECT_EQ(server.links.closed, 0);
}

TEST_F(LinkTest, ALinkMayBeClosedInTheEndOfItsCall) {
    server.links.onRequest = [](TarvoLink *on, uint32_t number, TarvoBytes) { TarvoLinkReply(on, number, Bytes("a")); };
    client.onDone = [this](int, const std::string &) {
        if (link != nullptr) {
            TarvoLinkClose(link);
            link = nullptr;
        }
    };
    for (int i = 0; i < 3; ++i) {
        TarvoLinkCall(link, Bytes("x"), -1, Recorder::Done, &client);
    }
    ASSERT_TRUE(Wait([this] { return client.done == 3; }));
    const std::vector<std::string> expected = {"opened 0", "done 0 a", "done -125", "done -125"};
    EXPECT_EQ(client.events, expected);
}

TEST_F(LinkTest, TheLoopMayBeDestroyedInACallback) {
    server.links.onRequest = [this](TarvoLink *, uint32_t, TarvoBytes) { TarvoLoopDestroy(loop); };
    TarvoLinkSend(link, Bytes("x"));
    TarvoLinkSend(link, Bytes("y"));
    TarvoLinkCall(link, Bytes("z"), 1000, Recorder::Done, &client);
    EXPECT_EQ(TarvoLoopRun(loop, PATIENCE_MS), -ECANCELED);
    loop = nullptr;
    EXPECT_EQ(server.links.requests.size(), 1U);
    EXPECT_EQ(client.done, 0);
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(LinkTest, MaxIsKeptAndNothingIsLost) {
    constexpr int COUNT = 50;
    for (int i = 0; i < COUNT; ++i) {
        EXPECT_EQ(TarvoLinkSend(link, Bytes(std::to_string(i))), 0);
    }
    for (int i = 0; i < COUNT; ++i) {
        ASSERT_TRUE(IsReadable(loop)) << i;
        ASSERT_EQ(TarvoLoopDispatch(loop, 1), 1);
        ASSERT_EQ(server.links.requests.size(), static_cast<std::size_t>(i + 1));
        EXPECT_EQ(server.links.requests.back().payload, std::to_string(i));
    }
    EXPECT_FALSE(IsReadable(loop));
}

TEST_F(LinkTest, SharesAreFairBetweenLinks) {
    Recorder second;
    TarvoLink *const other = OpenLink(loop, second, name, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return second.opened && server.clients.size() == 2; }));
    Drain(loop);
    for (int i = 0; i < 20; ++i) {
        TarvoLinkSend(link, Bytes("first"));
        TarvoLinkSend(other, Bytes("second"));
    }
    int balance = 0;
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(TarvoLoopDispatch(loop, 1), 1);
        balance += server.links.requests.back().payload == "first" ? 1 : -1;
        EXPECT_LE(std::abs(balance), 1) << i;
    }
}

TEST_F(LinkTest, HoldGathersUntilFlush) {
    EXPECT_EQ(TarvoLinkHold(link), 0);
    EXPECT_EQ(TarvoLinkSend(link, Bytes("one")), 0);
    EXPECT_EQ(TarvoLinkSend(link, Bytes("two")), 0);
    EXPECT_FALSE(IsReadable(loop));
    EXPECT_EQ(TarvoLinkFlush(link), 0);
    EXPECT_TRUE(Wait([this] { return server.links.requests.size() == 2; }));
    EXPECT_EQ(TarvoLinkSend(link, Bytes("three")), 0);
    EXPECT_TRUE(Wait([this] { return server.links.requests.size() == 3; }));
}

TEST_F(LinkTest, AHeldBatchGoesWhenItIsFull) {
    EXPECT_EQ(TarvoLinkHold(link), 0);
    EXPECT_EQ(TarvoLinkSend(link, Bytes(BIG)), 0);
    EXPECT_FALSE(IsReadable(loop));
    EXPECT_EQ(TarvoLinkSend(link, Bytes(BIG)), 0);
    EXPECT_TRUE(Wait([this] { return server.links.requests.size() == 1; }));
    EXPECT_EQ(TarvoLinkFlush(link), 0);
    EXPECT_TRUE(Wait([this] { return server.links.requests.size() == 2; }));
}

TEST_F(LinkTest, AsManyCallsAsTheLimitSaysMayBeOutstanding) {
    std::size_t answered = 0;
    server.links.onRequest = [&](TarvoLink *on, uint32_t number, TarvoBytes) {
        answered += TarvoLinkReply(on, number, Bytes("a")) == 0 ? 1U : 0U;
    };
    server.links.onRequest = nullptr;
    int calls = 0;
    while (calls < TARVO_LOOP_MAX_CALLS) {
        const int64_t call = TarvoLinkCall(link, Bytes("x"), PATIENCE_MS, Recorder::Done, &client);
        if (call == -EAGAIN) {
            const int before = client.writable;
            ASSERT_TRUE(Wait([&] { return client.writable > before; }));
            continue;
        }
        ASSERT_GT(call, 0);
        ++calls;
    }
    EXPECT_EQ(TarvoLinkCall(link, Bytes("x"), 1000, Recorder::Done, &client), -ENOBUFS);
    ASSERT_TRUE(Wait([&] { return server.links.requests.size() == TARVO_LOOP_MAX_CALLS; }));
    for (const Recorder::Request &request : server.links.requests) {
        int ret = 0;
        while ((ret = TarvoLinkReply(remote, request.number, Bytes("a"))) == -EAGAIN) {
            const int before = server.links.writable;
            ASSERT_TRUE(Wait([&] { return server.links.writable > before; }));
        }
        ASSERT_EQ(ret, 0);
    }
    ASSERT_TRUE(Wait([&] { return client.done == TARVO_LOOP_MAX_CALLS; }));
    EXPECT_EQ(answered, 0U);
}

TEST_F(LinkTest, ARequestThatIsTooOldCannotBeAnswered) {
    TarvoLinkSend(link, Bytes("first"));
    ASSERT_TRUE(Wait([this] { return server.links.requests.size() == 1; }));
    const uint32_t first = server.links.requests[0].number;
    std::size_t sent = 1;
    while (sent < TARVO_LOOP_MAX_REQUESTS) {
        if (TarvoLinkSend(link, Bytes("x")) == 0) {
            ++sent;
        } else {
            ASSERT_TRUE(Wait([&] { return server.links.requests.size() >= sent - 1; }));
            Drain(loop);
        }
    }
    ASSERT_TRUE(Wait([&] { return server.links.requests.size() == sent; }));
    EXPECT_EQ(TarvoLinkReply(remote, first, {nullptr, 0}), -EINVAL);
    TarvoLinkSend(link, Bytes("one too many"));
    ASSERT_TRUE(Wait([&] { return server.links.requests.size() == sent + 1; }));
    EXPECT_EQ(TarvoLinkReply(remote, first, Bytes("a")), -ENOENT);
    EXPECT_EQ(TarvoLinkReply(remote, first + 1, Bytes("a")), 0);
}

TEST_F(LinkTest, PeersKnowEachOther) {
    EXPECT_EQ(std::string(TarvoLinkPeer(link)), name);
    EXPECT_EQ("client " + std::string(TarvoLinkPeer(remote)), server.links.events.front());
    EXPECT_EQ(TarvoLinkPeer(nullptr), nullptr);
}

} // namespace
} // namespace tarvo_test
