// Calls: each gets its own answer or one reason why there is none, once, and never inside the call that began it.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <thread>

#include "loop/LoopFixture.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

std::string TimedOut(const std::string &tag) { return "done " + tag + " " + std::to_string(-ETIMEDOUT); }
std::string Canceled(const std::string &tag) { return "done " + tag + " " + std::to_string(-ECANCELED); }

class CallsTest : public BothModes {
protected:
    // A call that has arrived; the id of its frame.
    uint32_t Begin(const std::string &tag, int timeoutMs = -1) {
        const int64_t call = link.Call("ask " + tag, tag, timeoutMs);
        EXPECT_GT(call, 0);
        calls.push_back(call);
        const RawFrame frame = peer.Receive();
        EXPECT_EQ(frame.payload, "ask " + tag);
        EXPECT_EQ(frame.type, 0U);
        return frame.id;
    }

    std::vector<int64_t> calls;
};
TARVO_BOTH_MODES(CallsTest);

TEST_P(CallsTest, AnswersFindTheirCallsInAnyOrder) {
    const uint32_t one = Begin("one");
    const uint32_t two = Begin("two");
    const uint32_t three = Begin("three");
    EXPECT_EQ(link.events, Strings());
    peer.Send(RawResponse(two, "2") + RawResponse(three, "3") + RawResponse(one, "1"));
    EXPECT_TRUE(link.AwaitCount(3));
    EXPECT_EQ(link.events, (Strings{"done two 0 2", "done three 0 3", "done one 0 1"}));
    EXPECT_EQ(calls.size(), 3U);
    EXPECT_NE(calls[0], calls[1]);
}

TEST_P(CallsTest, SecondAnswerAndAnswersToNobodyAreDropped) {
    const uint32_t id = Begin("call");
    peer.Send(RawResponse(id + 1, "nobody's") + RawResponse(id + 65536, "nobody's") + RawResponse(id, "first") +
              RawResponse(id, "second"));
    ExpectAlive();
    EXPECT_EQ(link.events, (Strings{"done call 0 first", "request alive"}));
}

TEST_P(CallsTest, CallWithoutAnAnswerTimesOutAndALateOneIsDropped) {
    const auto begin = std::chrono::steady_clock::now();
    const uint32_t id = Begin("late", 30);
    EXPECT_TRUE(link.Await(TimedOut("late")));
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(taken, std::chrono::milliseconds(30));
    EXPECT_LT(taken, std::chrono::milliseconds(SLOW ? 20000 : 5000));
    peer.Send(RawResponse(id, "late"));
    const uint32_t next = Begin("next");
    peer.Send(RawResponse(next, "right"));
    EXPECT_TRUE(link.Await("done next 0 right"));
    EXPECT_EQ(link.events.size(), 2U);
}

TEST_P(CallsTest, TimeOutOfZeroEndsInTheNextRound) {
    Begin("none", 0);
    EXPECT_EQ(link.events, Strings());
    EXPECT_TRUE(link.Await(TimedOut("none")));
}

TEST_P(CallsTest, TimeOutsEndInTheirOrderWhateverOrderTheCallsCameIn) {
    for (const int timeoutMs : {120, 40, 80, 10, 1, 60}) {
        Begin(std::to_string(timeoutMs), timeoutMs);
    }
    EXPECT_TRUE(link.AwaitCount(6));
    EXPECT_EQ(link.events, (Strings{TimedOut("1"), TimedOut("10"), TimedOut("40"), TimedOut("60"), TimedOut("80"),
                                    TimedOut("120")}));
}

TEST_P(CallsTest, ShorterTimeOutIsNotDelayedByALongerOneBeforeIt) {
    Begin("long", 60000);
    Begin("short", 20);
    EXPECT_TRUE(link.Await(TimedOut("short")));
    EXPECT_EQ(link.events.size(), 1U);
}

TEST_P(CallsTest, DeadlineThatHasPassedMakesTheDescriptorReadable) {
    Begin("call", 5);
    EXPECT_TRUE(loop.Readable(30000));
    EXPECT_TRUE(loop.Readable()) << "and it stays so";
    EXPECT_EQ(link.events, Strings());
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings{TimedOut("call")});
}

TEST_P(CallsTest, DeadlineOfACallThatWasAnsweredWakesNobodyMoreThanOnce) {
    const uint32_t id = Begin("call", 50);
    peer.Send(RawResponse(id, "answer"));
    EXPECT_TRUE(link.Await("done call 0 answer"));
    if (loop.Readable(200)) {
        loop.RunWhileReadable();
    }
    EXPECT_FALSE(loop.Readable(100));
    EXPECT_EQ(link.events.size(), 1U);
}

