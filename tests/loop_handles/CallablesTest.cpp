// What may be a callback, and where it lives.
#include <array>
#include <functional>
#include <thread>
#include <vector>

#include "LoopHandles.h"

namespace tarvo_test {
namespace {

class CallablesTest : public LoopHandlesTest {
protected:
    void SetUp() override { ServeEcho(); }
};

TEST_F(CallablesTest, CallablesOfEverySizeRunOnceAndAreDestroyed) {
    const tarvo::Link link = Connected();
    int alive = 0;
    int runs = 0;
    const auto empty = [](std::error_code error, std::string_view) { EXPECT_FALSE(error); };
    static_assert(tarvo::detail::FITS_CONTEXT<decltype(empty)>);
    ASSERT_FALSE(link.Call("x", PATIENCE, empty));
    const auto pointer = [&runs](std::error_code, std::string_view bytes) { runs += bytes == "pointer"; };
    static_assert(tarvo::detail::FITS_CONTEXT<decltype(pointer)>);
    ASSERT_FALSE(link.Call("pointer", PATIENCE, pointer));
    ASSERT_FALSE(
        link.Call("kept", PATIENCE, [&runs, counted = Counted(alive)](std::error_code, std::string_view bytes) {
            runs += bytes == "kept";
        }));
    ASSERT_FALSE(link.Call(
        "large", PATIENCE,
        [&runs, counted = Counted(alive), room = std::array<char, 500>()](std::error_code, std::string_view bytes) {
            (void)room;
            runs += bytes == "large";
        }));
    ASSERT_FALSE(link.Call("moved", PATIENCE,
                           [&runs, counted = Counted(alive), only = std::make_unique<int>(1)](
                               std::error_code, std::string_view bytes) { runs += bytes == "moved" ? *only : 0; }));
    EXPECT_EQ(alive, 3);
    Until([&] { return runs == 4; });
    EXPECT_EQ(alive, 0);
}

TEST_F(CallablesTest, RefusedCallNeverRunsItsCallable) {
    const tarvo::Link link = Connected();
    int alive = 0;
    EXPECT_EQ(link.Call("", PATIENCE,
                        [counted = Counted(alive)](std::error_code, std::string_view) { ADD_FAILURE() << "it runs"; }),
              std::errc::invalid_argument);
    EXPECT_EQ(alive, 0);
    Drain();
}

TEST_F(CallablesTest, ReferenceMakesTheLoopUseTheCallersObject) {
    struct Counter {
        void operator()(std::error_code, std::string_view) { ++calls; }
        int calls = 0;
    } counter;
    const tarvo::Link link = Connected();
    ASSERT_FALSE(link.Call("x", PATIENCE, std::ref(counter)));
    ASSERT_FALSE(link.Call("y", PATIENCE, std::ref(counter)));
    Until([&] { return counter.calls == 2; });
}

TEST_F(CallablesTest, MovedLinkKeepsItsCallables) {
    std::string opened;
    bool closed = false;
    tarvo::Link link = tarvo::Link::Connect(loop, name, As("client"),
                                            tarvo::LinkHandlers()
                                                .OnOpened([&opened, text = std::string("the link of a long capture")](
                                                              tarvo::LinkView, std::error_code) { opened = text; })
                                                .OnClosed([&closed](tarvo::LinkView) { closed = true; }));
    tarvo::Link moved = std::move(link);
    EXPECT_FALSE(link);
    std::vector<tarvo::Link> links;
    links.push_back(std::move(moved));
    for (int i = 0; i < 10; ++i) {
        links.emplace_back();
    }
    Until([&] { return !opened.empty(); });
    EXPECT_EQ(opened, "the link of a long capture");
    links.back() = std::move(links.front());
    EXPECT_FALSE(links.front());
    bool answered = false;
    ASSERT_FALSE(links.back().Call("x", PATIENCE, [&](std::error_code error, std::string_view) { answered = !error; }));
    Until([&] { return answered; });
    EXPECT_FALSE(closed);
}

TEST_F(CallablesTest, WritableComesOnceThereIsRoomAgain) {
    std::size_t heard = 0;
    service = tarvo::Service();
    service = tarvo::Service::Open(
        loop, name, {}, tarvo::ServiceHandlers().OnRequest([&heard](const tarvo::LinkRequest &) { ++heard; }));
    bool opened = false;
    int writable = 0;
    const tarvo::Link link =
        tarvo::Link::Connect(loop, name, As("client"),
                             tarvo::LinkHandlers()
                                 .OnOpened([&](tarvo::LinkView, std::error_code) { opened = true; })
                                 .OnWritable([&](tarvo::LinkView) { ++writable; }));
    Until([&] { return opened; });
    const std::string payload(4000, 'x');
    std::size_t sent = 0;
    std::error_code error;
    while (!(error = link.Send(payload))) {
        ++sent;
    }
    EXPECT_EQ(error, std::errc::resource_unavailable_try_again);
    Until([&] { return writable == 1; });
    EXPECT_FALSE(link.Send(payload));
    Until([&] { return heard == sent + 1; });
    EXPECT_EQ(writable, 1);
}

TEST_F(CallablesTest, PostsOfOtherThreadsRunInTheirOrder) {
    int alive = 0;
    std::vector<int> ran;
    std::thread([&] {
        for (int i = 0; i < 100; i += 2) {
            ASSERT_FALSE(loop.Post([&ran, i, text = std::string("too large for a pointer")] { ran.push_back(i); }));
            ASSERT_FALSE(loop.Post([&ran] { ran.push_back(ran.back() + 1); }));
        }
    }).join();
    ASSERT_FALSE(loop.Post([counted = Counted(alive)] {}));
    Until([&] { return ran.size() == 100; });
    Drain();
    EXPECT_EQ(alive, 0);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
    }
}

} // namespace
} // namespace tarvo_test
