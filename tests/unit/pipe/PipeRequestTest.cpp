// Synchronous calls on a pipe: ids, waits, time-outs, late and foreign responses, and the close.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "PipeEnvironment.h"
#include "PipeFixture.h"
#include "RequestHooks.h"
#include "support/FakeClock.h"
#include "support/Faults.h"
#include "support/Rounds.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

using std::chrono::milliseconds;

class PipeRequestTest : public PipeTest {
protected:
    PipeRequestTest() { pipe = OpenPipe(Attr(TARVO_MODE_SERVER)); }
    ~PipeRequestTest() override {
        DestroyResponse(&response);
        SetRunMode("");
    }

    void Record(int timeoutMs) {
        response.data = marker;
        response.size = 99;
        ASSERT_EQ(pipe->RecordOutRequest(request, response, timeoutMs), 0);
        EXPECT_EQ(response.data, nullptr) << "cleared, so that a response can be told from its absence";
        EXPECT_EQ(response.size, 0U);
    }

    void Answer(uint32_t id, const std::string &text) {
        peer.Send(RawResponse(id, text));
        HandleNextEvent(pipe);
    }

    // The call waits on a thread of its own, and has begun to when this returns.
    std::future<int> WaitOnThread(const FakeClock &clock, int timeoutMs) {
        std::future<int> result = InBackground([this, timeoutMs] { return pipe->WaitForResponse(request, timeoutMs); });
        EXPECT_TRUE(clock.WaitUntilWaiting(1));
        return result;
    }

    std::string TimeoutLine(int timeoutMs) const {
        return "TarvoRPC WaitForResponse timeout, id=" + std::to_string(request.id) +
               ",size=3,timeout=" + std::to_string(timeoutMs) + " ms,err=-110,Remote=" + remote + ",Self=" + self + ".";
    }

    std::string Response() const { return std::string(response.data, response.size); }

    char payload[4] = "req";
    char marker[1] = {'m'};
    TarvoRequest request{12345, payload, 3};
    TarvoResponse response{};
    Pipe pipe;
};

TEST_F(PipeRequestTest, IdsStartAtZeroAndGoUpByOne) {
    EXPECT_EQ(pipe->AllocateId(), 0U);
    EXPECT_EQ(pipe->AllocateId(), 1U);
    Record(100);
    EXPECT_EQ(request.id, 2U);
    pipe->RemoveRequest(request);
}

TEST_F(PipeRequestTest, ResponseBeforeTheWaitIsThereAtOnce) {
    Record(100);
    Answer(request.id, "early");
    EXPECT_EQ(pipe->WaitForResponse(request, 100), 0);
    EXPECT_EQ(response.id, request.id);
    EXPECT_EQ(Response(), "early");
}

TEST_F(PipeRequestTest, ResponseDuringTheWaitEndsIt) {
    const FakeClock clock;
    Record(10000);
    std::future<int> result = WaitOnThread(clock, 10000);
    Answer(request.id, "in time");
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(Response(), "in time");
}

TEST_F(PipeRequestTest, ResponseToAnUnknownIdIsDroppedSilently) {
    Record(100);
    log.Clear();
    Answer(request.id + 1, "foreign");
    EXPECT_EQ(response.data, nullptr);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
    Answer(request.id, "own");
    EXPECT_EQ(pipe->WaitForResponse(request, 100), 0);
    EXPECT_EQ(Response(), "own");
}

TEST_F(PipeRequestTest, SecondResponseToAnIdIsDropped) {
    Record(100);
    Answer(request.id, "first");
    Answer(request.id, "second");
    EXPECT_EQ(pipe->WaitForResponse(request, 100), 0);
    EXPECT_EQ(Response(), "first");
}

