// Synchronous calls that fail after their request was registered: nothing may reach the caller's response any more.
#include <cerrno>
#include <future>
#include <thread>
#include <vector>

#include "ApiFixture.h"
#include "support/FakeClock.h"
#include "support/Faults.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

// A pipe whose remote is played by hand, and whose callback tells that all before it has been read.
class PendingCallTest : public ApiTest {
protected:
    PendingCallTest() {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, [this](int, TarvoRequest *request) {
            if (request != nullptr) {
                read.set_value();
            }
        });
        fd = TarvoOpen(&attr);
        peer.OpenBoth();
    }
    // The receive thread takes messages one after another.
    void AwaitReadUpToHere() {
        peer.Send(RawRequest(99, "mark"));
        read.get_future().get();
        read = {};
    }

    int fd = 0;
    RawPeer peer{remote, self};
    std::promise<void> read;
    Blocks blocks;
    TarvoResponse response{55, nullptr, 66};
};

TEST_F(PendingCallTest, FailedSendIsReportedAndLeavesAnEmptyResponse) {
    {
        const ScopedFault fault(Call::Write, EIO, Where().ThisThread().Always());
        EXPECT_EQ(TarvoTimedRPCSync(fd, &blocks.request, &response, -1), -EIO);
        EXPECT_EQ(TarvoTimedRPCSync(fd, &blocks.request, &response, -1), -EIO);
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Send req fail, fd=2, err=-5."), 1U) << "restrained";
    EXPECT_EQ(response.data, nullptr);
    EXPECT_EQ(response.size, 0U);
}

TEST_F(PendingCallTest, ResponseThatCameBeforeTheSendFailedIsFreed) {
    const auto answerAndFail = [this](const CallInfo &info) -> std::optional<Outcome> {
        static_cast<void>(write(info.fd, info.data, info.size));
        peer.Send(RawResponse(peer.Receive().id, "early"));
        AwaitReadUpToHere();
        EXPECT_NE(response.data, nullptr);
        return Outcome{-1, EIO};
    };
    const ScopedHook hook(Call::Write, answerAndFail, Where().ThisThread());
    EXPECT_EQ(TarvoTimedRPCSync(fd, &blocks.request, &response, -1), -EIO);
    EXPECT_EQ(response.data, nullptr);
}

TEST_F(PendingCallTest, ResponseThatComesAfterTheSendFailedGoesNowhere) {
    {
        const ScopedHook hook(
            Call::Write,
            [](const CallInfo &info) -> std::optional<Outcome> {
                static_cast<void>(write(info.fd, info.data, info.size));
                return Outcome{-1, EIO};
            },
            Where().ThisThread());
        EXPECT_EQ(TarvoTimedRPCSync(fd, &blocks.request, &response, -1), -EIO);
    }
    peer.Send(RawResponse(peer.Receive().id, "late"));
    AwaitReadUpToHere();
    EXPECT_EQ(response.data, nullptr);
}

TEST_F(PendingCallTest, ResponseThatComesAfterTheTimeOutGoesNowhere) {
    EXPECT_EQ(TarvoTimedRPCSync(fd, &blocks.request, &response, 10), -ETIMEDOUT);
    peer.Send(RawResponse(peer.Receive().id, "late"));
    AwaitReadUpToHere();
    EXPECT_EQ(response.data, nullptr);
}

TEST_F(PendingCallTest, EveryCallHasAnIdOfItsOwn) {
    auto call = InBackground([this] { return Ask(fd, "first"); });
    const RawFrame first = peer.Receive();
    EXPECT_EQ(first.timeout, PIPE_OPEN_TIMEOUT_MS);
    auto other = InBackground([this] { return Ask(fd, "second"); });
    const RawFrame second = peer.Receive();
    EXPECT_NE(first.id, second.id);
    peer.Send(RawResponse(second.id, "to second"));
    EXPECT_EQ(other.get(), "to second");
    peer.Send(RawResponse(first.id, "to first"));
    EXPECT_EQ(call.get(), "to first");
}

// The id in the object is the later call's when the earlier one ends.
TEST_F(PendingCallTest, CallsOverOneRequestObjectDoNotTakeEachOthersPlace) {
    FakeClock clock;
    auto earlier = InBackground([&] { return TarvoTimedRPCSync(fd, &blocks.request, &response, HOUR_MS); });
    ASSERT_TRUE(clock.WaitUntilWaiting(1, std::chrono::minutes(30)));
    const uint32_t earlierId = peer.Receive().id;
    TarvoResponse laterResponse{};
    auto later = InBackground([&] { return TarvoTimedRPCSync(fd, &blocks.request, &laterResponse, 2 * HOUR_MS); });
    ASSERT_TRUE(clock.WaitUntilWaiting(2, std::chrono::minutes(30)));
    const uint32_t laterId = peer.Receive().id;
    EXPECT_NE(earlierId, laterId);
    clock.Advance(std::chrono::milliseconds(HOUR_MS));
    EXPECT_EQ(earlier.get(), -ETIMEDOUT);
    peer.Send(RawResponse(laterId, "to the later"));
    EXPECT_EQ(later.get(), 0);
    EXPECT_EQ(std::string(laterResponse.data, laterResponse.size), "to the later");
    DestroyResponse(&laterResponse);
    peer.Send(RawResponse(earlierId, "too late"));
    AwaitReadUpToHere();
    EXPECT_EQ(response.data, nullptr);
}

TEST_F(PendingCallTest, FramesTellHowLongTheirCallerWaits) {
    EXPECT_EQ(TarvoSendRequest(fd, &blocks.request), 0);
    EXPECT_EQ(peer.Receive().timeout, -1);
    EXPECT_EQ(TarvoTimedRPCSync(fd, &blocks.request, nullptr, 10), 0);
    EXPECT_EQ(peer.Receive().timeout, -1) << "without a response it is a one-way request";
    EXPECT_EQ(TarvoTimedRPCSync(fd, &blocks.request, &response, 10), -ETIMEDOUT);
    EXPECT_EQ(peer.Receive().timeout, 10);

    auto call = InBackground([this] { return TarvoRPCSync(fd, &blocks.request, &response); });
    const RawFrame frame = peer.Receive();
    EXPECT_EQ(frame.timeout, -1);
    EXPECT_EQ(frame.id, blocks.request.id) << "written into the caller's request before it is sent";
    peer.Send(RawResponse(frame.id, "answer"));
    EXPECT_EQ(call.get(), 0);
    DestroyResponse(&response);
}

TEST_F(PendingCallTest, ClosedPipeEndsTheWait) {
    const FakeClock clock;
    auto call = InBackground([this] { return Ask(fd, "anyone", HOUR_MS); });
    ASSERT_TRUE(clock.WaitUntilWaiting(1, std::chrono::minutes(30)));
    EXPECT_EQ(TarvoClosePipe(fd), 0);
    EXPECT_EQ(call.get(), "error -32");
}

TEST_F(PendingCallTest, CancelledCallerLeavesNothingBehindThatPointsAtItsResponse) {
    pthread_t caller{};
    std::promise<void> started;
    std::thread thread([&] {
        caller = pthread_self();
        started.set_value();
        Ask(fd, "anyone", -1);
        ADD_FAILURE() << "not cancelled";
    });
    started.get_future().get();
    const uint32_t id = peer.Receive().id;
    ASSERT_EQ(pthread_cancel(caller), 0);
    thread.join();
    peer.Send(RawResponse(id, "late"));
    AwaitReadUpToHere();
}

TEST_F(PendingCallTest, ThousandAndFirstOutstandingCallIsRefused) {
    constexpr int LIMIT = 1000;
    const FakeClock clock;
    std::vector<std::future<std::string>> calls;
    for (int i = 0; i < LIMIT; ++i) {
        calls.push_back(InBackground([this] { return Ask(fd, "one", HOUR_MS); }));
        peer.Receive();
    }
    ASSERT_TRUE(clock.WaitUntilWaiting(LIMIT, std::chrono::minutes(30)));
    EXPECT_EQ(TarvoTimedRPCSync(fd, &blocks.request, &response, -1), -ENOMEM);
    EXPECT_EQ(response.data, nullptr);
    TarvoClosePipe(fd);
    for (auto &call : calls) {
        EXPECT_EQ(call.get(), "error -32");
    }
}

} // namespace
} // namespace tarvo_test