TEST_P(CallsTest, CancelledCallEndsInTheNextRoundAndItsAnswerIsDropped) {
    const uint32_t id = Begin("call");
    EXPECT_EQ(TarvoLinkCancel(link.link, calls[0]), 0);
    EXPECT_EQ(link.events, Strings());
    EXPECT_EQ(TarvoLinkCancel(link.link, calls[0]), -ENOENT);
    EXPECT_TRUE(loop.Readable());
    peer.Send(RawResponse(id, "too late"));
    ExpectAlive();
    EXPECT_EQ(link.events, (Strings{Canceled("call"), "request alive"}));
    EXPECT_EQ(TarvoLinkCancel(link.link, calls[0]), -ENOENT);
    EXPECT_EQ(TarvoLinkCancel(link.link, 0), -ENOENT);
    EXPECT_EQ(TarvoLinkCancel(link.link, -5), -ENOENT);
    EXPECT_EQ(TarvoLinkCancel(link.link, calls[0] + 1), -ENOENT);
}

TEST_P(CallsTest, CancelInsideItsOwnEndFindsNoCall) {
    const uint32_t id = Begin("call");
    int result = 0;
    link.onDone = [&](const std::string &) { result = TarvoLinkCancel(link.link, calls[0]); };
    peer.Send(RawResponse(id, "answer"));
    EXPECT_TRUE(link.AwaitCount(1));
    EXPECT_EQ(result, -ENOENT);
}

TEST_P(CallsTest, CancelOfAnotherCallInsideAnEnd) {
    const uint32_t first = Begin("first");
    const uint32_t second = Begin("second");
    link.onDone = [&](const std::string &tag) {
        if (tag == "first") {
            EXPECT_EQ(TarvoLinkCancel(link.link, calls[1]), 0);
        }
    };
    peer.Send(RawResponse(first, "1") + RawResponse(second, "2"));
    ExpectAlive();
    EXPECT_TRUE(link.Await(Canceled("second")));
    EXPECT_EQ(link.Count("done"), 2U);
}

TEST_P(CallsTest, CloseEndsTheCallsInTheNextRoundAndCallsNobodyElse) {
    Begin("one");
    Begin("two", 60000);
    peer.Send(RawRequest(1, "unread"));
    EXPECT_EQ(link.Close(), 0);
    EXPECT_EQ(link.events, Strings());
    loop.RunWhileReadable();
    std::sort(link.events.begin(), link.events.end());
    EXPECT_EQ(link.events, (Strings{Canceled("one"), Canceled("two")}));
}

TEST_P(CallsTest, EveryEndThatIsToldAfterTheCloseSaysSo) {
    Begin("one", 0);
    Begin("two", 0);
    loop.max = 1;
    EXPECT_TRUE(link.Await(TimedOut("one"))) << "and the end of the other is still to be told";
    EXPECT_EQ(link.Close(), 0);
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, (Strings{TimedOut("one"), Canceled("two")}));
}

TEST_P(CallsTest, CallsThatTheRemoteHasEndedAreCancelledByACloseInTheEndOfTheFirst) {
    Begin("one");
    Begin("two");
    link.onDone = [&](const std::string &) { EXPECT_EQ(link.Close(), 0); };
    peer.CloseWrite();
    peer.CloseRead();
    EXPECT_TRUE(link.AwaitCount(2));
    EXPECT_EQ(link.events, (Strings{"done one " + std::to_string(-EPIPE), Canceled("two")}));
}

TEST_P(CallsTest, CallMayBeginInTheEndOfAnother) {
    int left = 100;
    link.onDone = [&](const std::string &) {
        if (--left > 0) {
            EXPECT_GT(link.Call("ask", "call"), 0);
        }
    };
    ASSERT_GT(link.Call("ask", "call"), 0);
    loop.RunBeside([&] {
        for (int i = 0; i < 100; ++i) {
            peer.Send(RawResponse(peer.Receive().id, "answer"));
        }
    });
    EXPECT_TRUE(link.AwaitCount(100));
    EXPECT_EQ(link.Count("done call 0 answer"), 100U);
}