TEST_F(PipeRequestTest, WaitWithoutResponseTimesOut) {
    FakeClock clock(FakeClock::Mode::Frozen);
    Record(100);
    std::future<int> result = WaitOnThread(clock, 100);
    clock.Advance(milliseconds(99));
    EXPECT_EQ(clock.Waiting(), 1U);
    clock.Advance(milliseconds(1));
    EXPECT_EQ(result.get(), -ETIMEDOUT);
    EXPECT_EQ(log.CountExactly(LOG_ERR, TimeoutLine(100)), 1U) << testing::PrintToString(log.Messages());
}

TEST_F(PipeRequestTest, TimeoutOfZeroDoesNotWait) {
    Record(0);
    EXPECT_EQ(pipe->WaitForResponse(request, 0), -ETIMEDOUT);
    Record(0);
    Answer(request.id, "there");
    EXPECT_EQ(pipe->WaitForResponse(request, 0), 0);
    EXPECT_EQ(Response(), "there");
}

TEST_F(PipeRequestTest, ResponseAfterTheTimeoutIsNeverWritten) {
    Record(0);
    ASSERT_EQ(pipe->WaitForResponse(request, 0), -ETIMEDOUT);
    response.data = marker;
    response.size = 1;
    Answer(request.id, "too late");
    EXPECT_EQ(response.data, marker);
    EXPECT_EQ(response.size, 1U);
    response.data = nullptr;
}

TEST_F(PipeRequestTest, ResponseBetweenExpiryAndRemovalIsFreedNotLeaked) {
    Record(0);
    bool answered = false;
    const BeforeRemoveRequest hook([&] {
        InMessage msg(request.id, MSG_TYPE_RESPONSE, 4);
        ASSERT_NE(msg.GetData(), nullptr);
        pipe->ProcessResponse(msg);
        answered = response.data != nullptr;
    });
    EXPECT_EQ(pipe->WaitForResponse(request, 0), -ETIMEDOUT);
    EXPECT_TRUE(answered) << "the response came between the two";
    EXPECT_EQ(response.data, nullptr);
    EXPECT_EQ(response.size, 0U);
}

TEST_F(PipeRequestTest, UnlimitedWaitEndsWithTheResponse) {
    Record(-1);
    const CallCounter waits(Call::SemWait);
    std::future<int> result = InBackground([this] { return pipe->WaitForResponse(request, -1); });
    ASSERT_TRUE(waits.WaitFor(1));
    Answer(request.id, "at last");
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(Response(), "at last");
}

TEST_F(PipeRequestTest, SignalsDoNotEndAnUnlimitedWait) {
    Record(-1);
    const ScopedFault interrupted(Call::SemWait, EINTR, Where().Times(3));
    const CallCounter waits(Call::SemWait);
    std::future<int> result = InBackground([this] { return pipe->WaitForResponse(request, -1); });
    ASSERT_TRUE(waits.WaitFor(4));
    Answer(request.id, "at last");
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(Response(), "at last");
}

TEST_F(PipeRequestTest, CloseDuringTheWaitIsABrokenPipe) {
    const FakeClock clock;
    Record(100000);
    std::future<int> result = WaitOnThread(clock, 100000);
    pipe->DeInitPipe();
    EXPECT_EQ(result.get(), -EPIPE);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Self=" + self + ", Remote=" + remote + " failed. Caught exception."));
    EXPECT_EQ(response.data, nullptr);
}

TEST_F(PipeRequestTest, CloseDuringAnUnlimitedWaitIsABrokenPipe) {
    Record(-1);
    const CallCounter waits(Call::SemWait);
    std::future<int> result = InBackground([this] { return pipe->WaitForResponse(request, -1); });
    ASSERT_TRUE(waits.WaitFor(1));
    pipe->DeInitPipe();
    EXPECT_EQ(result.get(), -EPIPE);
}

TEST_F(PipeRequestTest, CloseBeforeTheWaitYieldsNoData) {
    Record(-1);
    pipe->DeInitPipe();
    EXPECT_EQ(pipe->WaitForResponse(request, -1), 0);
    EXPECT_EQ(response.data, nullptr);
}

