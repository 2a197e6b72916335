#include "loop/Requests.h"

#include <gtest/gtest.h>

#include "support/AllocFaults.h"
#include "tarvo_loop.h"

namespace tarvo_test {
namespace {

TEST(RequestsTest, ARequestIsFoundUntilItIsAnswered) {
    Requests requests;
    uint32_t number = 0;
    uint32_t id = 0;
    EXPECT_FALSE(requests.Find(0, id));
    ASSERT_TRUE(requests.Add(77, number));
    EXPECT_TRUE(requests.Find(number, id));
    EXPECT_EQ(id, 77U);
    EXPECT_FALSE(requests.Find(number + 1, id));
    EXPECT_FALSE(requests.Find(number - 1, id));
    requests.Remove(number);
    EXPECT_FALSE(requests.Find(number, id));
}

TEST(RequestsTest, EachOfTheLastOnesIsFoundAndNoneBefore) {
    Requests requests;
    uint32_t number = 0;
    uint32_t id = 0;
    constexpr uint32_t COUNT = 3 * TARVO_LOOP_MAX_REQUESTS + 5;
    for (uint32_t i = 0; i < COUNT; ++i) {
        ASSERT_TRUE(requests.Add(i, number));
    }
    for (uint32_t i = 0; i < TARVO_LOOP_MAX_REQUESTS; ++i) {
        ASSERT_TRUE(requests.Find(number - i, id)) << i;
        ASSERT_EQ(id, COUNT - 1 - i);
    }
    EXPECT_FALSE(requests.Find(number - TARVO_LOOP_MAX_REQUESTS, id));
}

TEST(RequestsTest, AnsweredRequestsTakeNoMemory) {
    Requests requests;
    uint32_t number = 0;
    ASSERT_TRUE(requests.Add(1, number));
    requests.Remove(number);
    const std::size_t before = ThreadAllocations();
    for (uint32_t i = 0; i < 100000; ++i) {
        ASSERT_TRUE(requests.Add(i, number));
        requests.Remove(number);
    }
    EXPECT_EQ(ThreadAllocations(), before);
}

TEST(RequestsTest, ARequestThatWaitsLongIsFoundAfterTheTableHasGrown) {
    Requests requests;
    uint32_t first = 0;
    uint32_t number = 0;
    uint32_t id = 0;
    ASSERT_TRUE(requests.Add(5, first));
    for (uint32_t i = 0; i < 1000; ++i) {
        ASSERT_TRUE(requests.Add(i, number));
        requests.Remove(number);
    }
    ASSERT_TRUE(requests.Find(first, id));
    EXPECT_EQ(id, 5U);
}

TEST(RequestsTest, WithoutMemoryNothingChanges) {
    Requests requests;
    uint32_t number = 0;
    const AllocFault fault(1);
    EXPECT_FALSE(requests.Add(1, number));
    EXPECT_TRUE(requests.Add(1, number));
}

} // namespace
} // namespace tarvo_test