TEST_P(CallsTest, AsManyCallsAsPromisedMayBeOutstandingAndNotOneMore) {
    std::vector<uint32_t> ids;
    const auto readOn = [&] {
        while (peer.HasInput()) {
            ids.push_back(peer.Receive().id);
        }
    };
    for (int i = 0; i < TARVO_LOOP_MAX_CALLS; ++i) {
        int64_t call = link.Call("q", "call");
        if (call == -EAGAIN) {
            readOn();
            EXPECT_TRUE(link.Await("writable"));
            link.events.clear();
            call = link.Call("q", "call");
        }
        ASSERT_GT(call, 0) << i;
    }
    loop.RunWhileReadable();
    readOn();
    EXPECT_EQ(link.Call("one more", "refused"), -ENOBUFS);
    loop.RunWhileReadable();
    readOn();
    EXPECT_EQ(link.Send("still sends"), 0);
    EXPECT_EQ(peer.Receive().payload, "still sends");
    EXPECT_EQ(ids.size(), static_cast<std::size_t>(TARVO_LOOP_MAX_CALLS));
    peer.Send(RawResponse(ids[30000], "answer"));
    EXPECT_TRUE(link.Await("done call 0 answer"));
    EXPECT_GT(link.Call("room again", "call"), 0);
    link.events.clear();
    EXPECT_EQ(link.Close(), 0);
    loop.RunWhileReadable();
    EXPECT_EQ(link.events.size(), static_cast<std::size_t>(TARVO_LOOP_MAX_CALLS));
    EXPECT_EQ(link.Count(Canceled("call")), link.events.size());
}

// ---- The form that waits ----

class BlockingCallTest : public BothModes {
protected:
    int Ask(const std::string &text, int timeoutMs = 30000, uint32_t roomSize = 64) {
        size = roomSize;
        room.assign(64, '?');
        const int result = TarvoLinkCallSync(link.link, View(text), timeoutMs, &room[0], &size);
        answer = result == 0 ? room.substr(0, size) : "";
        return result;
    }

    // What the remote does while the loop's thread is in the call.
    void Beside(const std::function<void()> &remotes, const std::function<void()> &calling) {
        std::exception_ptr thrown;
        std::thread beside([&] {
            try {
                remotes();
            } catch (...) {
                thrown = std::current_exception();
            }
        });
        calling();
        beside.join();
        if (thrown != nullptr) {
            std::rethrow_exception(thrown);
        }
    }

    std::string room;
    std::string answer;
    uint32_t size = 0;
};
TARVO_BOTH_MODES(BlockingCallTest);

TEST_P(BlockingCallTest, ReturnsItsAnswer) {
    Beside([&] { peer.Send(RawResponse(peer.Receive().id, "answer")); }, [&] { EXPECT_EQ(Ask("question"), 0); });
    EXPECT_EQ(answer, "answer");
    EXPECT_EQ(size, 6U);
    EXPECT_EQ(link.events, Strings());
    EXPECT_FALSE(loop.Readable());
}

TEST_P(BlockingCallTest, WhatElseArrivesWaitsForTheNextRound) {
    ASSERT_GT(link.Call("other", "other"), 0);
    const uint32_t other = peer.Receive().id;
    Beside(
        [&] {
            const uint32_t id = peer.Receive().id;
            peer.Send(RawRequest(1, "before") + RawResponse(other, "other's") + RawResponse(id, "answer") +
                      RawRequest(2, "after"));
        },
        [&] { EXPECT_EQ(Ask("question"), 0); });
    EXPECT_EQ(answer, "answer");
    EXPECT_EQ(link.events, Strings());
    EXPECT_TRUE(loop.Readable());
    loop.max = 1;
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, (Strings{"request before", "done other 0 other's", "request after"}));
}

TEST_P(BlockingCallTest, PostsAndOtherLinksWaitToo) {
    bool posted = false;
    ASSERT_EQ(TarvoLoopPost(
                  loop.Get(), [](void *context) { *static_cast<bool *>(context) = true; }, &posted),
              0);
    Beside([&] { peer.Send(RawResponse(peer.Receive().id, "answer")); }, [&] { EXPECT_EQ(Ask("question"), 0); });
    EXPECT_FALSE(posted);
    EXPECT_TRUE(loop.Readable());
    loop.RunWhileReadable();
    EXPECT_TRUE(posted);
}

TEST_P(BlockingCallTest, TimesOutAndDropsTheLateAnswer) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Ask("question", 30), -ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
    EXPECT_EQ(size, 64U);
    peer.Send(RawResponse(peer.Receive().id, "late"));
    Beside([&] { peer.Send(RawResponse(peer.Receive().id, "right")); }, [&] { EXPECT_EQ(Ask("again"), 0); });
    EXPECT_EQ(answer, "right");
    EXPECT_EQ(Ask("question", 0), -ETIMEDOUT);
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings());
}

TEST_P(BlockingCallTest, AnswerForWhichThereIsNoRoomIsLost) {
    Beside([&] { peer.Send(RawResponse(peer.Receive().id, "12345")); },
           [&] { EXPECT_EQ(Ask("question", 30000, 4), -EMSGSIZE); });
    EXPECT_EQ(room.substr(4), std::string(60, '?')) << "nothing is written beyond the room";
    Beside([&] { peer.Send(RawResponse(peer.Receive().id, "1234")); },
           [&] { EXPECT_EQ(Ask("question", 30000, 4), 0); });
    EXPECT_EQ(answer, "1234");
}