TEST_F(PipeRequestTest, ClosedPipeTakesNoCall) {
    const FreshRestrainedLines fresh;
    pipe->DeInitPipe();
    EXPECT_EQ(pipe->RecordOutRequest(request, response, 100), -EPIPE);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Add OutRequest failed, outReqList is not valid."), 1U);
}

TEST_F(PipeRequestTest, ThousandCallsMayBeOutstandingAndNotOneMore) {
    std::vector<TarvoResponse> responses(1001);
    std::vector<TarvoRequest> requests(1001, request);
    for (std::size_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(pipe->RecordOutRequest(requests[i], responses[i], 0), 0);
    }
    EXPECT_EQ(pipe->RecordOutRequest(requests[1000], responses[1000], 0), -ENOMEM);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Add OutRequest failed, outReqList size=1000 bytes."), 1U);
    Answer(requests[500].id, "500");
    EXPECT_EQ(pipe->RecordOutRequest(requests[1000], responses[1000], 0), 0);
    EXPECT_EQ(std::string(responses[500].data, responses[500].size), "500");
    DestroyResponse(&responses[500]);
    for (const TarvoRequest &each : requests) {
        pipe->RemoveRequest(each);
    }
}

TEST_F(PipeRequestTest, RemovedRequestGetsNoResponse) {
    Record(100);
    pipe->RemoveRequest(request);
    Answer(request.id, "nobody asks");
    EXPECT_EQ(response.data, nullptr);
    EXPECT_EQ(pipe->WaitForResponse(request, 100), 0);
}

TEST_F(PipeRequestTest, RunMode1WaitsFiveHours) {
    SetRunMode("1");
    FakeClock clock(FakeClock::Mode::Frozen);
    Record(100);
    std::future<int> result = WaitOnThread(clock, 100);
    clock.Advance(milliseconds(17999999));
    EXPECT_EQ(clock.Waiting(), 1U);
    clock.Advance(milliseconds(1));
    EXPECT_EQ(result.get(), -ETIMEDOUT);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, TimeoutLine(100))) << "with the time-out that the caller gave";
}

TEST_F(PipeRequestTest, OtherRunModesKeepTheTimeout) {
    for (const char *mode : {"0", "11", "1 ", "debug"}) {
        SetRunMode(mode);
        Record(0);
        EXPECT_EQ(pipe->WaitForResponse(request, 0), -ETIMEDOUT) << mode;
    }
}

// Responses that arrive just as their callers give up: each call ends with its own answer or a time-out.
TEST_F(PipeRequestTest, TimeoutEqualToTheServiceTimeNeverYieldsAWrongAnswer) {
    const int rounds = StressRounds(5000);
    int answered = 0;
    std::atomic<int> served{0};
    std::thread responder([&] {
        for (int i = 0; i < rounds; ++i) {
            const RawFrame frame = peer.Receive();
            peer.Send(RawResponse(frame.id, frame.payload));
            HandleNextEvent(pipe);
            ++served;
        }
    });
    for (int i = 0; i < rounds; ++i) {
        std::string text = std::to_string(i);
        TarvoRequest call{0, text.data(), static_cast<uint32_t>(text.size())};
        TarvoResponse answer{};
        ASSERT_EQ(pipe->RecordOutRequest(call, answer, i % 2), 0);
        ASSERT_EQ(pipe->Send(call, 0), 0);
        const int ret = pipe->WaitForResponse(call, i % 2);
        if (ret == 0) {
            ASSERT_EQ(std::string(answer.data, answer.size), text);
            ++answered;
        } else {
            ASSERT_EQ(ret, -ETIMEDOUT);
            ASSERT_EQ(answer.data, nullptr);
        }
        DestroyResponse(&answer);
        // A caller that never waits would fill the FIFO before the responder has a turn.
        while (i - served.load() > 8) {
            std::this_thread::yield();
        }
    }
    responder.join();
    EXPECT_GT(answered, 0);
}

} // namespace
} // namespace tarvo_test
