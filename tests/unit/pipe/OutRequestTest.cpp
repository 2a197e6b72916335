// Outstanding requests by themselves: the one-shot semaphore, the caller's block and the list of a pipe.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <thread>

#include "PipeEnvironment.h"
#include "pipe/OutRequest.h"
#include "pipe/OutRequestList.h"
#include "support/Faults.h"
#include "support/SyslogCapture.h"

namespace tarvo_test {
namespace {

TarvoResponse Allocated(uint32_t id) { return TarvoResponse{id, new char[1]{'r'}, 1}; }

std::shared_ptr<OutSyncTimedRequest> MakeRequest(uint32_t id, TarvoResponse &response, int timeoutMs = 0) {
    return std::make_shared<OutSyncTimedRequest>(nullptr, id, response, timeoutMs);
}

TEST(OutRequestTest, ConstructionClearsTheCallersBlock) {
    char old[1] = {'o'};
    TarvoResponse response{3, old, 1};
    const auto request = MakeRequest(9, response);
    EXPECT_EQ(request->GetId(), 9U);
    EXPECT_EQ(response.data, nullptr);
    EXPECT_EQ(response.size, 0U);
}

TEST(OutRequestTest, ResponseBeforeTheWaitIsTakenAtOnce) {
    TarvoResponse response{};
    const auto request = MakeRequest(1, response, -1);
    TarvoResponse in = Allocated(1);
    request->Process(in);
    EXPECT_EQ(request->Wait(), 0);
    EXPECT_EQ(response.id, 1U);
    EXPECT_EQ(response.data, in.data);
    EXPECT_EQ(response.size, 1U);
    DestroyResponse(&response);
}

TEST(OutRequestTest, ResponseDuringTheWaitEndsIt) {
    TarvoResponse response{};
    const auto request = MakeRequest(1, response, -1);
    const CallCounter waits(Call::SemWait, Where().ThisThread());
    std::thread receiver([&] {
        EXPECT_TRUE(waits.WaitFor(1));
        TarvoResponse in = Allocated(1);
        request->Process(in);
    });
    EXPECT_EQ(request->Wait(), 0);
    receiver.join();
    EXPECT_EQ(response.id, 1U);
    EXPECT_EQ(response.size, 1U);
    DestroyResponse(&response);
}

TEST(OutRequestTest, CancelWithoutResponseIsABrokenPipe) {
    TarvoResponse response{};
    const auto request = MakeRequest(1, response, -1);
    request->Cancel();
    EXPECT_EQ(request->Wait(), -EPIPE);
}

TEST(OutRequestTest, CancelDuringATimedWaitEndsIt) {
    TarvoResponse response{};
    const auto request = MakeRequest(1, response, 100000);
    std::thread waker([&request] { request->Cancel(); });
    EXPECT_EQ(request->Wait(), -EPIPE);
    waker.join();
}

TEST(OutRequestTest, TimeoutWithoutAPipeEndsTheWait) {
    TarvoResponse response{};
    const auto request = MakeRequest(1, response, 0);
    EXPECT_EQ(request->Wait(), -ETIMEDOUT);
}

class OutRequestListTest : public testing::Test {
protected:
    std::shared_ptr<OutSyncTimedRequest> Push(uint32_t id) {
        const auto request = MakeRequest(id, response);
        EXPECT_EQ(list.PushBack(request), 0);
        return request;
    }

    FreshRestrainedLines fresh;
    TarvoResponse response{};
    OutRequestList list;
    SyslogCapture log;
};

TEST_F(OutRequestListTest, RefusesRequestsUntilEnabled) {
    EXPECT_EQ(list.PushBack(MakeRequest(1, response)), -EPIPE);
    EXPECT_EQ(list.Size(), 0U);
    list.Enable();
    Push(1);
    EXPECT_EQ(list.Size(), 1U);
}

TEST_F(OutRequestListTest, FindLeavesAndPopTakesTheFirstMatch) {
    list.Enable();
    const auto first = Push(5);
    Push(6);
    const auto second = Push(5);
    EXPECT_EQ(list.Find(5), first);
    EXPECT_EQ(list.Size(), 3U);
    EXPECT_EQ(list.Pop(5), first);
    EXPECT_EQ(list.Pop(5), second);
    EXPECT_EQ(list.Pop(5), nullptr);
    EXPECT_EQ(list.Find(5), nullptr);
    EXPECT_EQ(list.Size(), 1U);
}

TEST_F(OutRequestListTest, EraseTakesOneAndIgnoresUnknownIds) {
    list.Enable();
    Push(1);
    Push(2);
    list.Erase(7);
    list.Erase(1);
    EXPECT_EQ(list.Size(), 1U);
    EXPECT_EQ(list.Find(1), nullptr);
    EXPECT_NE(list.Find(2), nullptr);
}

TEST_F(OutRequestListTest, DisableEndsEveryWaitAndRefusesFromThenOn) {
    list.Enable();
    const auto first = Push(1);
    const auto second = Push(2);
    list.Disable();
    EXPECT_EQ(list.Size(), 0U);
    EXPECT_EQ(first->Wait(), -EPIPE);
    EXPECT_EQ(second->Wait(), -EPIPE);
    EXPECT_EQ(list.PushBack(MakeRequest(3, response)), -EPIPE);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Add OutRequest failed, outReqList is not valid."));
}

TEST_F(OutRequestListTest, FullListIsReportedBeforeAnInvalidOne) {
    list.Enable();
    for (uint32_t id = 0; id < 1000; ++id) {
        Push(id);
    }
    EXPECT_EQ(list.PushBack(MakeRequest(1000, response)), -ENOMEM);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Add OutRequest failed, outReqList size=1000 bytes."));
}

} // namespace
} // namespace tarvo_test