TEST_P(BlockingCallTest, RemoteThatGoesEndsIt) {
    Beside(
        [&] {
            peer.Receive();
            peer.Send(RawRequest(1, "farewell"));
            peer.CloseWrite();
            peer.CloseRead();
        },
        [&] { EXPECT_EQ(Ask("question", -1), -EPIPE); });
    EXPECT_EQ(link.events, Strings());
    EXPECT_TRUE(link.Await("closed"));
    EXPECT_EQ(link.events, (Strings{"request farewell", "closed"}));
}

TEST_P(BlockingCallTest, WaitsForRoomNoLongerThanItMay) {
    while (link.Send(std::string(4000, 'x')) == 0) {
    }
    const int result = Ask("question", 30);
    EXPECT_TRUE(result == -EAGAIN || result == -ETIMEDOUT) << result;
}

TEST_P(BlockingCallTest, OthersTimeOutsArePunctualAfterIt) {
    ASSERT_GT(link.Call("other", "other", 10), 0);
    peer.Receive();
    EXPECT_EQ(Ask("question", 40), -ETIMEDOUT);
    EXPECT_EQ(link.events, Strings());
    EXPECT_TRUE(loop.Readable());
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings{TimedOut("other")});
}

TEST_P(BlockingCallTest, AnswerThatHasComeInTimeCountsThoughTheLoopWaitedForAnotherLink) {
    Probe slow(loop);
    ASSERT_EQ(slow.Open(TARVO_LINK_ARRANGED_CLIENT, UniqueName("nobody"), self), 0);
    ASSERT_GT(link.Call("question", "call", 10), 0);
    peer.Send(RawResponse(peer.Receive().id, "in time"));
    char answerRoom[8];
    uint32_t answerSize = sizeof(answerRoom);
    EXPECT_EQ(TarvoLinkCallSync(slow.link, {"x", 1}, 40, answerRoom, &answerSize), -ETIMEDOUT);
    EXPECT_TRUE(link.AwaitCount(1));
    EXPECT_EQ(link.events, Strings{"done call 0 in time"});
}

class OpeningCallTest : public LoopTest {};

TEST_F(OpeningCallTest, BlockingCallWorksOnALinkThatIsStillOpening) {
    for (const TarvoLinkKind kind : {TARVO_LINK_ARRANGED_CLIENT, TARVO_LINK_ARRANGED_SERVER}) {
        ASSERT_EQ(link.Open(kind, remote, self), 0);
        std::thread beside([&] {
            if (kind == TARVO_LINK_ARRANGED_CLIENT) {
                peer.CreateFiles();
                peer.OpenWrite();
            } else {
                peer.OpenBoth();
            }
            peer.Send(RawResponse(peer.Receive().id, "answer"));
        });
        char room[64];
        uint32_t size = sizeof(room);
        EXPECT_EQ(TarvoLinkCallSync(link.link, {"x", 1}, 30000, room, &size), 0);
        beside.join();
        EXPECT_EQ(std::string(room, size), "answer");
        EXPECT_EQ(link.events, Strings()) << "the news that it is open waits, too";
        EXPECT_TRUE(link.Await("opened 0"));
        EXPECT_EQ(link.Take().size(), 1U);
        EXPECT_EQ(link.Close(), 0);
        peer.CloseRead();
        peer.CloseWrite();
        RemoveOwnFifoFiles();
    }
}

TEST_F(OpeningCallTest, BlockingCallDoesNotWaitLongerThanItMayForTheOpen) {
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self), 0);
    char room[64];
    uint32_t size = sizeof(room);
    EXPECT_EQ(TarvoLinkCallSync(link.link, {"x", 1}, 30, room, &size), -ETIMEDOUT);
    EXPECT_EQ(link.events, Strings());
    loop.RunBeside([&] {
        peer.CreateFiles();
        peer.OpenWrite();
    });
    EXPECT_TRUE(link.Await("opened 0")) << "the open goes on";
    EXPECT_FALSE(peer.HasInput());
}

// Also while it waits for no more than the next look at the remote's end.
TEST_F(OpeningCallTest, FailureOfTheSystemIsToldAndTheOpenGoesOn) {
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_SERVER, remote, self), 0);
    char room[64];
    uint32_t size = sizeof(room);
    {
        const ScopedFault fault(Call::Poll, ENOMEM, Where().ThisThread());
        EXPECT_EQ(TarvoLinkCallSync(link.link, {"x", 1}, 1000, room, &size), -ENOMEM);
    }
    loop.RunBeside([&] { peer.OpenBoth(); });
    EXPECT_TRUE(link.Await("opened 0"));
    EXPECT_FALSE(peer.HasInput());
}

} // namespace
} // namespace tarvo_test
