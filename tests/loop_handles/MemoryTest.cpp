// What the handles allocate, and what they do when there is no memory.
#include <array>

#include "LoopHandles.h"
#include "support/AllocFaults.h"

namespace tarvo_test {
namespace {

class MemoryTest : public LoopHandlesTest {};

// Fails each allocation of `attempt` in turn, until it needs no more: it either does without that memory, or says that
// there is none. What it yields besides its error ends with memory.
template <typename Attempt>
void FailEachAllocation(Attempt attempt) {
    for (unsigned nth = 1;; ++nth) {
        bool hit = false;
        const auto [error, result] = [&] {
            const AllocFault fault(nth);
            auto tried = attempt();
            hit = fault.Hit();
            return tried;
        }();
        EXPECT_EQ(static_cast<bool>(result), !error);
        if (!hit) {
            EXPECT_FALSE(error);
            return;
        }
        if (error) {
            EXPECT_EQ(error, std::errc::not_enough_memory) << "allocation " << nth;
        }
    }
}

template <typename Result>
std::pair<std::error_code, Result> With(std::error_code error, Result result) {
    return {error, std::move(result)};
}
std::pair<std::error_code, bool> Alone(std::error_code error) { return {error, !error}; }

TEST_F(MemoryTest, CallsTakeNoMemoryAfterTheFirstOnes) {
    ServeEcho();
    const tarvo::Link link = Connected();
    int answers = 0;
    const auto round = [&] {
        const int before = answers;
        for (int i = 0; i < 8; ++i) {
            const std::array<char, 40> room{};
            const std::error_code small = link.Call("x", PATIENCE, [&](auto, auto) { ++answers; });
            const std::error_code kept = link.Call("x", PATIENCE, [&answers, room](auto, auto) {
                (void)room;
                ++answers;
            });
            ASSERT_FALSE(small || kept);
        }
        while (answers < before + 16) {
            loop.Dispatch();
        }
    };
    round();
    round();
    const std::size_t before = ThreadAllocations();
    round();
    EXPECT_EQ(ThreadAllocations(), before);
}

TEST_F(MemoryTest, OpensWithoutMemoryFailAndLeaveNothing) {
    const tarvo::LinkOptions options = As("client");
    int alive = 0;
    FailEachAllocation([&] {
        std::error_code error;
        tarvo::Link link = tarvo::Link::Connect(
            loop, name, options, tarvo::LinkHandlers().OnClosed([counted = Counted(alive)](tarvo::LinkView) {}), error);
        return With(error, std::move(link));
    });
    EXPECT_EQ(alive, 0);
    FailEachAllocation([&] {
        std::error_code error;
        tarvo::Service opened = tarvo::Service::Open(
            loop, name, {}, tarvo::ServiceHandlers().OnClosed([counted = Counted(alive)](tarvo::LinkView) {}), error);
        return With(error, std::move(opened));
    });
    EXPECT_EQ(alive, 0);
    FailEachAllocation([&] {
        std::error_code error;
        tarvo::Loop created = tarvo::Loop::Create(error);
        return With(error, std::move(created));
    });
}

TEST_F(MemoryTest, CallsAndPostsWithoutMemoryFailAndRunNothing) {
    ServeEcho();
    const tarvo::Link link = Connected();
    int alive = 0;
    int runs = 0;
    FailEachAllocation([&] {
        return Alone(
            link.Call("x", PATIENCE, [&, counted = Counted(alive)](std::error_code, std::string_view) { ++runs; }));
    });
    FailEachAllocation([&] {
        return Alone(
            link.Call("x", PATIENCE,
                      [&, counted = Counted(alive), room = std::array<char, 500>()](std::error_code, std::string_view) {
                          (void)room;
                          ++runs;
                      }));
    });
    FailEachAllocation([&] { return Alone(loop.Post([&, counted = Counted(alive)] { ++runs; })); });
    Until([&] { return runs == 3; });
    EXPECT_EQ(alive, 0);
    Drain();
    EXPECT_EQ(runs, 3);
}

} // namespace
} // namespace tarvo_test
